#include <utility>

#include "IODevice.h"

#include "Device.h"
#include "Lapi.h"
#include "ModelParameters.h"
#include "ObjectName.h"

#include <IpUtil/Http.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <string>

namespace Uniview
{
namespace
{
using Tavro8::ResultCode;
using Tavro8::toResult;

constexpr const char* switching = "Uniview::IODevice::SetRelayStatus";
constexpr const char* receiving = "Uniview::IODevice::handleTriggerInfo";
constexpr const char* relayPath = "/LAPI/V1.0/IO/OutputSwitches/ManualAlarm";

/// A number of inputs or relays among the model parameters of a channel.
std::uint32_t modelCount(const Device& device, std::uint32_t channelIndex, const char* key)
{
    return ModelParameters::ofChannel(*device.getDescription(), channelIndex).count(key, IODevice::maxCount);
}

/// Built as text, because a JSON writer would sort the members. The wire counts relays from 1.
std::string relayBody(std::uint32_t relayIndex, bool state)
{
    return "{\"Num\":1,\"IDs\":[" + std::to_string(relayIndex + 1) + "],\"AlarmAction\":" + (state ? '1' : '0') + '}';
}
}  // namespace

Tavro8::GDRV::IIODevice* IODevice::create(Device* device, std::uint32_t channelIndex,
                                          Tavro8::GDRV::IIODeviceHandler* handler, std::chrono::milliseconds farewell)
{
    const auto object = std::make_shared<IODevice>(handler, channelIndex, device, farewell);
    object->channel.adopt(object);
    return object.get();
}

IODevice::IODevice(Tavro8::GDRV::IIODeviceHandler* handler, std::uint32_t channelIndex, Device* device,
                   std::chrono::milliseconds farewell)
    : device(device),
      channelIndex(channelIndex),
      rayCount(modelCount(*device, channelIndex, "rayCount")),
      relayCount(modelCount(*device, channelIndex, "relayCount")),
      handler(handler),
      inputStates(rayCount, InputState::unknown),
      channel({device, this, static_cast<Tavro8::GDRV::IIODevice*>(this), handler, "Drivers/Uniview/src/IODevice",
               "Uniview::IODevice::Start", "Uniview::IODevice::Stop", "Uniview::IODevice::Destroy"},
              ioObjectName(device->getDescription()->name, channelIndex)),
      farewell(farewell),
      farewellTimer(device->service())
{}

void* IODevice::FindContract(const char* name) noexcept
{
    using namespace Tavro8::GDRV;
    return Tavro8::findContractIn<IIODevice, IDeviceChannel, Tavro8::IContract>(static_cast<IIODevice*>(this), name);
}

void IODevice::Destroy() noexcept
{
    Tavro8::guardedVoid(channel.log(), "Uniview::IODevice::Destroy", [this] {
        boost::asio::post(device->service(), [self = shared_from_this()] {
            Tavro8::guardedVoid(self->channel.log(), switching, [&] { self->sayFarewell(); });
        });
    });
    channel.destroy();
}

std::int32_t IODevice::SetRelayStatus(std::uint32_t relayIndex, std::uint8_t state) noexcept
{
    return Tavro8::guarded(channel.log(), switching, toResult(ResultCode::unexpected),
                           [&] { return switchRelay(relayIndex, state != 0); });
}

std::int32_t IODevice::switchRelay(std::uint32_t relayIndex, bool state)
{
    if (relayIndex >= relayCount) {
        channel.log().error(switching, "Relay index out of range");
        return toResult(ResultCode::outOfRange);
    }
    const auto info = device->getHttpConnectionInfo();
    if (info == nullptr) {
        channel.log().error(switching, "A relay can be switched once the device has connected");
        return toResult(ResultCode::invalidState);
    }
    const std::lock_guard lock(mutex);  // the reply may be there before the command is noted
    const std::uint64_t command = ++lastCommand;
    const auto onReply = [self = shared_from_this(), keepDevice = device->shared_from_this(), relayIndex,
                          command](const Tavro8::error_code& ec, const std::vector<char>& body,
                                   const Tavro8::http::HttpResponse& response) {
        Tavro8::guardedVoid(self->channel.log(), switching, [&] {
            self->endCommand(command);
            keepDevice->reportExchange(ec);
            self->onRelayReply(relayIndex, lapi::judge(ec, response, body));
        });
    };
    commands[command] =
        Tavro8::http::asyncPutEx(info, relayPath, relayBody(relayIndex, state), device->service(), onReply);
    return toResult(ResultCode::success);
}

void IODevice::endCommand(std::uint64_t command)
{
    const std::lock_guard lock(mutex);
    commands.erase(command);
    if (commands.empty())
        farewellTimer.cancel();
}

/// Nobody waits for the replies any more, but what has been asked for is given the time to happen.
void IODevice::sayFarewell()
{
    const std::lock_guard lock(mutex);
    if (commands.empty())
        return;
    farewellTimer.expires_after(farewell);
    farewellTimer.async_wait([self = shared_from_this()](const boost::system::error_code& ec) {
        if (!ec)
            Tavro8::guardedVoid(self->channel.log(), switching, [&] { self->cancelCommands(); });
    });
}

void IODevice::cancelCommands()
{
    const std::lock_guard lock(mutex);  // the handlers run later, on this same context
    for (const auto& [command, cancellation] : commands)
        cancellation->cancel();
}

void IODevice::onRelayReply(std::uint32_t relayIndex, const lapi::Reply& reply)
{
    if (reply.failure == lapi::Failure::malformed)
        channel.log().error(switching, "Cannot parse the reply to a relay command: ", reply.message);
    else if (!reply)
        channel.log().error(switching, lapi::describe(reply, relayPath, lapi::Wording::io));
    if (handler != nullptr)
        channel.tell([&] { handler->RelaySwitched(this, relayIndex, reply.result); });
}

bool IODevice::handleTriggerInfo(const Json::Value& alarmInfo)
{
    bool taken = false;
    Tavro8::guardedVoid(channel.eventLog(), receiving, [&] { taken = handle(alarmInfo); });
    return taken;
}

bool IODevice::handle(const Json::Value& alarmInfo)
{
    if (channel.isDestroyed())
        return false;  // another object of the same inputs may want it
    const InputDecision decision = decideInput(alarmInfo, inputStates);
    switch (decision.kind) {
    case InputDecision::Kind::malformed:
        channel.eventLog().warning(receiving, "AlarmSrcID is not the number of an input");
        break;
    case InputDecision::Kind::outOfRange:
        channel.eventLog().warning(receiving, "Ray ID=", decision.input,
                                   " is out of range. Size: ", inputStates.size());
        break;
    case InputDecision::Kind::changed:
        if (handler != nullptr)
            channel.tell([&] { handler->InputStateChanged(this, decision.input, decision.state); });
        break;
    case InputDecision::Kind::foreign:
    case InputDecision::Kind::unchanged:
        break;
    }
    return decision.isTaken();
}
}  // namespace Uniview
