#pragma once

#include "MediaReceiver.h"

#include <Tavro8/GDRV/IDevice.h>
#include <memory>
#include <string>

namespace Host
{
class Console;

/// The live pictures of one stream of a device and, when asked for, the sound of its channel.
/// Used by the command's thread alone.
class LiveStream {
public:
    struct Request {
        std::uint32_t channel = 0;
        std::uint32_t stream = 0;
        bool sound = false;
        std::string transport = "tcp";     ///< or "udp" or "auto"
        Tavro8::ParameterMap soundChoice;  ///< what of the sound that the device offers is received; empty for any
    };

    /// Makes the sources; they do not run yet. `queue` (may be null) gets every frame. Throws `Failure` when
    /// the module makes no video source; without sound it goes on, with a message.
    LiveStream(Tavro8::GDRV::IDevice& device, const Request& request, Monitor& sharedMonitor, Console& userConsole,
               FrameQueue* queue);

    /// Stops, waits for that, and destroys the sources.
    ~LiveStream();
    LiveStream(const LiveStream&) = delete;
    LiveStream& operator=(const LiveStream&) = delete;

    void start();

    /// Asks the sources to stop if they run and were not asked before; several streams stop faster when all
    /// are asked first.
    void requestStop();

    /// Waits until the sources have reported that they stopped; no frame follows.
    void awaitStop();

    bool isPlaying() const { return videoReceiver.hasFrames(); }  ///< at least one picture has come
    std::uint64_t getVideoReports() const { return videoReceiver.getStatisticsCount(); }
    ReceivedMedia getVideo() const { return videoReceiver.getReceived(); }
    ReceivedMedia getAudio() const { return audioReceiver.getReceived(); }

private:
    void createVideo(Tavro8::GDRV::IDevice& device, const Request& request);
    void createAudio(Tavro8::GDRV::IDevice& device, const Request& request);

    Monitor& monitor;
    Console& console;
    MediaReceiver videoReceiver;
    MediaReceiver audioReceiver;
    Tavro8::GDRV::IVideoSource* video = nullptr;  // released with Destroy
    Tavro8::GDRV::IAudioSource* audio = nullptr;  // likewise; null without sound
    bool running = false;                         // the sources were started and not yet asked to stop
};
}  // namespace Host
