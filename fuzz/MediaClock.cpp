#include "FuzzTarget.h"

#include "media/MediaClock.h"

#include <memory>

namespace Tavro8::fuzz
{
namespace
{
using media::MediaClock;
using std::chrono::microseconds;

/// A clock rate, then records: what arrives, when, and what the sender says of its own clock.
///
/// Promises: times never run backwards, not across resets and connections either; no time, report or clock rate makes a
/// number overflow.
void feed(ByteView input)
{
    Script script(input);
    const std::uint32_t rate = script.u32();
    auto clock = std::make_unique<MediaClock>(rate);
    media::ArrivalTime now;
    now.utc = std::chrono::system_clock::time_point(std::chrono::hours(450'000));
    now.monotonic = std::chrono::steady_clock::time_point(std::chrono::hours(1));
    std::uint32_t timestamp = script.u32();
    std::int64_t last = 0;

    while (!script.atEnd()) {
        switch (script.u8() % 8) {
        case 0:
            timestamp += script.u16();
            break;
        case 1:
            timestamp = script.u32();
            break;
        case 2: {
            const microseconds passed(script.u32());
            now.monotonic += passed;
            now.utc += passed;
            break;
        }
        case 3:  // our own clock is set: to any time of the 21st century
            now.utc = std::chrono::system_clock::time_point(
                std::chrono::seconds(946'684'800 + script.u32() % 3'000'000'000U));
            break;
        case 4: {
            const std::uint64_t ntp = script.u64();
            clock->onSenderReport({1, ntp, script.u32()});
            break;
        }
        case 5:
            clock->reset();
            break;
        case 6: {
            const MediaClock::Carry carry = clock->carry();
            clock = std::make_unique<MediaClock>(rate);
            clock->resume(carry);
            require(clock->carry().floorMs == carry.floorMs, "the next connection's clock knows the last time");
            break;
        }
        default:
            clock->onPacket(timestamp, now);
            const std::int64_t stamped = clock->stamp(timestamp - script.u8() * 16U);
            require(stamped >= last, "time does not run backwards");
            last = stamped;
            break;
        }
    }
    require(clock->ticksToMs(0) == 0, "no ticks are no time");
}

const Target mediaClock("media_clock", feed);
}  // namespace
}  // namespace Tavro8::fuzz
