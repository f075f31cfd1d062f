#include "DeviceSession.h"

#include "Console.h"
#include "DeviceAddress.h"
#include "ExitStatus.h"

#include <Tavro8/ResultCode.h>
#include <utility>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
using Tavro8::ResultCode;
namespace
{
/// An attempt that hangs in a silent device ends with its time-out; nobody who wants to leave waits for that.
constexpr std::chrono::seconds closeTimeout{5};

const char* whatToCheck(std::int32_t result) noexcept
{
    switch (static_cast<ResultCode>(result)) {
    case ResultCode::deviceUnreachable:
        // Modules also report this when the device answers but refuses to tell its ports.
        return "; check address, port, user name and password, and that the device is switched on";
    case ResultCode::timedOut:
        return "; check address and port, and that the device is switched on and in reach";
    case ResultCode::secureChannelFailed:
        return "; check that the device offers https on this port";
    case ResultCode::malformedResponse:
    case ResultCode::malformedReply:
    case ResultCode::emptyReply:
    case ResultCode::resourceNotFound:
        return "; check that this is the management port of a supported device";
    default:
        return "";
    }
}
}  // namespace

std::string failureSentence(const std::string& what, std::int32_t result)
{
    return reasonSentence(what, result) + whatToCheck(result);
}

std::string reasonSentence(const std::string& what, std::int32_t result)
{
    return what + ": " + Tavro8::describeResult(result) + " (result " + std::to_string(result) + ")";
}

void requireMade(const void* object, const std::string& what, std::int32_t result)
{
    if (result != Tavro8::toResult(ResultCode::success) || object == nullptr)
        throw Failure(ExitStatus::failed, reasonSentence(what, result), result);
}

DeviceSession::DeviceSession(GDRV::IModule& module, const GDRV::IDeviceDescription& description,
                             Surroundings sessionSurroundings)
    : surroundings(std::move(sessionSurroundings))
{
    const std::int32_t result = module.CreateDevice(&description, this, &device);
    if (result != Tavro8::toResult(ResultCode::success) || device == nullptr)
        throw Failure(ExitStatus::failed, failureSentence("the module made no device", result), result);
}

DeviceSession::~DeviceSession()
{
    requestClose();
    if (closeDeadline && !surroundings.monitor.wait({}, *closeDeadline, [this] { return closed; }))
        surroundings.console.line(surroundings.name + ": the module did not report the connection as closed");
    device->Destroy();
}

void DeviceSession::requestClose()
{
    if (!opened || closeDeadline)
        return;
    closeDeadline = Monitor::Clock::now() + closeTimeout;
    device->Close();
}

void DeviceSession::open(const DeviceAddress& address)
{
    const std::int32_t result = device->Open(address.complete().c_str());
    if (result != Tavro8::toResult(ResultCode::success))
        throw Failure(ExitStatus::refused, failureSentence("could not connect to " + surroundings.name, result),
                      result);
    opened = true;
}

void DeviceSession::awaitConnection(const std::stop_token& interrupted, Monitor::Clock::time_point deadline,
                                    bool keepTrying)
{
    surroundings.monitor.wait(interrupted, deadline, [&] { return connected || (failure && !keepTrying); });
    const auto [done, result] = surroundings.monitor.read([this] { return std::pair(connected, failure); });
    if (done)
        return;
    const std::string what = "could not connect to " + surroundings.name;
    if (interrupted.stop_requested())
        throw Failure(ExitStatus::interrupted, "interrupted");
    if (result)
        throw Failure(ExitStatus::refused, failureSentence(what, *result), result);
    throw Failure(ExitStatus::refused, what + ": no answer in time; check the address, or allow more with --timeout");
}

GDRV::IDeviceInformation* DeviceSession::getInformation() const noexcept
{
    return Tavro8::queryContract<GDRV::IDeviceInformation>(device);
}

std::optional<std::int32_t> DeviceSession::getTrouble() const
{
    const auto [up, result] = surroundings.monitor.read([this] { return std::pair(connected, failure); });
    if (up)
        return {};
    return result.value_or(Tavro8::toResult(ResultCode::invalidState));
}

void* DeviceSession::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<GDRV::IDeviceHandler, Tavro8::IContract>(static_cast<GDRV::IDeviceHandler*>(this),
                                                                           name);
}

void DeviceSession::Connected(GDRV::IDevice*) noexcept
{
    bool again = false;
    surroundings.monitor.change([&] {
        connected = true;
        failure.reset();
        again = std::exchange(wasConnected, true);
    });
    if (again)
        surroundings.console.line(surroundings.name + ": connected again");
}

void DeviceSession::ConnectFailed(GDRV::IDevice*, std::int32_t result) noexcept
{
    surroundings.monitor.change([&] {
        connected = false;
        failure = result;
    });
}

void DeviceSession::ConnectionLost(GDRV::IDevice*, std::int32_t result) noexcept
{
    surroundings.monitor.change([&] {
        connected = false;
        failure = result;
    });
    surroundings.console.line(failureSentence(surroundings.name + ": connection lost", result) +
                              "; the module keeps trying");
}

void DeviceSession::Closed(GDRV::IDevice*) noexcept
{
    surroundings.monitor.change([this] { closed = true; });
}
}  // namespace Host
