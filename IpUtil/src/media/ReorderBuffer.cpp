#include "media/ReorderBuffer.h"

#include <algorithm>
#include <cstring>

namespace Tavro8::media
{
ReorderBuffer::Verdict ReorderBuffer::push(std::uint16_t sequence, std::span<const std::uint8_t> bytes,
                                           const ArrivalTime& arrival)
{
    if (!started) {
        started = true;
        next = sequence;
    }
    const std::int16_t ahead = distance(sequence);
    if (ahead > 0) {
        if (std::ranges::find(waiting, sequence, &Waiting::sequence) != waiting.end()) {
            ++counters.duplicate;
            return Verdict::duplicate;
        }
        if (keep(sequence, bytes, arrival))
            return Verdict::kept;
        forget();  // otherwise they would be behind
    }
    if (ahead >= 0)
        next = static_cast<std::uint16_t>(sequence + 1);
    return Verdict::pass;
}

/// False when there is no room, which can be only when the caller did not pull.
bool ReorderBuffer::keep(std::uint16_t sequence, std::span<const std::uint8_t> bytes, const ArrivalTime& arrival)
{
    if (waiting.size() > settings.maxPackets || held + bytes.size() > capacity())
        return false;
    if (memory == nullptr) {
        waiting.reserve(settings.maxPackets + 1);
        memory = std::make_unique_for_overwrite<std::uint8_t[]>(capacity());
    }
    if (used + bytes.size() > capacity())
        compact();
    std::copy(bytes.begin(), bytes.end(), memory.get() + used);
    waiting.push_back({sequence, used, bytes.size(), arrival});
    used += bytes.size();
    held += bytes.size();
    ++counters.kept;
    return true;
}

/// Closes the holes that packets have left which went before older ones.
void ReorderBuffer::compact() noexcept
{
    used = 0;
    for (Waiting& packet : waiting) {
        std::memmove(memory.get() + used, memory.get() + packet.offset, packet.size);
        packet.offset = used;
        used += packet.size;
    }
}

std::optional<ReorderBuffer::Packet> ReorderBuffer::pull(std::chrono::steady_clock::time_point now) noexcept
{
    if (waiting.empty())
        return std::nullopt;
    const std::size_t index = nearest();
    if (waiting[index].sequence != next) {
        if (!isGapHopeless(now))
            return std::nullopt;
        ++counters.abandoned;
    }
    return take(index);
}

std::optional<ReorderBuffer::Packet> ReorderBuffer::drain() noexcept
{
    if (waiting.empty())
        return std::nullopt;
    return take(nearest());
}

bool ReorderBuffer::isGapHopeless(std::chrono::steady_clock::time_point now) const noexcept
{
    return waiting.size() > settings.maxPackets || held > settings.maxBytes ||
           now - waiting.front().arrival.monotonic >= settings.maxDelay;
}

/// Which of those that wait comes first.
std::size_t ReorderBuffer::nearest() const noexcept
{
    const auto found =
        std::ranges::min_element(waiting, {}, [this](const Waiting& packet) { return distance(packet.sequence); });
    return static_cast<std::size_t>(found - waiting.begin());
}

ReorderBuffer::Packet ReorderBuffer::take(std::size_t index) noexcept
{
    const Waiting packet = waiting[index];
    waiting.erase(waiting.begin() + static_cast<std::ptrdiff_t>(index));
    next = static_cast<std::uint16_t>(packet.sequence + 1);
    held -= packet.size;
    if (waiting.empty())
        used = 0;
    return {{memory.get() + packet.offset, packet.size}, packet.arrival};
}

void ReorderBuffer::reset() noexcept
{
    started = false;
    forget();
}

void ReorderBuffer::forget() noexcept
{
    waiting.clear();
    used = 0;
    held = 0;
}

bool ReorderBuffer::checkInvariants() const noexcept
{
    std::size_t end = 0;
    std::size_t bytes = 0;
    for (const Waiting& packet : waiting) {
        if (distance(packet.sequence) < 0 || packet.offset < end)
            return false;
        end = packet.offset + packet.size;
        bytes += packet.size;
    }
    return bytes == held && end <= used && used <= capacity() && waiting.size() <= settings.maxPackets + 1;
}
}  // namespace Tavro8::media
