#include "ReplayPipeline.h"

#include "Glib.h"
#include "LivePipeline.h"
#include "Log.h"

#include <gst/app/gstappsink.h>
#include <gst/rtp/rtp.h>
#include <gst/sdp/sdp.h>

#include <atomic>
#include <stdexcept>
#include <utility>

namespace simulator
{
namespace
{

using std::chrono::nanoseconds;

constexpr GstClockTime describePatience = 15 * GST_SECOND;  // a slow machine, many at once

struct SdpDeleter {
    void operator()(GstSDPMedia* media) const { gst_sdp_media_free(media); }
};

/// Writes the recorded time of each frame into it.
struct RecordedCaption {
    std::string title;
    std::shared_ptr<const ReplayTimeline> timeline;
    std::string shown{};

    static GstPadProbeReturn onFrame(GstPad* pad, GstPadProbeInfo* info, gpointer data)
    {
        auto& self = *static_cast<RecordedCaption*>(data);
        // The source counts from 0.
        const nanoseconds position(static_cast<std::int64_t>(GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info))));
        std::string text = self.title + '\n' + readableTime(self.timeline->timeAt(position)) + " UTC";
        text.replace(text.find(' ', self.title.size()), 1, "\n");  // date and time on lines of their own
        if (text != self.shown) {
            self.shown = std::move(text);
            const GlibPointer<GstElement> overlay(gst_pad_get_parent_element(pad));
            g_object_set(overlay.get(), "text", self.shown.c_str(), nullptr);
        }
        return GST_PAD_PROBE_OK;
    }
};

void showRecordedTime(GstElement* pipeline, std::string title, std::shared_ptr<const ReplayTimeline> timeline)
{
    const GlibPointer<GstElement> overlay(gst_bin_get_by_name(GST_BIN(pipeline), "caption"));
    if (!overlay)
        return;
    const GlibPointer<GstPad> pad(gst_element_get_static_pad(overlay.get(), "video_sink"));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, RecordedCaption::onFrame,
                      new RecordedCaption{std::move(title), std::move(timeline)},
                      [](gpointer data) { delete static_cast<RecordedCaption*>(data); });
}

ReplayPacket packetOf(GstSample* sample)
{
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    ReplayPacket packet;
    packet.bytes.resize(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, packet.bytes.data(), packet.bytes.size());
    // Encoders may shift their time stamps, and say so in the segment.
    const guint64 position =
        gst_segment_to_running_time(gst_sample_get_segment(sample), GST_FORMAT_TIME, GST_BUFFER_PTS(buffer));
    packet.position = nanoseconds(position == GST_CLOCK_TIME_NONE ? 0 : static_cast<std::int64_t>(position));
    packet.keyFrame = !GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    constexpr std::uint8_t markerBit = 0x80;
    packet.endsFrame = packet.bytes.size() > 1 && (packet.bytes[1] & markerBit) != 0;
    return packet;
}

ReplayPipeline::Track trackOf(const GstCaps* caps)
{
    GstSDPMedia* made = nullptr;
    gst_sdp_media_new(&made);
    const std::unique_ptr<GstSDPMedia, SdpDeleter> media(made);
    gst_sdp_media_set_proto(made, "RTP/AVP");
    gst_sdp_media_set_media_from_caps(caps, made);
    const GlibPointer<gchar> text(gst_sdp_media_as_text(made));
    ReplayPipeline::Track track{text.get()};
    gint clockRate = 0;
    if (gst_structure_get_int(gst_caps_get_structure(caps, 0), "clock-rate", &clockRate) && clockRate > 0)
        track.clockRate = static_cast<unsigned>(clockRate);
    return track;
}

}  // namespace

struct ReplayPipeline::State {
    std::function<void()> onMore;
    std::atomic<bool> failed{false};
    GlibPointer<GstElement> pipeline;
    std::array<GlibPointer<GstElement>, replayTracks> sinks;  ///< null: not wanted

    static GstFlowReturn onSample(GstAppSink*, gpointer self)
    {
        static_cast<State*>(self)->onMore();
        return GST_FLOW_OK;
    }

    static GstBusSyncReply onMessage(GstBus*, GstMessage* message, gpointer data)
    {
        auto& self = *static_cast<State*>(data);
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
            GError* error = nullptr;
            gst_message_parse_error(message, &error, nullptr);
            const GlibPointer<GError> owned(error);
            logLine(std::string("a replay breaks off: ") + owned->message);
            self.failed = true;
            self.onMore();
        }
        gst_message_unref(message);
        return GST_BUS_DROP;
    }
};

ReplayPipeline::ReplayPipeline(const Settings& settings, std::shared_ptr<const ReplayTimeline> timeline,
                               std::function<void()> onMore)
    : state(std::make_unique<State>())
{
    state->onMore = std::move(onMore);
    GError* error = nullptr;
    const std::string launch = replayLaunch(settings.picture, settings.wanted[0], settings.wanted[1]);
    auto* const launched = gst_parse_launch(launch.c_str(), &error);
    if (launched != nullptr)
        state->pipeline.reset(GST_ELEMENT(gst_object_ref_sink(launched)));
    if (const GlibPointer<GError> owned(error); owned || !state->pipeline)
        throw std::runtime_error(std::string("a replay cannot be made: ") + (owned ? owned->message : ""));
    GstElement* const pipeline = state->pipeline.get();
    encode(pipeline, settings.picture.encoding);
    showRecordedTime(pipeline, settings.picture.title, std::move(timeline));

    const GlibPointer<GstBus> bus(gst_element_get_bus(pipeline));
    gst_bus_set_sync_handler(bus.get(), State::onMessage, state.get(), nullptr);
    for (std::size_t i = 0; i < replayTracks; ++i) {
        state->sinks[i].reset(gst_bin_get_by_name(GST_BIN(pipeline), ("sink" + std::to_string(i)).c_str()));
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = State::onSample;
        if (state->sinks[i])
            gst_app_sink_set_callbacks(GST_APP_SINK(state->sinks[i].get()), &callbacks, state.get(), nullptr);
    }
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
}

ReplayPipeline::~ReplayPipeline()
{
    if (state->pipeline)
        gst_element_set_state(state->pipeline.get(), GST_STATE_NULL);  // waits for the threads
}

std::optional<ReplayPacket> ReplayPipeline::next(std::size_t track)
{
    if (!state->sinks[track])
        return std::nullopt;
    const GlibPointer<GstSample> sample(gst_app_sink_try_pull_sample(GST_APP_SINK(state->sinks[track].get()), 0));
    return sample ? std::optional(packetOf(sample.get())) : std::nullopt;
}

bool ReplayPipeline::hasFailed() const
{
    return state->failed;
}

std::vector<ReplayPipeline::Track> ReplayPipeline::describe()
{
    gst_element_get_state(state->pipeline.get(), nullptr, nullptr, describePatience);
    std::vector<Track> tracks;
    for (const auto& sink : state->sinks) {
        if (!sink)
            continue;
        const GlibPointer<GstPad> pad(gst_element_get_static_pad(sink.get(), "sink"));
        const GlibPointer<GstCaps> caps(gst_pad_get_current_caps(pad.get()));
        if (!caps)
            throw std::runtime_error("a replay makes no packets");
        tracks.push_back(trackOf(caps.get()));
    }
    return tracks;
}

}  // namespace simulator
