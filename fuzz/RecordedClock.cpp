#include "FuzzTarget.h"

#include "media/RecordedClock.h"

#include <memory>

namespace Tavro8::fuzz
{
namespace
{
using media::RecordedClock;

constexpr std::int64_t latestMs = 253'402'300'799'999;  // in the year 9999

/// Positive, as `parseScale` gives it, and beyond.
double scaleOf(std::uint8_t byte)
{
    return byte < 200 ? 0.25 * (byte + 1) : 1e9 * (byte - 199);
}

/// A clock rate, an interval, where it starts, then records: what arrives and what the device says.
///
/// Promises: every time is of the calendar; times run back after a report only, and then not in front of where the
/// clock leapt ahead; a report outside the interval changes nothing; no time, report, speed or clock rate makes a
/// number overflow.
void feed(ByteView input)
{
    Script script(input);
    const std::uint32_t rate = script.u32();
    RecordedClock::Start start;
    start.interval.beginMs = static_cast<std::int64_t>(script.u64());
    start.interval.endMs = static_cast<std::int64_t>(script.u64());
    start.timeMs = static_cast<std::int64_t>(script.u64());
    start.scale = scaleOf(script.u8());
    std::uint32_t timestamp = script.u32();
    if (timestamp % 2 != 0)
        start.rtpTimestamp = timestamp;
    auto clock = std::make_unique<RecordedClock>(rate, start);
    bool reported = false;  // since the last frame
    std::int64_t last = 0;

    while (!script.atEnd()) {
        switch (script.u8() % 10) {
        case 0:
            timestamp += script.u16();
            break;
        case 1:
            timestamp = script.u32();
            break;
        case 2: {
            const auto before = clock->lastMs();
            const std::uint64_t ntp = script.u64();
            const bool believed = clock->onSenderReport({1, ntp, script.u32()});
            require(believed || clock->lastMs() == before, "what is not believed changes nothing");
            reported = reported || believed;
            break;
        }
        case 3: {  // as it should be
            const auto now = static_cast<std::uint64_t>(last / 1000) + 2'208'988'800U + script.u16();
            reported = clock->onSenderReport({1, now << 32, timestamp}) || reported;
            break;
        }
        case 4:
            clock->changeScale(scaleOf(script.u8()));
            break;
        case 5:
            clock->onRestart(timestamp);
            break;
        case 6:
            clock->onFirstPacket(timestamp);
            break;
        case 7: {
            RecordedClock::Continuation said;
            const std::uint8_t choice = script.u8();
            said.scale = scaleOf(choice);
            if (choice % 2 != 0)
                said.rtpTimestamp = script.u32();
            if (choice % 4 > 1)
                said.timeMs = static_cast<std::int64_t>(script.u64());
            clock->resume(said);
            break;
        }
        case 8: {
            RecordedClock::Start corrected = start;
            corrected.timeMs = static_cast<std::int64_t>(script.u64());
            corrected.scale = scaleOf(script.u8());
            clock->correct(corrected);
            break;
        }
        default:
            const std::int64_t stamped = clock->stamp(timestamp - script.u8() * 16U);
            require(stamped >= 0 && stamped <= latestMs, "a time is one of the calendar");
            require(stamped >= last || reported, "time does not run backwards without a report");
            require(clock->lastMs() == stamped, "the last time is known");
            last = stamped;
            reported = false;
            break;
        }
    }
}

const Target recordedClock("recorded_clock", feed);
}  // namespace
}  // namespace Tavro8::fuzz
