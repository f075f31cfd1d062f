#pragma once

#include <IpUtil/GlobalService.h>
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/ParametersContainer.h>
#include <IpUtil/RTSPClient.h>
#include <IpUtil/RTSPStream.h>
#include <IpUtil/Statistics.h>
#include <Tavro8/GDRV/ILiveSource.h>
#include <atomic>
#include <boost/any.hpp>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

namespace Tavro8::Utility
{
/// Where a live source is made: what the host gave for it.
struct LiveSourceContext {
    GDRV::IMediaFrameHandler* frames = nullptr;  ///< not owned, may be null
    ParameterMap parameters;                     ///< the channel's parameters
    std::string objectName;                      ///< "vs 0.1", "chan 0"
    std::uint32_t channel = 0;                   ///< counted from 0
    std::uint32_t stream = 0;                    ///< counted from 0
};

/// What differs between the kinds of source: its kind of media, and the name of its host interface as log lines give
/// it.
template <typename I>
struct LiveSourceTraits;

template <>
struct LiveSourceTraits<GDRV::IVideoSource> {
    static constexpr MediaKind kind = MediaKind::video;
    static constexpr const char* interfaceName = "struct Tavro8::GDRV::IVideoSource";
};

template <>
struct LiveSourceTraits<GDRV::IAudioSource> {
    static constexpr MediaKind kind = MediaKind::audio;
    static constexpr const char* interfaceName = "struct Tavro8::GDRV::IAudioSource";
};

/// Life cycle of a live source towards the host: create, start, stop, report the stop, destroy; registration with
/// the RTSP stream; statistics.
///
/// Threads: host threads call the `GDRV` operations; the stream's I/O thread calls the `RTSPReceiver` operations and
/// `reportStop`. `steps` serialises starting and stopping, and guards `stream`, `reporter` and `connects`; the host is
/// never called while it is held. `handler` and `frames` are the host's and are called through `gate`, which `Destroy`
/// closes.
template <typename I, typename Device>
class RTSPReceiverBase : public I,
                         public RTSPReceiver,
                         public std::enable_shared_from_this<RTSPReceiverBase<I, Device>> {
public:
    /// `device` is not owned and outlives the source; `handler` is not owned and may be null; `parent` is only logged.
    RTSPReceiverBase(Device* device, GDRV::IAsyncDeviceChannelHandler* handler, IContract* parent,
                     LiveSourceContext context)
        : gate(std::make_shared<HandlerGate>()),
          device(device),
          handler(handler),
          context(std::move(context)),
          parameters(this->context.parameters),
          deviceLogger(device->getLogger()),
          lifetime(device->getLifetimeToken()),
          logger(deviceLogger.get(), "IpUtil/include/RTSPReceiverBase", this->context.objectName)
    {
        logger.info(names().create.c_str(), "Create", "handler=", static_cast<const void*>(handler),
                    ", parent=", static_cast<const void*>(parent));
    }

    /// Gives the host's ownership to the object itself; `Destroy` drops it. Once, right after construction.
    void adopt() { self = this->shared_from_this(); }

    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<I, GDRV::IDeviceChannel, IContract>(static_cast<I*>(this), name);
    }
    std::uint32_t GetChannelIndex() const noexcept override { return context.channel; }

    void Start() noexcept override
    {
        const auto keep = this->shared_from_this();  // the host may destroy the source from inside `Started`
        guardedVoid(logger, names().start.c_str(), [this] {
            logger.info(names().start.c_str(), "Starting...");
            if (!startSteps()) {
                logger.info(names().start.c_str(), "Skip Start as already started");
                return;
            }
            if (handler != nullptr)
                gate->call([this] { handler->Started(contract()); });
            logger.info(names().start.c_str(), "Started");
        });
    }

    void Stop() noexcept override
    {
        const auto keep = this->shared_from_this();
        guardedVoid(logger, names().stop.c_str(), [this, &keep] {
            logger.info(names().stop.c_str(), "Stopping...");
            switch (stopSteps([keep] { keep->reportStop(); })) {
            case StopOutcome::alreadyStopped:
                logger.info(names().stop.c_str(), "Skip Stop as already stopped");
                break;
            case StopOutcome::withoutStream:
                logger.info(names().stop.c_str(), "Stopping not started");
                break;
            case StopOutcome::unregistering:
                break;
            }
        });
    }

