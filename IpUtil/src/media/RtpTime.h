#pragma once

#include <chrono>
#include <cstdint>

namespace Tavro8::media
{
/// When bytes arrived, on both clocks. The caller reads the clocks once for each read of the socket,
/// so all packets of one read share one value.
struct ArrivalTime {
    std::chrono::steady_clock::time_point monotonic{};  ///< for intervals: jitter, delay since the last report
    std::chrono::system_clock::time_point utc{};        ///< for frame times while the device sends no sender report
};

/// What the media layer needs of an RTCP sender report (RFC 3550 section 6.4.1), already parsed.
struct SenderReport {
    std::uint32_t ssrc = 0;
    std::uint64_t ntpTimestamp = 0;  ///< 32.32 fixed point, seconds since 1900; 0: the sender knows no wall clock
    std::uint32_t rtpTimestamp = 0;  ///< the same instant in units of the track's clock rate
};
}  // namespace Tavro8::media
