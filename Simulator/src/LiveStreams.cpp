#include "LiveStreams.h"

#include "LivePipeline.h"
#include "MediaPipeline.h"
#include "PictureCaption.h"
#include "RtspAuthentication.h"

#include <algorithm>
#include <utility>

namespace simulator
{
namespace
{

std::string pictureTitle(const LiveStreams::Stream& stream)
{
    return "Channel " + std::to_string(stream.channel + 1) + (stream.number == 0 ? " main" : " sub");
}

PictureSettings pictureSettings(const Options& options, const LiveStreams::Stream& stream,
                                const StreamEncoding& encoding)
{
    PictureSettings settings;
    settings.title = pictureTitle(stream);
    settings.encoding = encoding;
    settings.audio = options.audio;
    settings.audioCodec = options.audioCodec;
    settings.toneHertz = toneOf(stream.channel);
    return settings;
}

}  // namespace

LiveStreams::LiveStreams(GstRTSPServer* rtspServer, const Options& checkedOptions, const FaultTable& faultTable,
                         RtspConnections& clientConnections, std::shared_ptr<const MediaFile> mediaFile,
                         Caption captionToShow)
    : server(rtspServer),
      options(checkedOptions),
      faults(faultTable),
      connections(clientConnections),
      file(std::move(mediaFile)),
      caption(std::move(captionToShow)),
      looks(options.channels),
      microphones(options.channels, Microphone{options.microphoneMuted})
{
    for (unsigned channel = 0; channel < options.channels; ++channel)
        addChannel(channel);
}

void LiveStreams::addChannel(unsigned channel)
{
    const bool isCamera = options.kind == Kind::camera;
    for (unsigned number = 0; number < servedStreams; ++number) {
        // Where other kinds have their talk-back, a camera has its live streams.
        Mounted& stream = addStream(livePath(options.kind, channel, number), channel, number,
                                    isCamera ? options.backChannel : BackChannel::none);
        mount(stream);
    }
    if (isCamera)
        return;
    Mounted& stream = addStream(talkBackPath(channel), channel, 0, options.backChannel);
    stream.forTalkOnly = true;
    mount(stream);
}

LiveStreams::Mounted& LiveStreams::addStream(std::string path, unsigned channel, unsigned number,
                                             BackChannel backChannel)
{
    Mounted& stream = streams.emplace_back();
    stream.owner = this;
    stream.activity.path = std::move(path);
    stream.activity.faults = &faults;
    stream.activity.backChannel = backChannel;
    stream.channel = channel;
    stream.number = number;
    stream.encoding = initialEncoding(options, number);
    return stream;
}

const LiveStreams::Stream* LiveStreams::find(std::string_view path) const
{
    const auto found = std::ranges::find_if(streams, [path](const Stream& stream) {
        const std::string_view own = stream.activity.path;
        return path.starts_with(own) && (path.size() == own.size() || path[own.size()] == '/');
    });
    return found == streams.end() ? nullptr : &*found;
}

std::vector<std::string> LiveStreams::paths() const
{
    std::vector<std::string> paths;
    for (const Stream& stream : streams)
        if (!stream.forTalkOnly)
            paths.push_back(stream.activity.path);
    return paths;
}

std::string LiveStreams::launchLine(const Mounted& stream) const
{
    if (file)
        return fileLaunch(file->codec, options.audio && !file->audio.units.empty());
    return testPictureLaunch(pictureSettings(options, stream, stream.encoding));
}

/// Serves the stream as it is encoded now, in place of what its path led to. Media that run go on.
void LiveStreams::mount(Mounted& stream)
{
    GstRTSPMediaFactory* const factory = newSimulatedFactory(stream.activity.backChannel);
    gst_rtsp_media_factory_set_launch(factory, launchLine(stream).c_str());
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    gst_rtsp_media_factory_add_role(factory, userRole, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS, G_TYPE_BOOLEAN, TRUE,
                                    GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT, G_TYPE_BOOLEAN, TRUE, nullptr);
    g_signal_connect(factory, "media-configure", G_CALLBACK(onMedia), &stream);
    stream.factory = share(factory);

    const GlibPointer<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(server));
    gst_rtsp_mount_points_add_factory(mounts.get(), stream.activity.path.c_str(), factory);  // takes the factory
}