    /// The stream has really stopped; on the stream's I/O thread.
    void reportStop() noexcept
    {
        guardedVoid(logger, names().reportStop.c_str(), [this] {
            logger.info(names().reportStop.c_str(), "Stopped.");
            if (handler != nullptr)
                gate->call([this] { handler->Stopped(contract()); });
        });
    }

    void Destroy() noexcept override
    {
        const auto last = std::move(self);
        guardedVoid(logger, names().destroy.c_str(), [this] {
            logger.info(names().destroy.c_str(), "Destroy");
            gate->close();
            stopSteps({});
        });
    }

    // RTSPReceiver; on the stream's I/O thread.
    MediaKind mediaKind() const noexcept override { return LiveSourceTraits<I>::kind; }

    void initializeClient(RTSPClient& client) override { initializeRTSPClientFromParams(client, parameters); }

    void onConnectionStart() override
    {
        if (const auto statistic = currentConnects())
            statistic->onConnectionStart();
    }

    void onFrame(const GDRV::MediaFrame& frame) noexcept override
    {
        if (context.frames != nullptr)
            gate->call([this, &frame] { context.frames->OnFrame(contract(), frame); });
    }

    void onStreamState(const error_code& ec) override
    {
        if (!ec)
            publishTransport();
        if (context.frames != nullptr)
            gate->call([this, &ec] { context.frames->OnStreamState(contract(), translateSystemError(ec)); });
    }

protected:
    /// The stream to receive from; may be null when there is none.
    virtual std::shared_ptr<RTSPStream> getStream() = 0;

    IContract* contract() noexcept { return static_cast<I*>(this); }

    /// Tells the host how a settings resource fared; nothing once the source is destroyed. On the stream's I/O thread.
    void reportSettings(const char* resource, std::int32_t result)
    {
        if (handler != nullptr)
            gate->call([&] { handler->SettingsApplied(contract(), resource, result); });
    }

    bool isDestroyed() const noexcept { return gate->isClosed(); }

    /// The stream that the source is registered with, or null.
    std::shared_ptr<RTSPStream> currentStream() const
    {
        const std::lock_guard lock(steps);
        return stream;
    }

private:
    const std::shared_ptr<HandlerGate> gate;  // beside `context`: each frame needs both

protected:
    Device* const device;
    GDRV::IAsyncDeviceChannelHandler* const handler;
    const LiveSourceContext context;
    ParametersContainer parameters;  // the channel's; thread-safe

private:
    enum class StopOutcome { alreadyStopped, withoutStream, unregistering };

    /// Names of the operations as log lines give them; one set for each instantiation.
    struct OperationNames {
        std::string create, start, stop, reportStop, destroy;
    };
    static const OperationNames& names()
    {
        static const std::string prefix = std::string("Tavro8::Utility::RTSPReceiverBase<") +
                                          LiveSourceTraits<I>::interfaceName + ',' + Device::logName + ">::";
        static const OperationNames all{prefix + "RTSPReceiverBase", prefix + "Start", prefix + "Stop",
                                        prefix + "reportStop", prefix + "Destroy"};
        return all;
    }

    bool startSteps()
    {
        const std::lock_guard lock(steps);
        std::int32_t stopped = 0;
        if (!started.compare_exchange_strong(stopped, 1))
            return false;
        try {
            registerWithStream();
        } catch (...) {
            std::int32_t failed = 1;
            started.compare_exchange_strong(failed, 0);  // or no later start would be taken
            throw;
        }
        return true;
    }

    void registerWithStream()
    {
        auto wanted = getStream();
        if (wanted == nullptr)
            return;
        makeStatistics(wanted);
        if (wanted == stream)
            return;
        if (stream != nullptr)
            stream->unregReceiver(this->shared_from_this(), {});
        stream = std::move(wanted);
        stream->regReceiver(this->shared_from_this());
    }

    StopOutcome stopSteps(std::function<void()> completion)
    {
        std::shared_ptr<StatisticReporter> last;  // goes after the lock: its end waits for a report that is under way
        const std::lock_guard lock(steps);
        std::int32_t running = 1;
        if (!started.compare_exchange_strong(running, 0))
            return StopOutcome::alreadyStopped;
        last.swap(reporter);
        if (stream == nullptr)
            return StopOutcome::withoutStream;
        std::exchange(stream, nullptr)->unregReceiver(this->shared_from_this(), std::move(completion));
        return StopOutcome::unregistering;
    }

