#pragma once

#include "Options.h"

#include <gst/rtsp-server/rtsp-server.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

// The track of a live medium on which a client sends sound to the device: the back channel that ONVIF has for streams,
// asked for with a header "Require". Each client that asks for it has a medium of its own.
namespace simulator
{

inline constexpr const char* backChannelTag = "www.onvif.org/ver20/backchannel";

/// Whether a factory should make the back channel for the request that GStreamer handles right now.
bool isBackChannelWanted(GstRTSPMediaFactory* factory);

/// The launch line of the receiving end; empty when the track is not offered.
std::string backChannelLaunch(BackChannel form);

/// The number of the track; nothing when the medium has none.
std::optional<guint> backChannelOf(GstRTSPMedia* media);

/// Has the track name a dozen formats, of which G.711 comes last.
void describeManyFormats(GstSDPMessage* description);

/// Catches what arrives at a medium that has just been prepared.
void tapBackChannel(GstRTSPMedia* media, GstElement* rtpbin);

struct TalkPacket {
    unsigned payloadType = 0;
    std::uint16_t sequence = 0;
    std::span<const std::uint8_t> payload;
};
using TalkListener = std::function<void(const TalkPacket&)>;

bool isListenedTo(GstRTSPMedia* media);

/// Has each packet from now on go to `listener`, on one of GStreamer's threads.
void listenToBackChannel(GstRTSPMedia* media, TalkListener listener);

/// To be called before the medium's pipeline is stopped: what the client has sent before reaches the listener, which is
/// then let go.
void finishBackChannel(GstRTSPMedia* media);

}  // namespace simulator
