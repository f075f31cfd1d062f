#include "MediaFile.h"

#include "Glib.h"
#include "Log.h"

#include <gst/app/app.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace simulator
{
namespace
{

constexpr std::uintmax_t maximumFileBytes = std::uintmax_t{1} << 30;

constexpr const char* audioConversion = "decodebin name=entry ! audioconvert ! audioresample ! "
                                        "audio/x-raw,format=S16LE,rate=8000,channels=1,layout=interleaved ! "
                                        "mulawenc ! appsink name=sink sync=false async=false";

constexpr const char* nowhere = "fakesink name=entry sync=false async=false";

const char* videoConversion(Codec codec)
{
    return codec == Codec::h264 ? "h264parse name=entry ! video/x-h264,stream-format=byte-stream,alignment=au ! "
                                  "appsink name=sink sync=false async=false"
                                : "h265parse name=entry ! video/x-h265,stream-format=byte-stream,alignment=au ! "
                                  "appsink name=sink sync=false async=false";
}

/// Takes one file apart. The callbacks run on the pipeline's threads, `load` on the caller's.
class Loader {
public:
    explicit Loader(std::string pathToLoad) : path(std::move(pathToLoad)) {}

    std::shared_ptr<const MediaFile> load()
    {
        std::error_code unreadable;
        const auto bytes = std::filesystem::file_size(path, unreadable);
        if (unreadable)
            fail("cannot be read: " + unreadable.message());
        if (bytes > maximumFileBytes)
            fail("is larger than 1 GiB; it is held in memory while it is served");
        run();
        if (!problem.empty())
            fail(problem);
        if (file->video.units.empty())
            fail("has no video");
        readFormat();
        normaliseTimes();
        return file;
    }

private:
    [[noreturn]] void fail(const std::string& why) const
    {
        throw std::runtime_error("The media file '" + path + "' " + why + ".");
    }

    void run()
    {
        pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
        GstElement* const source = gst_element_factory_make("filesrc", nullptr);
        GstElement* const parser = gst_element_factory_make("parsebin", nullptr);
        g_object_set(source, "location", path.c_str(), nullptr);
        gst_bin_add_many(GST_BIN(pipeline.get()), source, parser, nullptr);
        gst_element_link(source, parser);
        g_signal_connect(parser, "pad-added", G_CALLBACK(onPad), this);

        gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
        const GlibPointer<GstBus> bus(gst_element_get_bus(pipeline.get()));
        const GlibPointer<GstMessage> end(gst_bus_timed_pop_filtered(
            bus.get(), GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        if (GST_MESSAGE_TYPE(end.get()) == GST_MESSAGE_ERROR && problem.empty())
            problem = "cannot be taken apart: " + errorText(end.get());
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    }

    static std::string errorText(GstMessage* message)
    {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        const GlibPointer<GError> owned(error);
        return owned->message;
    }

    static void onPad(GstElement*, GstPad* pad, gpointer self) { static_cast<Loader*>(self)->connect(pad); }

    /// What flows through a pad; parsers do not all know it yet when their pad appears.
    static GlibPointer<GstCaps> capsOf(GstPad* pad)
    {
        GlibPointer<GstCaps> caps(gst_pad_get_current_caps(pad));
        return caps ? std::move(caps) : GlibPointer<GstCaps>(gst_pad_query_caps(pad, nullptr));
    }

    /// Leads a track of the file to where its frames are collected, or to nowhere.
    void connect(GstPad* pad)
    {
        const auto caps = capsOf(pad);
        const bool known = !gst_caps_is_any(caps.get()) && !gst_caps_is_empty(caps.get());
        const std::string_view name = known ? gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)) : "";
        const std::lock_guard lock(mutex);
        if ((name.starts_with("video/") || name.starts_with("image/")) && !videoFound)
            connectVideo(pad, name);
        else if (name.starts_with("audio/") && !audioFound && canDecode(caps.get()))
            connectAudio(pad);
        else
            link(pad, nowhere, nullptr);
    }

    void connectVideo(GstPad* pad, std::string_view name)
    {
        videoFound = true;
        if (name != "video/x-h264" && name != "video/x-h265") {
            problem = "has video in the format '" + std::string(name) + "'; H.264 and H.265 can be served";
            link(pad, nowhere, nullptr);
            return;
        }
        file->codec = name == "video/x-h264" ? Codec::h264 : Codec::h265;
        link(pad, videoConversion(file->codec), &file->video);
    }

    void connectAudio(GstPad* pad)
    {
        audioFound = true;
        link(pad, audioConversion, &file->audio);
    }

    bool canDecode(const GstCaps* caps) const
    {
        GList* const decoders =
            gst_element_factory_list_get_elements(GST_ELEMENT_FACTORY_TYPE_DECODER, GST_RANK_MARGINAL);
        GList* const fitting = gst_element_factory_list_filter(decoders, caps, GST_PAD_SINK, FALSE);
        const bool found = fitting != nullptr;
        gst_plugin_feature_list_free(fitting);
        gst_plugin_feature_list_free(decoders);
        if (!found)
            logLine("the media file is served without sound: nothing here decodes it");
        return found;
    }

    void link(GstPad* pad, const char* description, MediaFile::Track* track)
    {
        GError* error = nullptr;
        GstElement* const bin = gst_parse_bin_from_description(description, FALSE, &error);
        if (bin == nullptr) {
            const GlibPointer<GError> owned(error);
            problem = std::string("cannot be served: ") + owned->message;
            return;
        }
        gst_bin_add(GST_BIN(pipeline.get()), bin);
        if (track != nullptr) {
            const GlibPointer<GstElement> sink(gst_bin_get_by_name(GST_BIN(bin), "sink"));
            GstAppSinkCallbacks callbacks{};
            callbacks.new_sample = onSample;
            gst_app_sink_set_callbacks(GST_APP_SINK(sink.get()), &callbacks, track, nullptr);
        }
        // Not left to the parser of descriptions, which may take the loose end behind a decodebin for the entry.
        const GlibPointer<GstElement> entry(gst_bin_get_by_name(GST_BIN(bin), "entry"));
        const GlibPointer<GstPad> target(gst_element_get_static_pad(entry.get(), "sink"));
        GstPad* const outside = gst_ghost_pad_new("sink", target.get());
        gst_element_add_pad(bin, outside);
        gst_pad_link(pad, outside);
        gst_element_sync_state_with_parent(bin);
    }

    static GstFlowReturn onSample(GstAppSink* sink, gpointer track)
    {
        const GlibPointer<GstSample> sample(gst_app_sink_pull_sample(sink));
        if (sample)
            append(*static_cast<MediaFile::Track*>(track), sample.get());
        return GST_FLOW_OK;
    }

    static void append(MediaFile::Track& track, GstSample* sample)
    {
        GstBuffer* const buffer = gst_sample_get_buffer(sample);
        const GstSegment* const segment = gst_sample_get_segment(sample);
        const auto pts = runningTime(segment, GST_BUFFER_PTS(buffer));
        const auto dts = runningTime(segment, GST_BUFFER_DTS(buffer));
        if (!pts && !dts)
            return;
        if (!track.caps)
            track.caps = {gst_caps_ref(gst_sample_get_caps(sample)), gst_caps_unref};
        track.units.push_back({{gst_buffer_ref(buffer), gst_buffer_unref}, pts ? *pts : *dts, dts ? *dts : *pts});
    }

    static std::optional<std::int64_t> runningTime(const GstSegment* segment, GstClockTime time)
    {
        guint64 running = 0;
        if (!GST_CLOCK_TIME_IS_VALID(time))
            return std::nullopt;
        const gint sign = gst_segment_to_running_time_full(segment, GST_FORMAT_TIME, time, &running);
        if (sign == 0)
            return std::nullopt;
        return sign * static_cast<std::int64_t>(running);
    }

    /// Size and frame rate, as the parser found them in the parameter sets.
    void readFormat()
    {
        const GstStructure* const format = gst_caps_get_structure(file->video.caps.get(), 0);
        gint width = 0;
        gint height = 0;
        gint numerator = 0;
        gint denominator = 1;
        if (gst_structure_get_int(format, "width", &width) && gst_structure_get_int(format, "height", &height))
            file->size = {static_cast<unsigned>(width), static_cast<unsigned>(height)};
        if (gst_structure_get_fraction(format, "framerate", &numerator, &denominator) && numerator > 0)
            file->framesPerSecond = static_cast<unsigned>(std::max((numerator + denominator / 2) / denominator, 1));
    }

    /// Counts from the earliest time of either track and finds where the loop begins again.
    void normaliseTimes()
    {
        std::int64_t first = std::numeric_limits<std::int64_t>::max();
        for (const MediaFile::Track* track : {&file->video, &file->audio})
            for (const MediaFile::Unit& unit : track->units)
                first = std::min({first, unit.pts, unit.dts});
        for (MediaFile::Track* track : {&file->video, &file->audio}) {
            for (MediaFile::Unit& unit : track->units) {
                unit.pts -= first;
                unit.dts -= first;
                const GstClockTime length = GST_BUFFER_DURATION(unit.buffer.get());
                const std::int64_t end =
                    unit.pts + static_cast<std::int64_t>(GST_CLOCK_TIME_IS_VALID(length) ? length : frameLength());
                file->duration = std::max(file->duration, end);
            }
        }
    }

    GstClockTime frameLength() const
    {
        return static_cast<GstClockTime>(GST_SECOND) / std::max(file->framesPerSecond, 1u);
    }

    std::string path;
    GlibPointer<GstElement> pipeline;
    std::shared_ptr<MediaFile> file = std::make_shared<MediaFile>();
    std::mutex mutex;  ///< guards what follows: pads may appear on several threads
    bool videoFound = false;
    bool audioFound = false;
    std::string problem;
};

/// Gives one application source its next piece each time it is hungry. Its callbacks come one at a time.
struct Feeder {
    std::shared_ptr<const MediaFile> file;
    const MediaFile::Track* track;  ///< of `file`
    std::size_t next = 0;
    std::int64_t loopStart = 0;

    static void onNeedData(GstAppSrc* source, guint, gpointer feeder) { static_cast<Feeder*>(feeder)->push(source); }

    void push(GstAppSrc* source)
    {
        const MediaFile::Unit& unit = track->units[next];
        // The bytes are shared with the file; times and flags are this copy's own.
        GstBuffer* const buffer = gst_buffer_copy(unit.buffer.get());
        GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(loopStart + unit.pts);
        GST_BUFFER_DTS(buffer) = static_cast<GstClockTime>(loopStart + unit.dts);
        if (++next == track->units.size()) {
            next = 0;
            loopStart += file->duration;
        }
        gst_app_src_push_buffer(source, buffer);
    }
};

void feed(GstElement* pipeline, const char* sourceName, const std::shared_ptr<const MediaFile>& file,
          const MediaFile::Track& track)
{
    const GlibPointer<GstElement> source(gst_bin_get_by_name_recurse_up(GST_BIN(pipeline), sourceName));
    if (!source)
        return;
    GstAppSrc* const appSource = GST_APP_SRC(source.get());
    gst_app_src_set_caps(appSource, track.caps.get());
    GstAppSrcCallbacks callbacks{};
    callbacks.need_data = Feeder::onNeedData;
    gst_app_src_set_callbacks(appSource, &callbacks, new Feeder{file, &track},
                              [](gpointer feeder) { delete static_cast<Feeder*>(feeder); });
}

}  // namespace

std::shared_ptr<const MediaFile> MediaFile::load(const std::string& path)
{
    return Loader(path).load();
}

void feedFromFile(GstElement* pipeline, const std::shared_ptr<const MediaFile>& file)
{
    feed(pipeline, "video", file, file->video);
    if (!file->audio.units.empty())
        feed(pipeline, "audio", file, file->audio);
}

}  // namespace simulator
