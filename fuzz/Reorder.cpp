#include "FuzzTarget.h"

#include "media/ReorderBuffer.h"

#include <algorithm>
#include <map>
#include <optional>

namespace Tavro8::fuzz
{
namespace
{
using media::ReorderBuffer;
using std::chrono::milliseconds;

/// Feeds the buffer and keeps a book of its own of what waits.
class Checker {
public:
    explicit Checker(const ReorderBuffer::Settings& chosen) : settings(chosen), buffer(chosen) {}

    void push(std::uint16_t sequence, const Bytes& bytes)
    {
        const bool known = waiting.contains(sequence);
        switch (buffer.push(sequence, bytes, now)) {
        case ReorderBuffer::Verdict::pass:
            onPass(sequence);
            break;
        case ReorderBuffer::Verdict::kept:
            require(!known, "a packet waits once");
            waiting[sequence] = {bytes, now.monotonic};
            break;
        case ReorderBuffer::Verdict::duplicate:
            require(known, "only what waits already is a duplicate");
            break;
        }
        checkState();
        pull();
    }

    void pull()
    {
        while (const auto packet = buffer.pull(now.monotonic))
            take(*packet);
        checkState();
        require(buffer.size() <= settings.maxPackets, "what waits is bounded in packets");
        std::size_t bytes = 0;
        for (const auto& [sequence, kept] : waiting) {
            bytes += kept.bytes.size();
            require(now.monotonic - kept.arrival < settings.maxDelay, "what waits is bounded in time");
        }
        require(bytes <= settings.maxBytes, "what waits is bounded in bytes");
    }

    void drain()
    {
        while (const auto packet = buffer.drain())
            take(*packet);
        require(waiting.empty(), "draining leaves nothing");
        checkState();
    }

    void reset()
    {
        buffer.reset();
        waiting.clear();
        last.reset();
        checkState();
    }

    media::ArrivalTime now;

private:
    struct Kept {
        Bytes bytes;
        std::chrono::steady_clock::time_point arrival;
    };

    void onPass(std::uint16_t sequence)
    {
        const bool late = last && ahead(sequence, *last) <= 0;
        if (late)
            return;
        require(std::ranges::none_of(waiting, [&](const auto& kept) { return ahead(kept.first, sequence) <= 0; }),
                "nothing that waits is overtaken");
        last = sequence;
    }

    void take(const ReorderBuffer::Packet& packet)
    {
        const auto found = std::ranges::min_element(
            waiting, {}, [&](const auto& kept) { return last ? ahead(kept.first, *last) : 0; });
        require(found != waiting.end(), "nothing comes out that did not wait");
        require(!last || ahead(found->first, *last) > 0, "packets come out in order");
        require(std::ranges::equal(found->second.bytes, packet.bytes),
                "packets come out as they came, the nearest first");
        last = found->first;
        waiting.erase(found);
    }

    void checkState() const
    {
        require(buffer.checkInvariants(), "the buffer is in order");
        require(buffer.size() == waiting.size(), "nothing that waits is lost");
    }

    static std::int16_t ahead(std::uint16_t sequence, std::uint16_t of)
    {
        return static_cast<std::int16_t>(static_cast<std::uint16_t>(sequence - of));
    }

    ReorderBuffer::Settings settings;
    ReorderBuffer buffer;
    std::map<std::uint16_t, Kept> waiting;
    std::optional<std::uint16_t> last;  // followed
};

/// Small bounds, then records: a packet with the distance of its sequence number to the last one, time that passes,
/// a tick, a drain or a new sequence.
///
/// Promises: what waits is bounded in packets, bytes and time; packets come out once, in order and as they came;
/// nothing that waits is overtaken or lost.
void feed(ByteView input)
{
    Script script(input);
    ReorderBuffer::Settings settings;
    settings.maxPackets = script.u8() % 16U;
    settings.maxBytes = script.u16();
    settings.maxDelay = milliseconds(script.u8());
    Checker checker(settings);
    std::uint16_t sequence = 65'530;
    while (!script.atEnd()) {
        const unsigned op = script.u8();
        switch (op % 8) {
        case 0:
            checker.now.monotonic += milliseconds(script.u8());
            break;
        case 1:
            checker.pull();
            break;
        case 2:
            if ((op & 0x80U) != 0)
                checker.drain();
            else if ((op & 0x40U) != 0)
                checker.reset();
            break;
        default:
            sequence = static_cast<std::uint16_t>(sequence + static_cast<std::int8_t>(script.u8()));
            checker.push(sequence, script.bytes(op % 8 == 3 ? script.u16() : script.u8()));
            break;
        }
    }
    checker.drain();
}

const Target reorder("reorder", feed);
}  // namespace
}  // namespace Tavro8::fuzz
