#pragma once

#include "media/RtpTime.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace Tavro8::media
{
/// Brings the datagrams of one RTP source into the order of their sequence numbers.
///
/// A packet in order passes: it is neither copied nor looked at again. One that is ahead of the packet awaited is
/// copied and waits. The gap is given up when too much waits behind it or the oldest of what waits has waited for too
/// long, which is judged by `pull`: at the next packet, or at a tick.
///
///     if (buffer.push(sequence, bytes, arrival) == ReorderBuffer::Verdict::pass)
///         deliver(bytes, arrival);
///     while (const auto packet = buffer.pull(arrival.monotonic))
///         deliver(packet->bytes, packet->arrival);
///
/// Its memory is taken when the first packet has to wait, and never grows. Sequence numbers are compared by signed
/// difference; whether a jump begins a new sequence is for `RtpReceiver` to say, and `reset` follows it.
/// Not thread-safe: belongs to the I/O context of its stream.
class ReorderBuffer {
public:
    struct Settings {
        std::size_t maxPackets = 64;              ///< that wait
        std::size_t maxBytes = 96 * 1024;         ///< of packets that wait
        std::chrono::milliseconds maxDelay{100};  ///< how long one waits for those before it
    };

    enum class Verdict : std::uint8_t {
        pass,       ///< awaited, or too late: to be followed now
        kept,       ///< copied; `pull` hands it out when its turn has come
        duplicate,  ///< waits already: to be dropped
    };

    struct Packet {
        std::span<const std::uint8_t> bytes;  ///< valid until the next `push` or `reset`
        ArrivalTime arrival;
    };

    struct Counters {
        std::uint64_t kept = 0;       ///< packets that had to wait
        std::uint64_t duplicate = 0;  ///< copies of packets that wait
        std::uint64_t abandoned = 0;  ///< gaps that were given up
    };

    ReorderBuffer() : ReorderBuffer(Settings{}) {}
    explicit ReorderBuffer(const Settings& settings) : settings(settings) {}

    /// Judges an admitted packet. Everything that `pull` has to give must have been taken before. Throws
    /// std::bad_alloc, once at most.
    Verdict push(std::uint16_t sequence, std::span<const std::uint8_t> bytes, const ArrivalTime& arrival);

    /// The next packet in order that has waited, if its turn has come by `now`.
    std::optional<Packet> pull(std::chrono::steady_clock::time_point now) noexcept;

    /// The next packet that has waited, whatever is missing before it.
    std::optional<Packet> drain() noexcept;

    /// Forgets what waits and which packet is awaited: a new sequence begins with the next one.
    void reset() noexcept;

    std::size_t size() const noexcept { return waiting.size(); }
    const Counters& getCounters() const noexcept { return counters; }

    /// For tests: what waits is within the bounds, ahead of what is awaited, and lies in order and apart in memory.
    bool checkInvariants() const noexcept;

private:
    /// In order of arrival, which is also their order in memory: the first is the oldest.
    struct Waiting {
        std::uint16_t sequence;
        std::size_t offset;
        std::size_t size;
        ArrivalTime arrival;
    };

    static constexpr std::size_t largestPacket = 0xFFFF;

    std::size_t capacity() const noexcept { return settings.maxBytes + largestPacket; }
    std::int16_t distance(std::uint16_t sequence) const noexcept
    {
        return static_cast<std::int16_t>(static_cast<std::uint16_t>(sequence - next));
    }
    bool keep(std::uint16_t sequence, std::span<const std::uint8_t> bytes, const ArrivalTime& arrival);
    void compact() noexcept;
    void forget() noexcept;
    bool isGapHopeless(std::chrono::steady_clock::time_point now) const noexcept;
    std::size_t nearest() const noexcept;
    Packet take(std::size_t index) noexcept;

    Settings settings;
    bool started = false;
    std::uint16_t next = 0;  // the sequence number awaited

    std::unique_ptr<std::uint8_t[]> memory;  // of `capacity()` bytes, taken when first needed
    std::size_t used = 0;                    // behind the last that waits
    std::size_t held = 0;                    // bytes that wait
    std::vector<Waiting> waiting;
    Counters counters;
};
}  // namespace Tavro8::media
