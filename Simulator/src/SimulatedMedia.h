#pragma once

#include "Fault.h"
#include "Options.h"

#include <gst/rtsp-server/rtsp-server.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace simulator
{

/// A stream as the server counts it. GStreamer's threads write, the I/O context reads.
struct StreamActivity {
    std::string path;
    const FaultTable* faults = nullptr;           ///< not owned
    BackChannel backChannel = BackChannel::none;  ///< that clients may ask for
    std::atomic<std::uint64_t> frames{0};         ///< video frames sent towards clients
    std::atomic<std::uint64_t> keyFrames{0};      ///< those of `frames` that can be decoded alone
    std::atomic<std::uint64_t> videoPackets{0};
    std::atomic<std::uint64_t> videoBytes{0};  ///< RTP packets with their headers
    std::atomic<std::uint64_t> audioPackets{0};
    std::atomic<std::uint64_t> audioBytes{0};
    std::atomic<bool> sending{false};     ///< the medium of the moment has sent frames
    std::atomic<bool> inKeyFrame{false};  ///< the packets now passing belong to a key frame

    void clear();
};

/// A factory of media in which sender reports carry the time of day, packets are counted, tracks that no client wants
/// do no harm, and the description may be made to lack its tracks. A client that asks for the back channel has a medium
/// of its own, all others share one.
GstRTSPMediaFactory* newSimulatedFactory(BackChannel backChannel);

/// Ties a new medium to its stream, which outlives it.
void attach(GstRTSPMedia* media, StreamActivity& stream);

/// Whether frames have left the medium towards a client.
bool isSending(GstRTSPMedia* media);

}  // namespace simulator
