#include "PictureCaption.h"

#include "Glib.h"

#include <utility>

namespace simulator
{
namespace
{

struct Caption {
    std::function<std::string()> text;
    std::string shown;
};

/// Runs for each frame before the overlay sees it, so that the text is the one of its moment.
GstPadProbeReturn onFrame(GstPad* pad, GstPadProbeInfo*, gpointer data)
{
    auto& caption = *static_cast<Caption*>(data);
    std::string text = caption.text();
    if (text != caption.shown) {  // a new text is drawn anew, which costs more than the frame
        caption.shown = std::move(text);
        const GlibPointer<GstElement> overlay(gst_pad_get_parent_element(pad));
        if (overlay)
            g_object_set(overlay.get(), "text", caption.shown.c_str(), nullptr);
    }
    return GST_PAD_PROBE_OK;
}

void release(gpointer data)
{
    delete static_cast<Caption*>(data);
}

}  // namespace

void keepCaption(GstElement* pipeline, std::function<std::string()> text)
{
    const GlibPointer<GstElement> overlay(gst_bin_get_by_name(GST_BIN(pipeline), "caption"));
    if (!overlay)
        return;
    const GlibPointer<GstPad> pad(gst_element_get_static_pad(overlay.get(), "video_sink"));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, onFrame, new Caption{std::move(text), {}}, release);
}

}  // namespace simulator
