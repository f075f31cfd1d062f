#pragma once

#include "Device.h"
#include "Lapi.h"
#include "SettingsQueue.h"

#include <IpUtil/Http.h>
#include <IpUtil/RTSPReceiverBase.h>
#include <Tavro8/GDRV/ILiveSource.h>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

// Compiled once, in AudioSource.cpp.
extern template class Tavro8::Utility::RTSPReceiverBase<Tavro8::GDRV::IAudioSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverSource<Tavro8::GDRV::IAudioSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverAdjustable<Tavro8::GDRV::IAudioSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverAudioSource<Uniview::Device>;

namespace Uniview
{
/// Live sound of a channel, its microphone and the microphone's settings.
///
/// Threads as in `RTSPReceiverBase`; replies of the management interface come on the device's I/O thread. The
/// microphone is switched on beside the stream and never holds it up: once for each start, or when the device has
/// connected if that is later, and again with each later connection of the stream, since a device that restarted may be
/// mute. That and the settings go one after the other among all sources of the device's audio input: settings are
/// written back with all that was read, and would undo what was written in between.
class AudioSource final : public Tavro8::Utility::RTSPReceiverAudioSource<Device> {
public:
    /// Makes a source that the host releases with `Destroy`. Arguments as in `IDevice::CreateAudioSource`.
    static Tavro8::GDRV::IAudioSource* create(Device* device, std::uint32_t channel,
                                              Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                              Tavro8::GDRV::IMediaFrameHandler* frames,
                                              const Tavro8::ParameterMap& parameters, Tavro8::IContract* parent);

    AudioSource(Device* device, Tavro8::GDRV::IAsyncDeviceChannelHandler* handler, Tavro8::IContract* parent,
                Tavro8::Utility::LiveSourceContext sourceContext);

    void Start() noexcept override;
    /// Requests that are under way are given up.
    void Destroy() noexcept override;

    /// Knows `volume`, `noiseReduce`, `micNumber`, `micMode` (integers), which are written to the device, and
    /// `encoding`, `algorithm`, `samplerate`, which say what is to be received. Returns 0 when the request was taken, 3
    /// for a value of another type, 2 when the device has to be written to and has not been connected, 515 when too
    /// many others wait. Then the handler is told "audioInput", if that is concerned, and "all": with 2 when the device
    /// was closed, or another address opened, before it was written to.
    std::int32_t ApplySettings(const Tavro8::ParameterMap& changed) noexcept override;

    // RTSPReceiver; on the stream's I/O thread.
    void onConnectionStart() override;
    void onFrame(const Tavro8::GDRV::MediaFrame& frame) noexcept override;
    void onStreamState(const Tavro8::error_code& ec) override;

protected:
    void initializeAudioFilter(Tavro8::Utility::RTSPClient& client) override;
    bool isHeldByDevice(const std::string& key) const override;
    bool parametersRequireRTSPClientReconnect(const Tavro8::ParameterMap& changed) const override;

private:
    /// The requests to the device that are under way: of each audio input, that is of each queue, one at most. Made on
    /// the device's I/O thread and ended on any.
    class Requests {
    public:
        void note(const std::string& path, Tavro8::http::CancellationPtr request);
        void end() noexcept;  ///< takes back those under way and those to come
        bool haveEnded() const noexcept;

    private:
        mutable std::mutex mutex;                                       // guards all below
        std::map<std::string, Tavro8::http::CancellationPtr> underWay;  // by the path of the input
        bool ended = false;
    };
    /// Requests over one connection to the device, and their turn.
    struct Run;
    /// The settings that are being applied.
    struct SettingsRun;
    /// One attempt to switch the microphone on.
    struct Attempt;
    using SettingsRunPtr = std::shared_ptr<const SettingsRun>;
    using AttemptPtr = std::shared_ptr<Attempt>;

    std::shared_ptr<AudioSource> sharedSelf() { return std::static_pointer_cast<AudioSource>(shared_from_this()); }
    /// The completion of a request of `run`: hands the reply to `next`, unless the source is gone. An earlier
    /// connection says nothing about the present one.
    template <typename RunPtr, typename Next>
    Tavro8::http::CompletionHandler onReply(RunPtr run, const char* place, Next next);

    std::shared_ptr<Device> connectedDevice() const;
    bool isStarted() const;
    void turnMicrophoneOn();
    void beginMicrophone(const std::string& path, SettingsQueue::Turn turn);
    void onMicrophoneState(const AttemptPtr& attempt, const lapi::Reply& reply);
    void unmute(const AttemptPtr& attempt, const std::string& path, const char* place);
    void startIPC(const AttemptPtr& attempt);
    void reportFailure(Attempt& attempt, const char* place, const lapi::Reply& reply, const std::string& path,
                       const char* words);

    std::int32_t takeSettings(const Tavro8::ParameterMap& changed);
    void beginSettings(const Tavro8::ParameterMap& given, const std::shared_ptr<Device>& of, const std::string& path,
                       const SettingsQueue::Turn& turn);
    void applyAudioSettings(const SettingsRunPtr& run);
    void onSettingsRead(const SettingsRunPtr& run, lapi::Reply& reply);
    void writeSettings(const SettingsRunPtr& run, const std::string& edited);
    void onSettingsWritten(const SettingsRun& run, const std::string& body, const lapi::Reply& reply);
    template <typename Step>
    void finishOnThrow(Step&& step);
    void finishAudioInput(std::int32_t result);
    void finishSettings(std::int32_t result);

    const std::weak_ptr<Device>
        weakDevice;  // for the I/O thread, on which the host does not wait before it destroys it
    const Tavro8::LoggerHelper log;
    Requests requests;
    std::atomic<int> startsUnderWay{0};
    std::atomic<bool> microphoneWaits{false};        // for its turn
    std::atomic<bool> startCoversConnection{false};  // the microphone was seen to when the source was started
    std::atomic<std::uint64_t> starts{0};
    std::atomic<std::uint64_t> failureToldOf{0};  // the start whose attempts fail and that was said; 0: none
    std::atomic<std::uint64_t> lastFormat{0};     // codec and sample rate of the last frame
};
}  // namespace Uniview
