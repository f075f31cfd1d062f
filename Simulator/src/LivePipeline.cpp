#include "LivePipeline.h"

#include "Glib.h"
#include "MediaPipeline.h"

#include <gst/video/video.h>

#include <atomic>

namespace simulator
{
namespace
{

constexpr const char* keyFramesKey = "simulator-key-frames";

GlibPointer<GstElement> find(GstElement* pipeline, const char* name)
{
    return GlibPointer<GstElement>(gst_bin_get_by_name_recurse_up(GST_BIN(pipeline), name));
}

void forceKeyFrameOf(GstElement* encoder)
{
    const GlibPointer<GstPad> pad(gst_element_get_static_pad(encoder, "src"));
    gst_pad_send_event(pad.get(), gst_video_event_new_upstream_force_key_unit(GST_CLOCK_TIME_NONE, TRUE, 0));
}

/// Counts frames in front of an encoder, whose own distance between key frames cannot be changed while it runs.
struct KeyFrames {
    std::atomic<unsigned> interval;
    unsigned sinceLast = 0;  ///< used by the encoder's streaming thread only

    static GstPadProbeReturn onFrame(GstPad* pad, GstPadProbeInfo*, gpointer data)
    {
        auto& self = *static_cast<KeyFrames*>(data);
        if (++self.sinceLast <= self.interval)
            return GST_PAD_PROBE_OK;
        self.sinceLast = 1;
        const GlibPointer<GstElement> encoder(gst_pad_get_parent_element(pad));
        if (encoder)
            forceKeyFrameOf(encoder.get());
        return GST_PAD_PROBE_OK;
    }
};

void keepKeyFrames(GstElement* encoder, unsigned interval)
{
    if (auto* const known = static_cast<KeyFrames*>(g_object_get_data(G_OBJECT(encoder), keyFramesKey))) {
        known->interval = interval;
        return;
    }
    auto* const keyFrames = new KeyFrames{interval};
    g_object_set_data_full(G_OBJECT(encoder), keyFramesKey, keyFrames,
                           [](gpointer data) { delete static_cast<KeyFrames*>(data); });
    const GlibPointer<GstPad> pad(gst_element_get_static_pad(encoder, "sink"));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, KeyFrames::onFrame, keyFrames, nullptr);
}

bool hasProperty(GstElement* element, const char* name)
{
    return g_object_class_find_property(G_OBJECT_GET_CLASS(element), name) != nullptr;
}

}  // namespace

void show(GstElement* pipeline, const PictureLook& look)
{
    if (const auto balance = find(pipeline, "balance"))
        g_object_set(balance.get(), "brightness", look.brightness, "contrast", look.contrast, "saturation",
                     look.saturation, nullptr);
    if (const auto mirror = find(pipeline, "mirror")) {
        const GstVideoOrientationMethod directions[] = {GST_VIDEO_ORIENTATION_IDENTITY, GST_VIDEO_ORIENTATION_HORIZ,
                                                        GST_VIDEO_ORIENTATION_VERT, GST_VIDEO_ORIENTATION_180};
        g_object_set(mirror.get(), "video-direction", directions[(look.mirrored ? 1 : 0) + (look.flipped ? 2 : 0)],
                     nullptr);
    }
}

void hear(GstElement* pipeline, const Microphone& microphone)
{
    if (const auto volume = find(pipeline, "microphone"))
        g_object_set(volume.get(), "mute", static_cast<gboolean>(microphone.muted), "volume", microphone.gain, nullptr);
}

void encode(GstElement* pipeline, const StreamEncoding& encoding)
{
    if (const auto picture = find(pipeline, "picture")) {
        const GlibPointer<GstCaps> caps(gst_caps_from_string(pictureCaps(encoding).c_str()));
        g_object_set(picture.get(), "caps", caps.get(), nullptr);
    }
    const auto encoder = find(pipeline, "encoder");
    if (!encoder)
        return;
    if (hasProperty(encoder.get(), "bitrate"))
        g_object_set(encoder.get(), "bitrate", static_cast<guint>(encoding.bitrateKbit), nullptr);
    keepKeyFrames(encoder.get(), encoding.keyFrameInterval);
}

void forceKeyFrame(GstElement* pipeline)
{
    if (const auto encoder = find(pipeline, "encoder"))
        forceKeyFrameOf(encoder.get());
}

}  // namespace simulator