void LiveStreams::onMedia(GstRTSPMediaFactory*, GstRTSPMedia* media, gpointer data)
{
    Mounted& stream = *static_cast<Mounted*>(data);
    LiveStreams& self = *stream.owner;
    attach(media, stream.activity);
    GlibPointer<GstElement> pipeline(gst_rtsp_media_get_element(media));
    if (self.file)
        feedFromFile(pipeline.get(), self.file);
    else
        keepCaption(pipeline.get(), [&self, channel = stream.channel, title = pictureTitle(stream)] {
            return title + '\n' + self.caption(channel);
        });

    g_signal_connect(media, "unprepared", G_CALLBACK(onUnprepared), data);
    const std::lock_guard lock(self.mutex);
    simulator::encode(pipeline.get(), stream.encoding);
    simulator::show(pipeline.get(), self.looks.at(stream.channel));
    simulator::hear(pipeline.get(), self.microphones.at(stream.channel));
    stream.pipelines.emplace(media, std::move(pipeline));
}

void LiveStreams::onUnprepared(GstRTSPMedia* media, gpointer data)
{
    Mounted& stream = *static_cast<Mounted*>(data);
    GlibPointer<GstElement> pipeline;  // goes without the lock
    const std::lock_guard lock(stream.owner->mutex);
    if (const auto found = stream.pipelines.find(media); found != stream.pipelines.end()) {
        pipeline = std::move(found->second);
        stream.pipelines.erase(found);
    }
}

void LiveStreams::encode(unsigned channel, unsigned number, const StreamEncoding& encoding, Manner manner)
{
    for (Mounted& stream : streams)
        if (stream.channel == channel && stream.number == number)
            encode(stream, encoding, manner);
}

void LiveStreams::encode(Mounted& stream, const StreamEncoding& encoding, Manner manner)
{
    const std::lock_guard lock(mutex);
    const bool sameCodec = encoding.codec == stream.encoding.codec;
    const bool adapts = sameCodec && (encoding.size == stream.encoding.size || manner == Manner::besideRunning ||
                                      options.formatChange == FormatChange::continues);
    stream.encoding = encoding;
    if (adapts)
        gst_rtsp_media_factory_set_launch(stream.factory.get(), launchLine(stream).c_str());
    else
        mount(stream);
    if (adapts || manner == Manner::besideRunning) {
        for (const auto& [media, pipeline] : stream.pipelines)
            simulator::encode(pipeline.get(), encoding);
        return;
    }
    connections.closeThoseThatAskedFor(stream.activity.path);
}

template <typename Change>
void LiveStreams::changePipelines(unsigned channel, Change&& change)
{
    for (const Mounted& stream : streams)
        if (stream.channel == channel)
            for (const auto& [media, pipeline] : stream.pipelines)
                change(pipeline.get());
}

void LiveStreams::show(unsigned channel, const PictureLook& look)
{
    const std::lock_guard lock(mutex);
    looks.at(channel) = look;
    changePipelines(channel, [&look](GstElement* pipeline) { simulator::show(pipeline, look); });
}

void LiveStreams::hear(unsigned channel, const Microphone& microphone)
{
    const std::lock_guard lock(mutex);
    microphones.at(channel) = microphone;
    changePipelines(channel, [&](GstElement* pipeline) { simulator::hear(pipeline, microphone); });
}

Json::Value LiveStreams::counters() const
{
    Json::Value out(Json::arrayValue);
    for (const Stream& served : streams) {
        if (served.forTalkOnly)
            continue;
        const StreamActivity& activity = served.activity;
        Json::Value stream(Json::objectValue);
        stream["path"] = activity.path;
        stream["frames"] = static_cast<Json::UInt64>(activity.frames);
        stream["keyFrames"] = static_cast<Json::UInt64>(activity.keyFrames);
        stream["videoPackets"] = static_cast<Json::UInt64>(activity.videoPackets);
        stream["videoBytes"] = static_cast<Json::UInt64>(activity.videoBytes);
        stream["audioPackets"] = static_cast<Json::UInt64>(activity.audioPackets);
        stream["audioBytes"] = static_cast<Json::UInt64>(activity.audioBytes);
        out.append(stream);
    }
    return out;
}

void LiveStreams::clearCounters()
{
    for (Stream& stream : streams)
        stream.activity.clear();
}

}  // namespace simulator