    void makeStatistics(const std::shared_ptr<RTSPStream>& source)
    {
        reporter = std::make_shared<StatisticReporter>(deviceLogger.get(), handler, contract(), source->service());
        // Both callbacks run on the I/O thread and may come when the source or the reporter has gone.
        connects = std::make_shared<ConnectsStatistic>(
            [weak = std::weak_ptr(reporter)](const std::string& name, const std::string& value) {
                if (const auto target = weak.lock())
                    target->updateStatistic(name, value);
            });
        // Takes no lock of ours: whoever stops the source may be waiting for this very report.
        reporter->start(gate, [weak = this->weak_from_this(), weakSource = std::weak_ptr(source)] {
            const auto receiver = weak.lock();
            const auto from = weakSource.lock();
            return receiver && from ? from->counters(*receiver) : StreamCounters{};
        });
    }

    /// The way that media really come may be another than the parameter `transport` asks for.
    void publishTransport()
    {
        std::unique_lock lock(steps);
        const auto from = stream;
        const auto to = reporter;
        lock.unlock();
        if (from != nullptr && to != nullptr)
            to->updateStatistic("transport", from->getTransport() == RtspTransport::udp ? "udp" : "tcp");
    }

    std::shared_ptr<ConnectsStatistic> currentConnects() const
    {
        const std::lock_guard lock(steps);
        return connects;
    }

    // Shared with the device, so that a source whose last handler runs late needs the device no more.
    const std::shared_ptr<ILogger> deviceLogger;
    const std::shared_ptr<void> lifetime;

protected:
    const LoggerHelper logger;

private:
    std::atomic<std::int32_t> started{0};  // changed by compare-and-swap alone
    mutable std::mutex steps;
    std::shared_ptr<RTSPStream> stream;           // what this source is registered with
    std::shared_ptr<StatisticReporter> reporter;  // while started
    std::shared_ptr<ConnectsStatistic> connects;
    std::shared_ptr<RTSPReceiverBase> self;  // the host's reference
};

/// Binds the receiver to the live streams of its device.
template <typename I, typename Device>
class RTSPReceiverSource : public RTSPReceiverBase<I, Device> {
public:
    using RTSPReceiverBase<I, Device>::RTSPReceiverBase;

protected:
    std::shared_ptr<RTSPStream> getStream() override
    {
        return this->device->getSource().getStream(this->context.channel, this->context.stream);
    }
};

/// Settings that can be changed while the source runs.
template <typename I, typename Device>
class RTSPReceiverAdjustable : public RTSPReceiverSource<I, Device> {
public:
    using RTSPReceiverSource<I, Device>::RTSPReceiverSource;

protected:
    /// Whether the new values take effect only with a new RTSP connection. Values that are what they were need none.
    virtual bool parametersRequireRTSPClientReconnect(const ParameterMap& changed) const = 0;

    /// Whether the parameter says how the device is, and so holds only once that has been written to it.
    virtual bool isHeldByDevice(const std::string&) const { return false; }

    /// Takes over new parameters, except those that the device holds, and restarts the stream when they require it.
    void adjust(ParameterMap changed)
    {
        eraseUnusableStreamParameters(changed, this->logger.getLogger());
        const bool reconnect = parametersRequireRTSPClientReconnect(changed);
        takeOver(changed, false);
        if (!reconnect)
            return;
        if (const auto running = this->currentStream())
            running->restart();
    }

    /// Takes over those of the parameters that the device holds, and that have been written to it.
    void adjustWritten(const ParameterMap& written) { takeOver(written, true); }

    /// True when `key` is among the new values and differs from the present one: what the stream has `shown`, else what
    /// was set; also when neither is known. Both are compared as `T`; a value of another type is none that a connection
    /// could follow.
    template <typename T>
    bool changes(const ParameterMap& changed, const std::string& key, const std::optional<T>& shown = {}) const
    {
        const auto found = changed.find(key);
        const T* const wanted = found == changed.end() ? nullptr : boost::any_cast<T>(&found->second);
        if (wanted == nullptr)
            return false;
        if (shown)
            return *wanted != *shown;
        const auto stored = this->parameters.getPersistentParam(key);
        const T* const present = stored ? boost::any_cast<T>(&*stored) : nullptr;
        return present == nullptr || *wanted != *present;
    }

private:
    void takeOver(const ParameterMap& changed, bool heldByDevice)
    {
        ParameterMap taken = changed;
        std::erase_if(taken, [&](const auto& entry) { return isHeldByDevice(entry.first) != heldByDevice; });
        this->parameters.setPersistentParams(taken);
    }
};

