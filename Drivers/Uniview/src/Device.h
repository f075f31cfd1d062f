#pragma once

#include "Export.h"

#include <IpUtil/ConnectionInfo.h>
#include <IpUtil/Device.h>
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/ParametersContainer.h>
#include <Tavro8/GDRV/IDeviceDescription.h>
#include <Tavro8/ParameterMap.h>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace Uniview
{
class EventListener;
class IEventSubscriber;
class SettingsQueue;

/// What the configuration says of one device: the host's description, with the properties of the settings repository
/// beneath those of the host. Constant once it is made.
struct DeviceTraits {
    /// Copies what the host gives; `repository` fills in what the host does not set.
    DeviceTraits(const Tavro8::GDRV::IDeviceDescription& description, const Tavro8::ParameterMap& repository);
    DeviceTraits() = default;

    std::string name;
    std::uint32_t videoChannelCount = 0;
    Tavro8::ParameterMap properties;
    Tavro8::ParameterMap modelParameters;
    std::vector<Tavro8::ParameterMap> channelModelParameters;  ///< one for each video channel
};

/// One camera or recorder.
///
/// Host threads call the `IDevice` operations; `tryConnect` runs on a blocking lane of the global service; everything
/// asynchronous runs on `service()`. The connection descriptions are replaced whole under `mutex` and handed out as
/// copies of the shared pointer; `deviceKind` is atomic.
class Device final
    : public Tavro8::Utility::Device<std::shared_ptr<DeviceTraits>, Tavro8::Utility::AsyncConnectionPolicyBase>,
      public std::enable_shared_from_this<Device> {
public:
    using Base = Tavro8::Utility::Device<std::shared_ptr<DeviceTraits>, Tavro8::Utility::AsyncConnectionPolicyBase>;
    using ConnectionInfoPtr = std::shared_ptr<const Tavro8::asio::ConnectionInfo>;

    static constexpr const char* logName = "class Uniview::Device";  ///< in the names of template operations

    static constexpr std::uint16_t defaultRtspPort = 554;
    static constexpr unsigned fallbackStatus = 599;  ///< the firmware knows only the other spelling of the path

    /// Makes a device that the host releases with `Destroy`. `handler` and `logger` are not owned.
    static std::shared_ptr<Device> create(Tavro8::GDRV::IDeviceHandler* handler, Tavro8::ILogger* logger,
                                          std::shared_ptr<DeviceTraits> description,
                                          Tavro8::Utility::GlobalService& globalService);

    /// Used by `create`; an object made in another way has no streams.
    Device(Tavro8::GDRV::IDeviceHandler* handler, Tavro8::ILogger* logger, std::shared_ptr<DeviceTraits> description,
           Tavro8::Utility::GlobalService& globalService);
    ~Device() override;

    /// The RTSP path of a live stream; both numbers count from 0. The recorder's form numbers the stream from 0, the
    /// cameras' forms from 1. Any thread.
    UNIVIEW_API std::string getURL(std::uint32_t channel, std::uint32_t stream) const;

    // IDeviceInformation
    std::uint32_t GetDeviceKind() const noexcept override { return deviceKind; }
    std::uint32_t GetChannelCount() const noexcept override { return channelCount; }
    std::uint16_t GetRtspPort() const noexcept override;
    std::size_t GetLivePath(std::uint32_t channel, std::uint32_t stream, char* path,
                            std::size_t capacity) const noexcept override;

    // IDevice
    void Destroy() noexcept override;
    std::int32_t Open(const char* address) noexcept override;
    void Close() noexcept override;
    /// Knows `localServerPort` (an integer or a text) and `localServerIP` (an IP address). Both are remembered and,
    /// when the device's listener is at work, followed at once; an empty text means the default, or what is detected,
    /// from the next start on. With a wrong value nothing is changed (3), nor beside a key that is not known (8).
    std::int32_t ApplySettings(const Tavro8::ParameterMap& changed,
                               Tavro8::IAsyncActionHandler* actionHandler) noexcept override;
    std::int32_t CreateVideoSource(std::uint32_t channel, std::uint32_t stream,
                                   Tavro8::GDRV::IAsyncDeviceChannelHandler* channelHandler,
                                   Tavro8::GDRV::IMediaFrameHandler* frames,
                                   const Tavro8::ParameterMap& channelParameters, Tavro8::IContract* parent,
                                   Tavro8::GDRV::IVideoSource** source) noexcept override;
    std::int32_t CreateAudioSource(std::uint32_t channel, Tavro8::GDRV::IAsyncDeviceChannelHandler* channelHandler,
                                   Tavro8::GDRV::IMediaFrameHandler* frames,
                                   const Tavro8::ParameterMap& channelParameters, Tavro8::IContract* parent,
                                   Tavro8::GDRV::IAudioSource** source) noexcept override;
    std::int32_t CreateAudioDestination(std::uint32_t channel, Tavro8::GDRV::IAudioDestinationHandler* callHandler,
                                        const Tavro8::ParameterMap& channelParameters,
                                        Tavro8::GDRV::IAudioDestination** destination) noexcept override;
    std::int32_t CreateIODevice(std::uint32_t channel, Tavro8::GDRV::IIODeviceHandler* ioHandler,
                                Tavro8::GDRV::IIODevice** ioDevice) noexcept override;
    std::int32_t CreateDetector(std::uint32_t channel, const Tavro8::ParameterMap& detectorParameters,
                                Tavro8::GDRV::IDetectorHandler* detectorHandler,
                                Tavro8::GDRV::IDetector** detector) noexcept override;
    std::int32_t CreateTelemetry(std::uint32_t channel, Tavro8::GDRV::ITelemetry** telemetry) noexcept override;
    std::int32_t CreateRecordingSearch(Tavro8::GDRV::IRecordingSearch** search) noexcept override;
    /// Cameras with a memory card play recordings, too; what a device cannot play it says when it is asked.
    std::int32_t CreateRecordingPlayback(std::uint32_t channel,
                                         Tavro8::GDRV::IRecordingPlaybackHandler* playbackHandler,
                                         Tavro8::GDRV::IMediaFrameHandler* frames,
                                         const Tavro8::ParameterMap& channelParameters,
                                         Tavro8::GDRV::IRecordingPlayback** playback) noexcept override;

    // Offered to child objects. Any thread.
    ConnectionInfoPtr getHttpConnectionInfo() const;  ///< null before the first attempt that understood its address
    ConnectionInfoPtr getRtspConnectionInfo() const;  ///< null before the first successful connection
    /// The device's own address as text, as connections reach it; empty before the first successful connection.
    std::string getAddress() const;
    const Tavro8::Utility::ParametersContainer& getParameters() const noexcept { return parameters; }
    /// Keeps `finiModule` waiting while it is held.
    const std::shared_ptr<void>& getLifetimeToken() const noexcept { return lifetime; }
    /// The number of a channel in management paths: the index itself on a single-channel camera whose
    /// `channelNumbering` is 1, otherwise the index plus one.
    std::uint32_t channelNumber(std::uint32_t channel) const;

    /// The queue of all requests to apply settings that share the resources of that name; the same one each time.
    std::shared_ptr<SettingsQueue> settingsQueue(const std::string& resources);
    /// Gives up what waits of that source in any of the queues.
    void dropSettings(const void* owner);
    /// `reportExchange` for a resource that the device may lack: some firmware breaks off its answer there, which is no
    /// sign of its loss.
    void reportResourceExchange(const Tavro8::error_code& ec);

    /// Runs `action` each time the host closes the device or opens another address, until `holder` has gone. On the
    /// host's thread: it only posts. Any thread.
    void whenClosing(std::weak_ptr<void> holder, std::function<void()> action);

    /// Offers the events that the device pushes to `subscriber`, which is not owned, from the time on that the device
    /// has connected. In the order of registration; one that registers twice is asked twice. Any thread, but since it
    /// may wait for a connection to be made (1 s at most), objects post it to `service()` when they start.
    void addSubscriber(IEventSubscriber* subscriber);
    /// Ends every registration of `subscriber`. When this returns it is not called any more: a delivery to it that is
    /// under way on another thread is waited for; from within that delivery itself this returns at once. Any thread.
    void removeSubscriber(IEventSubscriber* subscriber);

protected:
    void tryConnect(const std::string& address) override;
    void onConnected() override;
    std::shared_ptr<void> keepAlive() override { return shared_from_this(); }

private:
    void connect(const std::string& address);
    void fillDeviceType();
    void applyDeviceType(int deviceType);
    std::uint16_t findRtspPort(const std::vector<char>& portReply) const;
    void setParameters();
    void setListenerIp(const boost::any& value);
    void setListenerPort(const boost::any& value);

    // The event listener:
    std::shared_ptr<EventListener> getListener() const;
    void makeListener();
    void pauseEvents();
    void runClosingActions();
    void endEvents();
    std::vector<std::shared_ptr<SettingsQueue>> allSettingsQueues() const;
    void endSettings();
    std::int32_t applyLocalServer(const Tavro8::ParameterMap& changed, Tavro8::IAsyncActionHandler* actionHandler);
    std::int32_t adjust(const Tavro8::ParameterMap& changed) const;

    Tavro8::Utility::ParametersContainer parameters;
    Tavro8::Utility::SimpleAdjuster adjuster;
    std::atomic<std::uint32_t> deviceKind{0};  // a GDRV::DeviceKind
    const std::uint32_t channelCount;
    ConnectionInfoPtr rtspConnectionInfo;                                               // guarded by `mutex`
    ConnectionInfoPtr httpConnectionInfo;                                               // guarded by `mutex`
    std::string address;                                                                // guarded by `mutex`
    std::vector<std::pair<std::weak_ptr<void>, std::function<void()>>> closingActions;  // guarded by `mutex`
    std::map<std::string, std::shared_ptr<SettingsQueue>> settingsQueues;               // guarded by `mutex`
    mutable std::mutex mutex;
    mutable std::mutex listenerMutex;         // guards the next three; the listener may be called while it is held
    std::shared_ptr<EventListener> listener;  // made by the first attempt that got so far
    std::vector<IEventSubscriber*> waitingSubscribers;  // came before the listener
    bool eventsEnded = false;
    std::atomic<std::uint64_t> closings{0};         // how often the host has closed, reopened or destroyed the device
    std::atomic<std::uint64_t> attemptClosings{0};  // when the attempt under way began
    Tavro8::Utility::HandlerGate actionGate;        // in front of the handlers of `ApplySettings`
    const Tavro8::LoggerHelper logger;
    const Tavro8::LoggerHelper moduleLogger;
    const std::shared_ptr<void> lifetime;
};
}  // namespace Uniview
