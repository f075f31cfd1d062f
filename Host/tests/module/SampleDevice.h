#pragma once

#include "Archive.h"
#include "Loop.h"
#include "Settings.h"

#include <Tavro8/GDRV/IModule.h>
#include <memory>
#include <string>

namespace Sample
{
/// A device that exists only in the module. The host name in its address says what it is and how it behaves:
///
/// | host name | behaviour |
/// |---|---|
/// | camera, multichannel | connects, sends a test picture and a tone |
/// | recorder | the same; knows only the settings of "imageEnhance" and of the sound, all others are not supported |
/// | guarded | connects with user "admin" and password "p@ss:%" only |
/// | refusing, unreachable | every attempt fails with 513, 256 |
/// | late | the first two attempts fail, the third connects |
/// | silent | never answers |
/// | dark | connects but sends nothing, answers no relay, no settings and no call, and does not move |
/// | barred | connects but refuses every stream and call, with 1025, and settings of "exposure", with 514 |
/// | crowded | serves the first two streams that are made in the process and refuses all others, with 1025 |
/// | tardy | computes for 0.4 s before its first picture; of settings never tells "exposure" and "all" |
/// | mute | connects; makes nothing but video sources and detectors, and takes no settings |
/// | voiceless | sends a test picture; its sound is refused with 1024; knows continuous movement alone |
/// | growing | the picture becomes larger after a second |
/// | changing | sends H.264, after 0.4 s H.265, and after as long again MJPEG |
/// | stuck | works, but never reports that it was closed |
/// | flaky | the connection is lost and comes back while the pictures go on; a call breaks at its fifth frame |
/// | hoarding | as camera; has recorded the first 40 s of each minute |
/// | momentary | as camera; lists recordings without length at every hour |
/// | unwilling | as camera; opens recordings, but refuses to play them, with 1025 |
/// | dozing | as camera; has recorded a picture each five seconds |
/// | restless | as camera; plays on for two seconds behind the end of the interval |
///
/// Any other name is unreachable too. Channel 0 has recorded the first 50 minutes of each hour, the others nothing.
/// Archives behave as the rest does: "dark" does not answer, "barred" refuses with 514, "mute" has none, "voiceless"
/// has recorded no sound and offers one speed, "changing" changes in the recordings too, and "flaky" loses the
/// connection at the tenth picture and while it searches.
class SampleDevice final : public Tavro8::GDRV::IDevice, private Tavro8::GDRV::IDeviceInformation {
public:
    SampleDevice(const Tavro8::GDRV::IDeviceDescription& description, Tavro8::GDRV::IDeviceHandler* hostHandler,
                 Tavro8::ILogger* hostLogger);

    void* FindContract(const char* name) noexcept override;

    void Destroy() noexcept override;
    std::int32_t Open(const char* address) noexcept override;
    void Close() noexcept override;
    std::int32_t ApplySettings(const Tavro8::ParameterMap& parameters,
                               Tavro8::IAsyncActionHandler* handler) noexcept override;
    std::int32_t CreateVideoSource(std::uint32_t channel, std::uint32_t stream,
                                   Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                   Tavro8::GDRV::IMediaFrameHandler* frames, const Tavro8::ParameterMap& parameters,
                                   Tavro8::IContract* parent, Tavro8::GDRV::IVideoSource** source) noexcept override;
    std::int32_t CreateAudioSource(std::uint32_t channel, Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                   Tavro8::GDRV::IMediaFrameHandler* frames, const Tavro8::ParameterMap& parameters,
                                   Tavro8::IContract* parent, Tavro8::GDRV::IAudioSource** source) noexcept override;
    std::int32_t CreateAudioDestination(std::uint32_t channel, Tavro8::GDRV::IAudioDestinationHandler* handler,
                                        const Tavro8::ParameterMap& parameters,
                                        Tavro8::GDRV::IAudioDestination** destination) noexcept override;
    std::int32_t CreateIODevice(std::uint32_t channel, Tavro8::GDRV::IIODeviceHandler* handler,
                                Tavro8::GDRV::IIODevice** ioDevice) noexcept override;
    std::int32_t CreateTelemetry(std::uint32_t channel, Tavro8::GDRV::ITelemetry** telemetry) noexcept override;
    std::int32_t CreateDetector(std::uint32_t channel, const Tavro8::ParameterMap& parameters,
                                Tavro8::GDRV::IDetectorHandler* handler,
                                Tavro8::GDRV::IDetector** detector) noexcept override;
    std::int32_t CreateRecordingSearch(Tavro8::GDRV::IRecordingSearch** search) noexcept override;
    std::int32_t CreateRecordingPlayback(std::uint32_t channel, Tavro8::GDRV::IRecordingPlaybackHandler* handler,
                                         Tavro8::GDRV::IMediaFrameHandler* frames,
                                         const Tavro8::ParameterMap& parameters,
                                         Tavro8::GDRV::IRecordingPlayback** playback) noexcept override;

private:
    ~SampleDevice() override = default;

    std::uint32_t GetDeviceKind() const noexcept override;
    std::uint32_t GetChannelCount() const noexcept override { return channels; }
    std::uint16_t GetRtspPort() const noexcept override { return 554; }
    std::size_t GetLivePath(std::uint32_t channel, std::uint32_t stream, char* path,
                            std::size_t capacity) const noexcept override;

    std::unique_ptr<Settings> settingsOf(const std::string& name, Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                         Settings::Resources resources);
    Archive archiveOf(std::uint32_t channel) const;
    void attempt();
    std::int32_t resultOfAttempt();
    void loseConnection();

    Tavro8::GDRV::IDeviceHandler* const handler;  // the host's, may be null
    Tavro8::ILogger* const logger;                // likewise
    const std::uint32_t channels;
    std::string talkFile;  ///< property: where what is spoken to the device is written; empty for nowhere
    std::unique_ptr<Loop> loop = std::make_unique<Loop>();
    std::string userInfo;  // written by Open, before the loop reads it
    std::string hostName;
    unsigned attempts = 0;
};
}  // namespace Sample
