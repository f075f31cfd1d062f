#pragma once

#include "AudioInput.h"
#include "ImageSettings.h"
#include "StreamEncoding.h"

using GstElement = struct _GstElement;

// What may be changed in the pipeline of a live stream while it runs. Elements are found by the names that the launch
// lines give them; what a pipeline does not have is left out. Any thread.
namespace simulator
{

/// "balance" and "mirror".
void show(GstElement* pipeline, const PictureLook& look);

/// "microphone".
void hear(GstElement* pipeline, const Microphone& microphone);

/// "picture" and "encoder": everything but the codec.
void encode(GstElement* pipeline, const StreamEncoding& encoding);

/// Has the next frame be a key frame.
void forceKeyFrame(GstElement* pipeline);

}  // namespace simulator
