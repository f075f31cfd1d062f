#include "SimulatedMedia.h"

#include "Glib.h"
#include "TalkBackMedia.h"

#include <gst/rtp/rtp.h>
#include <gst/rtsp-server/rtsp-onvif-media-factory.h>
#include <gst/rtsp-server/rtsp-onvif-media.h>

namespace simulator
{
namespace
{

constexpr const char* streamKey = "simulator-stream";
constexpr const char* rtpbinKey = "simulator-rtpbin";

/// Value of rtpbin's "ntp-time-source": the time of day as NTP counts it.
constexpr gint ntpTimeSourceNtp = 0;

/// Devices send a sender report every few seconds; one a second lets short tests see several.
constexpr guint64 reportInterval = GST_SECOND;

struct SimulatedMedia {
    GstRTSPOnvifMedia parent;
};
struct SimulatedMediaClass {
    GstRTSPOnvifMediaClass parent;
};
struct SimulatedFactory {
    GstRTSPOnvifMediaFactory parent;
};
struct SimulatedFactoryClass {
    GstRTSPOnvifMediaFactoryClass parent;
};

GstRTSPMediaClass* parentClass = nullptr;
GstRTSPMediaFactoryClass* parentFactoryClass = nullptr;

/// The stream that a medium belongs to.
StreamActivity* streamOf(GstRTSPMedia* media)
{
    return static_cast<StreamActivity*>(g_object_get_data(G_OBJECT(media), streamKey));
}

void countVideoPacket(StreamActivity& stream, GstBuffer* buffer)
{
    stream.videoPackets += 1;
    stream.videoBytes += gst_buffer_get_size(buffer);
    if (!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT))
        stream.inKeyFrame = true;
    guint8 flags = 0;
    constexpr guint8 markerBit = 0x80;
    if (gst_buffer_extract(buffer, 1, &flags, 1) != 1 || (flags & markerBit) == 0)
        return;
    stream.frames += 1;
    stream.sending = true;
    if (stream.inKeyFrame.exchange(false))
        stream.keyFrames += 1;
}

void countAudioPacket(StreamActivity& stream, GstBuffer* buffer)
{
    stream.audioPackets += 1;
    stream.audioBytes += gst_buffer_get_size(buffer);
}

template <void (*count)(StreamActivity&, GstBuffer*)>
GstPadProbeReturn onPackets(GstPad* pad, GstPadProbeInfo* info, gpointer stream)
{
    // A track that no client has set up leads nowhere. Left to itself it would fail, and the whole medium with it.
    if (!gst_pad_is_linked(pad))
        return GST_PAD_PROBE_DROP;
    auto& activity = *static_cast<StreamActivity*>(stream);
    if (GST_IS_BUFFER(info->data)) {
        count(activity, GST_PAD_PROBE_INFO_BUFFER(info));
        return GST_PAD_PROBE_OK;
    }
    GstBufferList* const list = GST_PAD_PROBE_INFO_BUFFER_LIST(info);
    for (guint i = 0; i < gst_buffer_list_length(list); ++i)
        count(activity, gst_buffer_list_get(list, i));
    return GST_PAD_PROBE_OK;
}

/// Counts behind the point where the server holds packets back until a client plays.
void countPackets(GstRTSPMedia* media, StreamActivity& stream)
{
    auto* const rtpbin = static_cast<GstElement*>(g_object_get_data(G_OBJECT(media), rtpbinKey));
    constexpr auto mask = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
    const GstPadProbeCallback probes[] = {onPackets<countVideoPacket>, onPackets<countAudioPacket>};
    for (guint i = 0; i < gst_rtsp_media_n_streams(media) && i < G_N_ELEMENTS(probes); ++i) {
        const std::string name = "send_rtp_src_" + std::to_string(i);
        const GlibPointer<GstPad> pad(gst_element_get_static_pad(rtpbin, name.c_str()));
        if (pad)
            gst_pad_add_probe(pad.get(), mask, probes[i], &stream, nullptr);
    }
}

void onPrepared(GstRTSPMedia* media, gpointer)
{
    for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i) {
        const GlibPointer<GObject> session(gst_rtsp_stream_get_rtpsession(gst_rtsp_media_get_stream(media, i)));
        if (session)
            g_object_set(session.get(), "rtcp-min-interval", reportInterval, nullptr);
    }
    if (StreamActivity* stream = streamOf(media))
        countPackets(media, *stream);
    tapBackChannel(media, static_cast<GstElement*>(g_object_get_data(G_OBJECT(media), rtpbinKey)));
}

gboolean setupRtpbin(GstRTSPMedia* media, GstElement* rtpbin)
{
    g_object_set(rtpbin, "ntp-time-source", ntpTimeSourceNtp, nullptr);
    g_object_set_data(G_OBJECT(media), rtpbinKey, rtpbin);  // the medium owns its rtpbin
    return parentClass->setup_rtpbin == nullptr || parentClass->setup_rtpbin(media, rtpbin);
}

