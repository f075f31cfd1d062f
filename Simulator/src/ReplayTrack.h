#pragma once

#include "ReplayPipeline.h"

#include <cstdint>
#include <random>
#include <string>

namespace simulator
{

/// The sender of one track of a replay, on an RTSP connection: gives RTP packets their numbers and writes the RTCP that
/// belongs to them (RFC 3550). RTP time follows the recording, whatever the speed, but goes on over gaps, as positions
/// do. No socket.
class ReplayTrack {
public:
    ReplayTrack(unsigned clockRate, std::uint8_t channel);

    /// Position 0 comes next.
    void begin();
    /// As another source, after a farewell.
    void becomeAnother();

    std::uint16_t nextSequence() const { return sequence; }
    std::uint32_t rtpTime(std::chrono::nanoseconds position) const;

    /// Each appends an interleaved frame (RFC 2326, 10.12).
    void appendPacket(ReplayPacket packet, std::string& out);
    /// That what stands at a position was recorded at a time.
    void appendReport(std::chrono::nanoseconds position, RecordedTime time, std::string& out) const;
    /// The same, and that nothing follows.
    void appendFarewell(std::chrono::nanoseconds position, RecordedTime time, std::string& out) const;

private:
    std::string report(std::chrono::nanoseconds position, RecordedTime time) const;
    void appendFrame(std::uint8_t channel, std::string_view bytes, std::string& out) const;

    unsigned clockRate;
    std::uint8_t channel;  ///< of RTP; RTCP has the next one
    std::minstd_rand random{std::random_device{}()};
    std::uint32_t source;
    std::uint16_t sequence;
    std::uint32_t origin;  ///< RTP time of position 0
    std::uint32_t latest;  ///< RTP time of the latest packet
    std::uint32_t packets = 0;
    std::uint32_t octets = 0;
};

}  // namespace simulator
