#include <utility>

#include "Device.h"

#include "EventListener.h"
#include "Lapi.h"
#include "LocalAddress.h"
#include "LocalServerSettings.h"
#include "ModuleSettings.h"
#include "RtspPort.h"
#include "SettingsQueue.h"

#include <IpUtil/Numbers.h>
#include <algorithm>
#include <cstring>
#include <exception>
#include <json/value.h>
#include <locale>
#include <sstream>

namespace Uniview
{
namespace
{
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::GDRV::DeviceKind;

constexpr const char* sourcePath = "Drivers/Uniview/src/ModuleDriver";
constexpr const char* constructing = "Uniview::Device::Device";
constexpr const char* connecting = "Uniview::Device::tryConnect";
constexpr const char* identifying = "Uniview::Device::fillDeviceType";

constexpr std::chrono::seconds addressLimit{1};  // for each address that a host name stands for

constexpr const char* portPath = "/LAPI/V1.0/Network/Port";
constexpr const char* alternativePortPath = "/LAPI/V1.0/Network/Ports";
constexpr const char* deviceInfoPath = "/LAPI/V1.0/System/DeviceInfo";

/// A property, or nothing when it is not set.
boost::any property(const ParameterMap& properties, const char* key)
{
    const auto found = properties.find(key);
    return found == properties.end() ? boost::any() : found->second;
}
}  // namespace

DeviceTraits::DeviceTraits(const Tavro8::GDRV::IDeviceDescription& description, const ParameterMap& repository)
    : name(description.GetName() == nullptr ? "" : description.GetName()),
      videoChannelCount(description.GetVideoChannelCount()),
      properties(description.GetProperties()),
      modelParameters(description.GetModelParameters())
{
    properties.insert(repository.begin(), repository.end());  // keeps what the host has set
    channelModelParameters.reserve(videoChannelCount);
    for (std::uint32_t channel = 0; channel < videoChannelCount; ++channel)
        channelModelParameters.push_back(description.GetChannelModelParameters(channel));
}

std::shared_ptr<Device> Device::create(Tavro8::GDRV::IDeviceHandler* handler, Tavro8::ILogger* logger,
                                       std::shared_ptr<DeviceTraits> description,
                                       Tavro8::Utility::GlobalService& globalService)
{
    const auto device = std::make_shared<Device>(handler, logger, std::move(description), globalService);
    const std::weak_ptr<Device> weak = device;
    Tavro8::Utility::RTSPSource::Hooks hooks;
    hooks.connectionInfo = [weak]() -> ConnectionInfoPtr {
        const auto self = weak.lock();
        return self && self->isConnected() ? self->getRtspConnectionInfo() : nullptr;
    };
    hooks.path = [weak](std::uint32_t channel, std::uint32_t stream) {
        const auto self = weak.lock();
        return self ? self->getURL(channel, stream) : std::string();
    };
    hooks.onLost = [weak] {
        if (const auto self = weak.lock())
            self->reportStreamLost();
    };
    // A connection that says goodbye outlives its device: it keeps the logger, and `finiModule` waits for it.
    hooks.keepAlive = std::make_shared<std::pair<std::shared_ptr<void>, std::shared_ptr<void>>>(device->getLogger(),
                                                                                                device->lifetime);
    device->adopt(device, std::move(hooks));
    return device;
}

Device::Device(Tavro8::GDRV::IDeviceHandler* handler, Tavro8::ILogger* logger,
               std::shared_ptr<DeviceTraits> description, Tavro8::Utility::GlobalService& globalService)
    : Base(handler, logger, description, globalService, description->videoChannelCount),
      channelCount(getDescription()->videoChannelCount),
      logger(getLogger().get(), sourcePath),
      moduleLogger(getModuleLogger(), sourcePath),
      lifetime(ModuleSettings::lifetimeGate().enter())
{
    parameters.setPersistentParams(getDescription()->properties);
    setParameters();
}

Device::~Device() = default;

void Device::setParameters()
{
    const ParameterMap& properties = getDescription()->properties;
    setListenerIp(property(properties, localServerIpKey));
    setListenerPort(property(properties, localServerPortKey));
}

/// What is no address would only be refused by the device, again and again; our own is detected then.
void Device::setListenerIp(const boost::any& value)
{
    const auto ip = addressOf(value);
    parameters.setPersistentParam(localServerIpKey, ip ? boost::any(*ip) : boost::any());
    if (ip)
        logger.info(constructing, "Set listener IP from repository, value='", *ip, "'");
    else if (!isUnset(value))
        logger.error(constructing, "The value of localServerIP is no IP address and is ignored");
}

/// The port arrives as a text from the repository and as a text or an integer from the host; it is kept as the
/// integer that the event listener reads.
void Device::setListenerPort(const boost::any& value)
{
    const auto port = portOf(value);
    if (!port) {
        parameters.setPersistentParam(localServerPortKey, {});
        if (!isUnset(value))
            logger.error(constructing, "The value of localServerPort is no port and is ignored: ", shown(value),
                         "; port ", localServerPortOf(parameters), " is used");
        return;
    }
    parameters.setPersistentParam(localServerPortKey, static_cast<int>(*port));
    logger.info(constructing, "Set listener port from repository, value='", *port, "'");
}

void Device::tryConnect(const std::string& target)
{
    attemptClosings = closings.load();
    try {
        connect(target);
    } catch (const std::exception& e) {
        logger.error(connecting, "Unknown exception while connecting to device. Error code:", e.what());
        handleConnected(ResultCode::unexpected);
    } catch (...) {  // Boost.Thread's interruption is no std::exception
        logger.error(connecting, "Unknown exception while connecting to device. Error code:", "no description");
        handleConnected(ResultCode::unexpected);
    }
}

void Device::connect(const std::string& target)
{
    std::string reason;
    const auto info = Tavro8::asio::parseConnectionInfo(target, &reason);
    if (info == nullptr) {
        logger.error(connecting, "The device address is unusable: ", reason);
        return handleConnected(ResultCode::deviceUnreachable);
    }
    getLogger()->setValue(info);

    const auto request = [this, &info](const char* path, std::vector<char>& body) {
        return Tavro8::http::HttpSession(info, cancellation()).get(path, &body);
    };
    std::vector<char> body;
    auto response = request(portPath, body);
    if (response->status == fallbackStatus) {
        info->mode = Tavro8::asio::ConnectionMode::alternative;
        response = request(alternativePortPath, body);
    }
    if (cancellation().isCancelled())
        return handleConnected(ResultCode::cancelled);
    {
        const std::lock_guard lock(mutex);
        httpConnectionInfo = info;
    }
    makeListener();
    fillDeviceType();

    const lapi::Reply reply = lapi::judge(*response, body, lapi::Expect::status);
    if (!reply) {
        const bool alternative = info->mode == Tavro8::asio::ConnectionMode::alternative;
        logger.error(connecting, lapi::describe(reply, alternative ? alternativePortPath : portPath));
        logger.error(connecting, "Could not connect to the device. Error code:", response->status);
        return handleConnected(ResultCode::deviceUnreachable);
    }
    const std::uint16_t port = findRtspPort(body);
    std::string resolved = resolveAddress(info->host, info->port, addressLimit);
    {
        const std::lock_guard lock(mutex);
        address = std::move(resolved);
        rtspConnectionInfo = Tavro8::asio::changePort(httpConnectionInfo, port);
    }
    logger.info(connecting, "RTSP port is reachable");
    handleConnected({});
}

std::uint16_t Device::findRtspPort(const std::vector<char>& portReply) const
{
    try {
        const auto digits = findRtspPortDigits({portReply.data(), portReply.size()});
        if (digits)
            return Tavro8::Utility::toPort(Tavro8::Utility::toInt(*digits));
        moduleLogger.warning(connecting, "Uniview",
                             ": Can't get find rstp port info in device's answer, use default value");
    } catch (const std::exception& e) {
        moduleLogger.error(connecting, "Uniview", e.what());
    }
    return defaultRtspPort;
}

void Device::fillDeviceType()
{
    try {
        std::vector<char> body;
        const auto response =
            Tavro8::http::HttpSession(getHttpConnectionInfo(), cancellation()).get(deviceInfoPath, &body);
        const lapi::Reply reply = lapi::judge(*response, body, lapi::Expect::json);
        if (reply.failure == lapi::Failure::malformed) {
            logger.error(identifying, "Cannot parse device type data");
            return;
        }
        if (!reply) {
            logger.error(identifying, lapi::describe(reply, deviceInfoPath));
            logger.error(identifying, "Can't get device type");
            return;
        }
        if (!reply.data.isMember("DeviceType")) {
            logger.error(identifying, "Unkwown device type");
            return;
        }
        applyDeviceType(reply.data["DeviceType"].asInt());
    } catch (const std::exception& e) {
        logger.error(identifying, "std::exception during parsing device type data :", e.what());
    }
}

void Device::applyDeviceType(int deviceType)
{
    if (deviceType == 0 && channelCount > 1) {
        deviceKind = static_cast<std::uint32_t>(DeviceKind::multichannelCamera);
        logger.info(identifying, "Device type is multichannel IPC");
    } else if (deviceType == 1 || deviceType == 2) {
        deviceKind = static_cast<std::uint32_t>(DeviceKind::recorder);
        logger.info(identifying, "Device type is NVR");
    } else {
        logger.info(identifying, "Device type is IPC");
    }
}

std::string Device::getURL(std::uint32_t channel, std::uint32_t stream) const
{
    // In 64 bits, so that the largest number does not wrap when it is counted from one.
    const std::uint64_t channelFromOne = std::uint64_t{channel} + 1;
    const std::uint64_t streamFromOne = std::uint64_t{stream} + 1;
    std::ostringstream path;
    path.imbue(std::locale::classic());
    switch (static_cast<DeviceKind>(deviceKind.load())) {
    case DeviceKind::recorder:
        path << "/unicast/c" << channelFromOne << "/s" << stream << "/live";
        break;
    case DeviceKind::multichannelCamera:
        path << "/media" << channelFromOne << "/video" << streamFromOne;
        break;
    case DeviceKind::camera:
    default:
        path << "/media/video" << streamFromOne;
        break;
    }
    return path.str();
}

std::uint16_t Device::GetRtspPort() const noexcept
{
    const auto info = getRtspConnectionInfo();
    return info == nullptr ? std::uint16_t{0} : info->port;
}

std::size_t Device::GetLivePath(std::uint32_t channel, std::uint32_t stream, char* path,
                                std::size_t capacity) const noexcept
try {
    const std::string url = getURL(channel, stream);
    if (path != nullptr && capacity > 0) {
        const std::size_t length = std::min(url.size(), capacity - 1);
        std::memcpy(path, url.data(), length);
        path[length] = '\0';
    }
    return url.size();
} catch (...) {  // no memory
    if (path != nullptr && capacity > 0)
        *path = '\0';
    return 0;
}

std::int32_t Device::ApplySettings(const ParameterMap& changed, Tavro8::IAsyncActionHandler* actionHandler) noexcept
{
    return guarded(logger, "Uniview::Device::ApplySettings", toResult(ResultCode::unexpected), [&] {
        if (changed.count(localServerIpKey) != 0 || changed.count(localServerPortKey) != 0)
            return applyLocalServer(changed, actionHandler);
        return adjust(changed);
    });
}

Device::ConnectionInfoPtr Device::getHttpConnectionInfo() const
{
    const std::lock_guard lock(mutex);
    return httpConnectionInfo;
}

Device::ConnectionInfoPtr Device::getRtspConnectionInfo() const
{
    const std::lock_guard lock(mutex);
    return rtspConnectionInfo;
}

std::string Device::getAddress() const
{
    const std::lock_guard lock(mutex);
    return address;
}

std::uint32_t Device::channelNumber(std::uint32_t channel) const
{
    const auto& model = getDescription()->modelParameters;
    const auto found = model.find("channelNumbering");
    const int* const given = found == model.end() ? nullptr : boost::any_cast<int>(&found->second);
    const bool countsFromZero = given == nullptr || *given == 1;  // real cameras address their only channel as 0
    const bool singleChannel = deviceKind == static_cast<std::uint32_t>(DeviceKind::camera);
    return singleChannel && countsFromZero ? channel : channel + 1;
}

std::shared_ptr<SettingsQueue> Device::settingsQueue(const std::string& resources)
{
    const std::lock_guard lock(mutex);
    auto& queue = settingsQueues[resources];
    if (queue == nullptr) {
        queue = std::make_shared<SettingsQueue>(service(), [weak = weak_from_this()] {
            const auto self = weak.lock();
            return self != nullptr && self->hasBeenConnected();
        });
    }
    return queue;
}

void Device::dropSettings(const void* owner)
{
    for (const auto& queue : allSettingsQueues())
        queue->drop(owner);
}

/// To be used without the lock: what waits may hold whoever asks the device.
std::vector<std::shared_ptr<SettingsQueue>> Device::allSettingsQueues() const
{
    std::vector<std::shared_ptr<SettingsQueue>> queues;
    const std::lock_guard lock(mutex);
    queues.reserve(settingsQueues.size());
    for (const auto& [resources, queue] : settingsQueues)
        queues.push_back(queue);
    return queues;
}

void Device::endSettings()
{
    for (const auto& queue : allSettingsQueues())
        queue->end();
}

void Device::reportResourceExchange(const Tavro8::error_code& ec)
{
    if (ec != ResultCode::connectionLost)
        reportExchange(ec);
}
}  // namespace Uniview