/// What the last picture looked like, in the words of the host's parameters. Noted on the I/O thread, read on any.
class PictureFormat {
public:
    void note(const GDRV::MediaFrame& frame) noexcept
    {
        const std::uint64_t size = std::uint64_t{frame.width & sizeMask} << sizeBits | (frame.height & sizeMask);
        format.store(static_cast<std::uint64_t>(frame.codec) << (2 * sizeBits) | size, std::memory_order_relaxed);
    }
    /// From now on nothing is known.
    void forget() noexcept { format.store(0, std::memory_order_relaxed); }

    /// Nothing while no picture has come.
    std::optional<std::string> codec() const
    {
        switch (static_cast<GDRV::MediaCodec>(format.load(std::memory_order_relaxed) >> (2 * sizeBits))) {
        case GDRV::MediaCodec::h264:
            return "H.264";
        case GDRV::MediaCodec::h265:
            return "H.265";
        case GDRV::MediaCodec::mjpeg:
            return "MJPEG";
        default:
            return {};
        }
    }
    /// "1920x1080"; nothing while it is not known.
    std::optional<std::string> resolution() const
    {
        const std::uint64_t known = format.load(std::memory_order_relaxed);
        const std::uint64_t width = known >> sizeBits & sizeMask;
        const std::uint64_t height = known & sizeMask;
        if (width == 0 || height == 0)
            return {};
        return std::to_string(width) + 'x' + std::to_string(height);
    }

private:
    static constexpr unsigned sizeBits = 24;
    static constexpr std::uint32_t sizeMask = (1U << sizeBits) - 1;

    std::atomic<std::uint64_t> format{0};  // codec, width and height, so that they are of one picture
};

/// A live source of pictures.
template <typename Device>
class RTSPReceiverVideoSource : public RTSPReceiverAdjustable<GDRV::IVideoSource, Device> {
public:
    using RTSPReceiverAdjustable<GDRV::IVideoSource, Device>::RTSPReceiverAdjustable;

    void initializeClient(RTSPClient& client) override
    {
        RTSPReceiverAdjustable<GDRV::IVideoSource, Device>::initializeClient(client);
        client.setVideoSinkParams(readVideoSinkParams(this->parameters, client.logger()));
    }

    void onFrame(const GDRV::MediaFrame& frame) noexcept override
    {
        if (frame.keyFrame)
            lastPicture.note(frame);
        RTSPReceiverAdjustable<GDRV::IVideoSource, Device>::onFrame(frame);
    }

protected:
    bool isHeldByDevice(const std::string& key) const override { return key == "codec" || key == "resolution"; }

    /// Takes over codec and resolution that have been written: they are what the stream has until it shows another.
    void adjustWritten(const ParameterMap& written)
    {
        if (written.count("codec") != 0 || written.count("resolution") != 0)
            lastPicture.forget();
        RTSPReceiverAdjustable<GDRV::IVideoSource, Device>::adjustWritten(written);
    }

    /// Which codec and resolution the stream has its last key frame tells, for others may change the device, too.
    bool parametersRequireRTSPClientReconnect(const ParameterMap& changed) const override
    {
        return this->template changes<std::string>(changed, "codec", lastPicture.codec()) ||
               this->template changes<std::string>(changed, "resolution", lastPicture.resolution()) ||
               changesTransport(this->parameters, changed);
    }

private:
    PictureFormat lastPicture;
};

/// A live source of sound.
template <typename Device>
class RTSPReceiverAudioSource : public RTSPReceiverAdjustable<GDRV::IAudioSource, Device> {
public:
    using RTSPReceiverAdjustable<GDRV::IAudioSource, Device>::RTSPReceiverAdjustable;

    void initializeClient(RTSPClient& client) override
    {
        RTSPReceiverAdjustable<GDRV::IAudioSource, Device>::initializeClient(client);
        initializeAudioFilter(client);
    }

protected:
    /// Which sound is expected on the stream; the base takes whatever the device offers.
    virtual void initializeAudioFilter(RTSPClient& client) { client.setAudioSinkParams({}); }

    bool parametersRequireRTSPClientReconnect(const ParameterMap& changed) const override
    {
        return this->template changes<std::string>(changed, "encoding") ||
               this->template changes<std::string>(changed, "algorithm") ||
               this->template changes<int>(changed, "samplerate") || changesTransport(this->parameters, changed);
    }
};
}  // namespace Tavro8::Utility
