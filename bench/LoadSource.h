#pragma once

#include <cstdint>
#include <memory>

namespace kelvo::bench
{
/// How the packets of a frame follow each other.
enum class LoadPace {
    burst,   ///< a frame at once, as cameras send
    spread,  ///< evenly over the time until the next frame
    full,    ///< no clock: as fast as the receiver takes it, TCP only
};

struct LoadOptions {
    LoadPace pace = LoadPace::burst;
    std::uint32_t frames = 0;  ///< a stream sends so many and then falls silent; 0: no end
};

/// Cameras enough to load a receiver: answers the few management requests with which a receiver finds the RTSP port,
/// and plays a stream on every RTSP connection, over that connection or over UDP. No authentication.
///
/// One thread, one epoll. Frame times of the streams are spread over the frame interval, and their key frames over the
/// group of pictures, so that the load is even. Shares no code with what it is to measure.
class LoadSource {
public:
    /// What was sent since the beginning.
    struct Totals {
        std::uint64_t frames = 0;
        std::uint64_t keyFrames = 0;
        std::uint64_t elementBytes = 0;    ///< of the frames as Annex B, start codes of four bytes
        std::uint64_t wireBytes = 0;       ///< RTP packets, with the '$' header where there is one
        std::uint64_t wirePackets = 0;     ///< RTP packets
        std::uint64_t datagrams = 0;       ///< those of them that went over UDP
        std::uint64_t skippedPackets = 0;  ///< not sent, since the receiver did not read for long
    };

    /// Listens on ports of the loopback interface that the system chooses. Throws std::runtime_error.
    explicit LoadSource(const LoadOptions& options);
    ~LoadSource();

    std::uint16_t httpPort() const noexcept;
    std::uint16_t rtspPort() const noexcept;
    const Totals& totals() const noexcept;

    /// Serves until `commands` ends; calls `onCommand` for each line that comes from there.
    void run(int commands, void (*onCommand)(LoadSource& source));

private:
    struct State;
    std::unique_ptr<State> state;
};
}  // namespace kelvo::bench
