#pragma once

#include <functional>
#include <string>

using GstElement = struct _GstElement;

namespace simulator
{

/// Has the text overlay "caption" of a test picture's pipeline show what `text` says of each frame. GStreamer's threads
/// call `text` as long as the pipeline lives.
void keepCaption(GstElement* pipeline, std::function<std::string()> text);

}  // namespace simulator
