#pragma once

#include "Options.h"
#include "StreamEncoding.h"

#include <string>
#include <vector>

namespace simulator
{

/// One live stream of the test picture.
struct PictureSettings {
    std::string title;  ///< written into the picture
    StreamEncoding encoding{};
    bool audio = true;
    AudioCodec audioCodec = AudioCodec::g711u;
    unsigned toneHertz = 440;
};

/// Channels (from 0) can be told apart by ear.
unsigned toneOf(unsigned channel);

/// What the picture is before it is encoded, as GStreamer writes it.
std::string pictureCaps(const StreamEncoding& encoding);

/// The launch line for GStreamer's RTSP server: a moving test picture with a title and a running clock, and a tone.
/// The filter that decides the size is called "picture", what changes its look "balance" and "mirror", the overlay that
/// shows the title "caption", the encoder "encoder", the tone's volume "microphone", the payloaders "pay0" (video) and
/// "pay1" (audio). The encoder makes key frames when it is told to.
std::string testPictureLaunch(const PictureSettings& settings);

/// The launch line for recorded media, made as fast as its packets are taken: a test picture and a tone, with the names
/// above, whose RTP packets arrive at the application sinks "sink0" (pictures) and "sink1" (sound). At least one.
std::string replayLaunch(const PictureSettings& settings, bool pictures, bool sound);

/// The launch line for media from memory: application sources "video" and "audio" that a feeder fills. Names are those
/// of the test picture.
std::string fileLaunch(Codec codec, bool audio);

/// A sentence for each GStreamer element that the launch line or the RTSP server needs and this machine lacks, with
/// the Debian package that has it. Needs gst_init.
std::vector<std::string> missingElements(const Options& options);

/// A sentence, as above, when there is no encoder for the codec; empty when there is.
std::string missingEncoder(Codec codec);

/// The RTSP path of a live stream; both indexes count from 0. The recorder's form numbers streams from 0, the camera
/// forms from 1.
std::string livePath(Kind kind, unsigned channel, unsigned stream);

/// The RTSP path under which clients speak to a channel (from 0), whatever the kind.
std::string talkBackPath(unsigned channel);

}  // namespace simulator
