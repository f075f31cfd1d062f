#pragma once

#include <IpUtil/ConnectionPolicy.h>
#include <IpUtil/GlobalService.h>
#include <IpUtil/Logger.h>
#include <IpUtil/RTSPStream.h>
#include <Tavro8/GDRV/IDevice.h>
#include <Tavro8/GDRV/IDeviceInformation.h>
#include <Tavro8/ResultCode.h>
#include <cstdint>
#include <memory>
#include <utility>

namespace Tavro8::Utility
{
/// The logger of one device: each line carries the device's endpoint in front. A base of its own, so that it
/// exists before the connection policy that logs through it.
class DeviceLogger {
public:
    using Decorator = LoggerDetail::LoggerDecorator<LoggerDetail::TraitsConnectionInfo>;

    /// Children keep the decorator beyond the device's own life.
    const std::shared_ptr<Decorator>& getLogger() const noexcept { return decorator; }
    /// The module's logger, without the endpoint in front; may be null.
    ILogger* getModuleLogger() const noexcept { return moduleLogger; }

protected:
    explicit DeviceLogger(ILogger* logger) : moduleLogger(logger), decorator(std::make_shared<Decorator>(logger)) {}
    ~DeviceLogger() = default;

private:
    ILogger* const moduleLogger;
    std::shared_ptr<Decorator> decorator;
};

/// What every driver's device has in common: the life cycle towards the host, the connection policy and the registry
/// of live streams. Every factory operation answers "not supported" until the driver overrides it.
///
/// `Description` is what the driver knows of the device from its configuration. The host releases the object with
/// `Destroy`; handlers in flight keep it alive through `shared_from_this()` of the driver's class, which hands
/// its own shared pointer to `adopt` once, right after construction.
template <typename Description, typename Policy>
class Device : public GDRV::IDevice, public GDRV::IDeviceInformation, public DeviceLogger, public Policy {
public:
    void* FindContract(const char* name) noexcept override
    {
        if (void* const found = findContractIn<GDRV::IDevice, GDRV::IDeviceInformation>(this, name))
            return found;
        return findContractIn<IContract>(static_cast<GDRV::IDevice*>(this), name);
    }

    void Destroy() noexcept override
    {
        const auto last = std::move(self);  // the object lives until this call ends, and longer while handlers hold it
        Policy::shutDown();
    }

    std::int32_t Open(const char* address) noexcept override
    try {
        if (address == nullptr)
            return toResult(ResultCode::invalidArgument);
        source->deviceClosed();  // streams of an earlier address end; they wait for the new connection
        Policy::openConnection(address);
        return toResult(ResultCode::success);
    } catch (...) {
        return toResult(ResultCode::noResources);
    }

    void Close() noexcept override
    try {
        Policy::closeConnection();
        source->deviceClosed();
    } catch (...) {  // no memory to schedule the end: `Destroy` still ends it
    }

    std::int32_t ApplySettings(const ParameterMap&, IAsyncActionHandler*) noexcept override { return notSupported(); }
    std::int32_t CreateVideoSource(std::uint32_t, std::uint32_t, GDRV::IAsyncDeviceChannelHandler*,
                                   GDRV::IMediaFrameHandler*, const ParameterMap&, IContract*,
                                   GDRV::IVideoSource** videoSource) noexcept override
    {
        return notSupported(videoSource);
    }
    std::int32_t CreateAudioSource(std::uint32_t, GDRV::IAsyncDeviceChannelHandler*, GDRV::IMediaFrameHandler*,
                                   const ParameterMap&, IContract*, GDRV::IAudioSource** audioSource) noexcept override
    {
        return notSupported(audioSource);
    }
    std::int32_t CreateAudioDestination(std::uint32_t, GDRV::IAudioDestinationHandler*, const ParameterMap&,
                                        GDRV::IAudioDestination** destination) noexcept override
    {
        return notSupported(destination);
    }
    std::int32_t CreateIODevice(std::uint32_t, GDRV::IIODeviceHandler*, GDRV::IIODevice** ioDevice) noexcept override
    {
        return notSupported(ioDevice);
    }
    std::int32_t CreateTelemetry(std::uint32_t, GDRV::ITelemetry** telemetry) noexcept override
    {
        return notSupported(telemetry);
    }
    std::int32_t CreateDetector(std::uint32_t, const ParameterMap&, GDRV::IDetectorHandler*,
                                GDRV::IDetector** detector) noexcept override
    {
        return notSupported(detector);
    }
    std::int32_t CreateRecordingSearch(GDRV::IRecordingSearch** search) noexcept override
    {
        return notSupported(search);
    }
    std::int32_t CreateRecordingPlayback(std::uint32_t, GDRV::IRecordingPlaybackHandler*, GDRV::IMediaFrameHandler*,
                                         const ParameterMap&, GDRV::IRecordingPlayback** playback) noexcept override
    {
        return notSupported(playback);
    }

    const Description& getDescription() const noexcept { return description; }

    /// The live streams of this device; valid once `adopt` has run.
    RTSPSource& getSource() const noexcept { return *source; }

protected:
    /// `streams` tells how many streams the device may have, see `GlobalService::assignContext`.
    Device(GDRV::IDeviceHandler* handler, ILogger* logger, Description description, GlobalService& service,
           std::uint32_t streams = 1)
        : DeviceLogger(logger),
          Policy(handler, getLogger().get(), service, Backoff(), streams),
          description(std::move(description))
    {}

    /// Takes the reference that `Destroy` drops, and makes the registry of live streams with the driver's hooks.
    void adopt(std::shared_ptr<void> reference, RTSPSource::Hooks hooks)
    {
        source = std::make_unique<RTSPSource>(Policy::service(), getLogger().get(), std::move(hooks));
        self = std::move(reference);
    }

    void onConnected() override { source->deviceConnected(); }
    GDRV::IDevice* hostDevice() noexcept override { return this; }

private:
    static std::int32_t notSupported() noexcept { return toResult(ResultCode::notSupported); }
    template <typename Interface>
    static std::int32_t notSupported(Interface** object) noexcept
    {
        if (object != nullptr)
            *object = nullptr;
        return notSupported();
    }

    Description description;
    std::unique_ptr<RTSPSource> source;
    std::shared_ptr<void> self;  // dropped by `Destroy`
};
}  // namespace Tavro8::Utility
