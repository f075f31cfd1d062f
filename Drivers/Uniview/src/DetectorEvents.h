#pragma once

#include <Tavro8/GDRV/IDetector.h>
#include <Tavro8/ParameterMap.h>
#include <cstdint>
#include <json/forwards.h>
#include <optional>
#include <span>
#include <string_view>

namespace Uniview
{
/// Which events of a device make up a detector. A condition has the names of its beginning and its end, something that
/// merely happens has the one name; the others are null.
struct DetectorType {
    const char* detectionType;  ///< as the host asks for it
    const char* begins;
    const char* ends;
    const char* happens;
};

/// All that there are.
std::span<const DetectorType> detectorTypes() noexcept;
/// Null when there is none of that name.
const DetectorType* findDetectorType(std::string_view detectionType) noexcept;

/// What a notification means for one detector.
struct DetectorDecision {
    enum class Kind {
        foreign,        ///< of another detector or another channel
        withoutType,    ///< no "AlarmType", or one that is no text
        withoutSource,  ///< ours but for the channel, which is not to be read
        repeated,       ///< a beginning of what has begun, an end of what has not, or a moment that has been told
        event,          ///< to be told
    };
    Kind kind = Kind::foreign;
    bool timeFound = true;  ///< an event without its time is told with time 0

    // Of an event.
    Tavro8::GDRV::DetectorState state = Tavro8::GDRV::DetectorState::momentary;
    const char* alarmType = "";     ///< of the table, so it lives for ever
    std::int64_t deviceTimeMs = 0;  ///< the device's clock, UTC milliseconds
    Tavro8::ParameterMap fields;    ///< the notification's own
};

/// Decides which notifications are events of one detector, and in which order beginnings and ends are believed: the
/// host hears begin and end in turns. A moment that comes twice, because the device still serves an older subscription
/// of ours or of another host beside the present one, is told once. One thread at a time.
class DetectorEvents {
public:
    /// `channel` counts from 0, sources on the wire count from 1.
    DetectorEvents(const DetectorType& type, std::uint32_t channel) noexcept : type(type), channel(channel) {}

    /// Judges the "AlarmInfo" of a notification, of whatever shape. With `everySource` the device has a single channel,
    /// so that it does not matter how it numbers it.
    DetectorDecision decide(const Json::Value& alarmInfo, bool everySource);

    /// What has begun counts as ended; its end, if it comes, is not told. The last moment is new if it comes again.
    void forget() noexcept
    {
        begun = false;
        lastMoment.reset();
    }

    const DetectorType& getType() const noexcept { return type; }

private:
    /// What tells one moment of a type from the others.
    struct Moment {
        std::uint64_t sequence = 0;
        std::int64_t timeMs = 0;
        std::optional<std::uint32_t> source;
        bool operator==(const Moment&) const = default;
    };

    bool takeTurn(DetectorDecision& decision, std::string_view alarmType) noexcept;
    bool isToldAlready(const Json::Value& alarmInfo, const DetectorDecision& decision);

    const DetectorType& type;  // of the table
    const std::uint32_t channel;
    bool begun = false;
    std::optional<Moment> lastMoment;  // that was told; nothing when it could be any
};
}  // namespace Uniview
