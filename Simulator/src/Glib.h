#pragma once

#include <glib-object.h>
#include <gst/gst.h>

#include <memory>
#include <string>

namespace simulator
{

/// Drops a reference or frees, by what GLib and GStreamer call the operation for each type.
struct GlibDeleter {
    void operator()(gchar* text) const { g_free(text); }
    void operator()(GError* error) const { g_error_free(error); }
    void operator()(GstMessage* message) const { gst_message_unref(message); }
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
    template <typename Object>
    void operator()(Object* object) const
    {
        g_object_unref(object);
    }
};

/// Owns one reference to a GLib or GStreamer object.
template <typename Type>
using GlibPointer = std::unique_ptr<Type, GlibDeleter>;

/// Shares ownership of what `pointer` points to.
template <typename Object>
GlibPointer<Object> share(Object* pointer)
{
    return GlibPointer<Object>(static_cast<Object*>(g_object_ref(pointer)));
}

}  // namespace simulator
