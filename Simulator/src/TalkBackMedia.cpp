#include "TalkBackMedia.h"

#include "Glib.h"
#include "Log.h"

#include <gst/app/gstappsrc.h>
#include <gst/rtp/rtp.h>
#include <gst/rtsp-server/rtsp-onvif-media-factory.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace simulator
{
namespace
{

constexpr const char* tapKey = "simulator-back-channel";

/// Far more than packets that are in memory already need.
constexpr auto drainPatience = std::chrono::seconds(1);

/// Sits where packets enter the RTP session, ahead of its buffer, which would hold the last of a call back, and takes
/// them all.
struct Tap {
    GlibPointer<GstPad> pad;  ///< of the RTP session
    std::mutex mutex;         ///< guards what follows
    std::condition_variable ended;
    bool hasEnded = false;
    TalkListener listener;

    void hear(GstBuffer* buffer)
    {
        GstRTPBuffer packet = GST_RTP_BUFFER_INIT;
        if (!gst_rtp_buffer_map(buffer, GST_MAP_READ, &packet))
            return;
        const TalkPacket heard{gst_rtp_buffer_get_payload_type(&packet),
                               gst_rtp_buffer_get_seq(&packet),
                               {static_cast<const std::uint8_t*>(gst_rtp_buffer_get_payload(&packet)),
                                gst_rtp_buffer_get_payload_len(&packet)}};
        {
            const std::lock_guard lock(mutex);
            if (listener)
                listener(heard);
        }
        gst_rtp_buffer_unmap(&packet);
    }

    /// Nothing that has been heard goes on: the session (1.22) ends the program when packets are missing.
    static GstPadProbeReturn onData(GstPad*, GstPadProbeInfo* info, gpointer data)
    {
        auto& self = *static_cast<Tap*>(data);
        if (GST_IS_BUFFER(info->data)) {
            self.hear(GST_PAD_PROBE_INFO_BUFFER(info));
            return GST_PAD_PROBE_DROP;
        }
        if (GST_IS_BUFFER_LIST(info->data)) {
            GstBufferList* const list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
            for (guint i = 0; i < gst_buffer_list_length(list); ++i)
                self.hear(gst_buffer_list_get(list, i));
            return GST_PAD_PROBE_DROP;
        }
        if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) != GST_EVENT_EOS)
            return GST_PAD_PROBE_OK;
        const std::lock_guard lock(self.mutex);
        self.hasEnded = true;
        self.ended.notify_all();
        return GST_PAD_PROBE_DROP;
    }
};

Tap* tapOf(GstRTSPMedia* media)
{
    return static_cast<Tap*>(g_object_get_data(G_OBJECT(media), tapKey));
}

/// Ends the source behind a sink pad, if it is one to which the RTSP connection hands its packets. That source is
/// behind a funnel, which collects from all transports.
bool endSource(GstPad* sinkPad)
{
    const GlibPointer<GstPad> peer(gst_pad_get_peer(sinkPad));
    const GlibPointer<GstElement> element(peer ? gst_pad_get_parent_element(peer.get()) : nullptr);
    if (!element)
        return false;
    if (GST_IS_APP_SRC(element.get()))
        return gst_app_src_end_of_stream(GST_APP_SRC(element.get())) == GST_FLOW_OK;
    bool ended = false;
    GstIterator* const pads = gst_element_iterate_sink_pads(element.get());
    GValue item = G_VALUE_INIT;
    while (gst_iterator_next(pads, &item) == GST_ITERATOR_OK) {
        ended = endSource(GST_PAD(g_value_get_object(&item))) || ended;
        g_value_reset(&item);
    }
    g_value_unset(&item);
    gst_iterator_free(pads);
    return ended;
}

}  // namespace

bool isBackChannelWanted(GstRTSPMediaFactory* factory)
{
    GstRTSPContext* const context = gst_rtsp_context_get_current();
    return context != nullptr &&
           gst_rtsp_onvif_media_factory_has_backchannel_support(GST_RTSP_ONVIF_MEDIA_FACTORY(factory)) &&
           gst_rtsp_onvif_media_factory_requires_backchannel(factory, context);
}

std::string backChannelLaunch(BackChannel form)
{
    const char* format = nullptr;
    switch (form) {
    case BackChannel::none:
    case BackChannel::hidden:
        return {};
    case BackChannel::g711u:
    case BackChannel::many:
        format = "payload=0,encoding-name=PCMU";
        break;
    case BackChannel::g711a:
        format = "payload=8,encoding-name=PCMA";
        break;
    }
    return std::string("( capsfilter name=depay_backchannel caps=\"application/x-rtp,media=audio,clock-rate=8000,") +
           format + "\" ! fakesink async=false sync=false )";
}

std::optional<guint> backChannelOf(GstRTSPMedia* media)
{
    for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i)
        if (gst_rtsp_stream_is_receiver(gst_rtsp_media_get_stream(media, i)))
            return i;
    return std::nullopt;
}

void describeManyFormats(GstSDPMessage* description)
{
    const guint count = gst_sdp_message_medias_len(description);
    if (count == 0)
        return;
    // The library has no other way to edit a medium that the message owns.
    auto* const track = const_cast<GstSDPMedia*>(gst_sdp_message_get_media(description, count - 1));
    constexpr const char* formats[][2] = {
        {"97", "97 G726-16/8000"}, {"98", "98 G726-24/8000"},  {"99", "99 G726-32/8000"}, {"100", "100 G726-40/8000"},
        {"101", "101 L16/16000"},  {"102", "102 speex/16000"}, {"103", "103 iLBC/8000"},  {"104", "104 opus/48000/2"},
        {"9", "9 G722/8000"},      {"18", "18 G729/8000"},     {"8", "8 PCMA/8000"},
    };
    gint place = 0;
    for (const auto& [format, map] : formats) {
        gst_sdp_media_insert_format(track, place++, format);
        gst_sdp_media_add_attribute(track, "rtpmap", map);
    }
}

void tapBackChannel(GstRTSPMedia* media, GstElement* rtpbin)
{
    const auto track = backChannelOf(media);
    if (!track)
        return;
    auto* const tap = new Tap;
    g_object_set_data_full(G_OBJECT(media), tapKey, tap, [](gpointer data) { delete static_cast<Tap*>(data); });
    tap->pad.reset(gst_element_get_static_pad(rtpbin, ("recv_rtp_sink_" + std::to_string(*track)).c_str()));
    constexpr auto mask = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST |
                                                       GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM);
    if (tap->pad)
        gst_pad_add_probe(tap->pad.get(), mask, Tap::onData, tap, nullptr);
}

bool isListenedTo(GstRTSPMedia* media)
{
    Tap* const tap = tapOf(media);
    if (tap == nullptr)
        return false;
    const std::lock_guard lock(tap->mutex);
    return tap->listener != nullptr;
}

void listenToBackChannel(GstRTSPMedia* media, TalkListener listener)
{
    Tap* const tap = tapOf(media);
    if (tap == nullptr)
        return;
    const std::lock_guard lock(tap->mutex);
    tap->listener = std::move(listener);
}

void finishBackChannel(GstRTSPMedia* media)
{
    Tap* const tap = tapOf(media);
    if (tap == nullptr || !isListenedTo(media))
        return;
    const bool ends = tap->pad && endSource(tap->pad.get());
    std::unique_lock lock(tap->mutex);
    if (ends && !tap->ended.wait_for(lock, drainPatience, [tap] { return tap->hasEnded; }))
        logLine("the end of a call may be lost");
    tap->listener = nullptr;
}

}  // namespace simulator
