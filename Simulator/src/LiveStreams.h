#pragma once

#include "AudioInput.h"
#include "Glib.h"
#include "ImageSettings.h"
#include "MediaFile.h"
#include "Options.h"
#include "RtspConnections.h"
#include "SimulatedMedia.h"
#include "StreamEncoding.h"

#include <gst/rtsp-server/rtsp-server.h>
#include <json/value.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace simulator
{

/// The live streams of a server: what is found under their paths, how each is encoded, and the pipelines that run for
/// it. Used on the I/O context and on the server's thread, and by GStreamer's threads whenever media come and go.
class LiveStreams {
public:
    using Caption = std::function<std::string(unsigned channel)>;

    /// Makes the streams of all channels. `file` is served in place of the test picture unless it is null. All that is
    /// referred to outlives the streams, which in turn outlive the media of the server.
    LiveStreams(GstRTSPServer* server, const Options& options, const FaultTable& faults, RtspConnections& connections,
                std::shared_ptr<const MediaFile> file, Caption caption);
    LiveStreams(const LiveStreams&) = delete;
    LiveStreams& operator=(const LiveStreams&) = delete;

    /// What never changes of a stream, and what it has sent.
    struct Stream {
        StreamActivity activity;
        unsigned channel = 0;
        unsigned number = 0;       ///< 0: the main stream
        bool forTalkOnly = false;  ///< found only by those who ask for the back channel
    };
    /// The stream that the path of a request is for; null when it is for none.
    const Stream* find(std::string_view path) const;
    /// Channel by channel, main stream first; without those for talk only.
    std::vector<std::string> paths() const;

    enum class Manner {
        asTold,         ///< as the option `formatChange` says, clients that saw another format are cut off
        besideRunning,  ///< what runs goes on with the new size, and with its codec
    };
    void encode(unsigned channel, unsigned number, const StreamEncoding& encoding, Manner manner);
    void show(unsigned channel, const PictureLook& look);
    void hear(unsigned channel, const Microphone& microphone);

    /// [{"path", "frames", ...}]
    Json::Value counters() const;
    void clearCounters();

private:
    struct Mounted : Stream {
        LiveStreams* owner = nullptr;
        StreamEncoding encoding = {};  ///< what follows is guarded by `mutex`
        GlibPointer<GstRTSPMediaFactory> factory = {};
        std::map<GstRTSPMedia*, GlibPointer<GstElement>> pipelines = {};  ///< of the media that live
    };

    void addChannel(unsigned channel);
    Mounted& addStream(std::string path, unsigned channel, unsigned number, BackChannel backChannel);
    std::string launchLine(const Mounted& stream) const;
    void mount(Mounted& stream);
    void encode(Mounted& stream, const StreamEncoding& encoding, Manner manner);
    template <typename Change>
    void changePipelines(unsigned channel, Change&& change);
    static void onMedia(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer stream);
    static void onUnprepared(GstRTSPMedia* media, gpointer stream);

    GstRTSPServer* const server;
    const Options& options;
    const FaultTable& faults;
    RtspConnections& connections;
    const std::shared_ptr<const MediaFile> file;
    const Caption caption;
    std::deque<Mounted> streams;  ///< addresses stay: signal handlers hold them

    std::mutex mutex;                ///< guards what follows
    std::vector<PictureLook> looks;  ///< by channel
    std::vector<Microphone> microphones;
};

}  // namespace simulator