gboolean setupSdp(GstRTSPMedia* media, GstSDPMessage* sdp, GstSDPInfo* info)
{
    const StreamActivity* const stream = streamOf(media);
    if (stream != nullptr && stream->faults->find(FaultKind::rtspNoTracks, "DESCRIBE " + stream->path))
        return TRUE;  // it is the parent that describes the tracks
    if (!backChannelOf(media)) {
        // Without a back channel the description is that of any medium: no directions, no ONVIF attributes.
        static const auto* const plain =
            GST_RTSP_MEDIA_CLASS(g_type_class_peek_parent(g_type_class_peek(GST_TYPE_RTSP_ONVIF_MEDIA)));
        return plain->setup_sdp(media, sdp, info);
    }
    if (!parentClass->setup_sdp(media, sdp, info))
        return FALSE;
    if (stream != nullptr && stream->backChannel == BackChannel::many)
        describeManyFormats(sdp);
    return TRUE;
}

gboolean unprepare(GstRTSPMedia* media)
{
    finishBackChannel(media);
    return parentClass->unprepare(media);
}

void initialiseMediaClass(gpointer type, gpointer)
{
    parentClass = GST_RTSP_MEDIA_CLASS(g_type_class_peek_parent(type));
    GstRTSPMediaClass* const mediaClass = GST_RTSP_MEDIA_CLASS(type);
    mediaClass->setup_rtpbin = setupRtpbin;
    mediaClass->setup_sdp = setupSdp;
    mediaClass->unprepare = unprepare;
}

GType simulatedMediaType()
{
    static const GType type =
        g_type_register_static_simple(GST_TYPE_RTSP_ONVIF_MEDIA, "SimulatedMedia", sizeof(SimulatedMediaClass),
                                      initialiseMediaClass, sizeof(SimulatedMedia), nullptr, GTypeFlags{});
    return type;
}

/// Media with the same key are one; those without are not shared.
gchar* mediaKey(GstRTSPMediaFactory* factory, const GstRTSPUrl* url)
{
    return isBackChannelWanted(factory) ? nullptr : parentFactoryClass->gen_key(factory, url);
}

/// The class that makes what a request wants. The one for back channels makes nothing when it is asked for one that it
/// has not.
const GstRTSPMediaFactoryClass* makerFor(GstRTSPMediaFactory* factory)
{
    static const auto* const plain = GST_RTSP_MEDIA_FACTORY_CLASS(g_type_class_peek(GST_TYPE_RTSP_MEDIA_FACTORY));
    return isBackChannelWanted(factory) ? parentFactoryClass : plain;
}

GstElement* createElement(GstRTSPMediaFactory* factory, const GstRTSPUrl* url)
{
    return makerFor(factory)->create_element(factory, url);
}

GstRTSPMedia* constructMedia(GstRTSPMediaFactory* factory, const GstRTSPUrl* url)
{
    return makerFor(factory)->construct(factory, url);
}

void configureMedia(GstRTSPMediaFactory* factory, GstRTSPMedia* media)
{
    parentFactoryClass->configure(factory, media);
    if (backChannelOf(media))
        gst_rtsp_media_set_shared(media, FALSE);
}

void initialiseFactoryClass(gpointer type, gpointer)
{
    parentFactoryClass = GST_RTSP_MEDIA_FACTORY_CLASS(g_type_class_peek_parent(type));
    GstRTSPMediaFactoryClass* const factoryClass = GST_RTSP_MEDIA_FACTORY_CLASS(type);
    factoryClass->gen_key = mediaKey;
    factoryClass->create_element = createElement;
    factoryClass->construct = constructMedia;
    factoryClass->configure = configureMedia;
}

GType simulatedFactoryType()
{
    static const GType type = g_type_register_static_simple(GST_TYPE_RTSP_ONVIF_MEDIA_FACTORY, "SimulatedMediaFactory",
                                                            sizeof(SimulatedFactoryClass), initialiseFactoryClass,
                                                            sizeof(SimulatedFactory), nullptr, GTypeFlags{});
    return type;
}

}  // namespace

void StreamActivity::clear()
{
    for (auto* counter : {&frames, &keyFrames, &videoPackets, &videoBytes, &audioPackets, &audioBytes})
        *counter = 0;
}

GstRTSPMediaFactory* newSimulatedFactory(BackChannel backChannel)
{
    auto* const factory = GST_RTSP_MEDIA_FACTORY(g_object_new(simulatedFactoryType(), nullptr));
    if (const std::string launch = backChannelLaunch(backChannel); !launch.empty())
        gst_rtsp_onvif_media_factory_set_backchannel_launch(GST_RTSP_ONVIF_MEDIA_FACTORY(factory), launch.c_str());
    gst_rtsp_media_factory_set_media_gtype(factory, simulatedMediaType());
    return factory;
}

void attach(GstRTSPMedia* media, StreamActivity& stream)
{
    if (!backChannelOf(media))  // one beside the shared medium does not begin anything anew
        stream.sending = false;
    g_object_set_data(G_OBJECT(media), streamKey, &stream);
    g_signal_connect(media, "prepared", G_CALLBACK(onPrepared), nullptr);
}

bool isSending(GstRTSPMedia* media)
{
    const StreamActivity* const stream = streamOf(media);
    return stream != nullptr && stream->sending;
}

}  // namespace simulator
