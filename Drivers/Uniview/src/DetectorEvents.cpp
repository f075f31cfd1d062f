#include "DetectorEvents.h"

#include "AlarmInfo.h"
#include "EventNames.h"

#include <algorithm>
#include <initializer_list>
#include <json/value.h>
#include <utility>

namespace Uniview
{
namespace
{
using Tavro8::GDRV::DetectorState;
using Kind = DetectorDecision::Kind;

constexpr DetectorType condition(const char* detectionType, const char* begins, const char* ends) noexcept
{
    return {detectionType, begins, ends, nullptr};
}

constexpr DetectorType moment(const char* detectionType, const char* happens) noexcept
{
    return {detectionType, nullptr, nullptr, happens};
}

constexpr DetectorType table[] = {
    condition("motion", events::motionAlarmOn, events::motionAlarmOff),
    condition("motionTCP", events::motionAlarmOn, events::motionAlarmOff),
    condition("audioDetectType", events::abnormalAudioOn, events::abnormalAudioOff),
    condition("smartAudioDetectType", events::abnormalAudioOn, events::abnormalAudioOff),
    condition("temperatureDetectType", events::temperatureDetectionAlarm, events::thermalTemperatureDetectOff),
    moment("crossLineDetectType", events::lineDetectorCrossed),
    moment("enterAreaDetectType", events::enterArea),
    moment("leaveAreaDetectType", events::leaveArea),
    moment("intrusionDetectType", events::fieldDetectorObjectsInside),
};

/// The number of the source, under the name of either firmware.
const Json::Value* findSource(const Json::Value& alarmInfo)
{
    const Json::Value* const source = events::findMember(alarmInfo, events::sourceId);
    return source != nullptr ? source : events::findMember(alarmInfo, events::alarmSrcId);
}
}  // namespace

std::span<const DetectorType> detectorTypes() noexcept
{
    return table;
}

const DetectorType* findDetectorType(std::string_view detectionType) noexcept
{
    const auto* const found = std::ranges::find_if(
        table, [detectionType](const DetectorType& type) { return detectionType == type.detectionType; });
    return found == std::end(table) ? nullptr : found;
}

DetectorDecision DetectorEvents::decide(const Json::Value& alarmInfo, bool everySource)
{
    DetectorDecision decision;
    const auto alarmType = events::readText(events::findMember(alarmInfo, events::alarmType));
    if (!alarmType) {
        decision.kind = Kind::withoutType;
        return decision;
    }
    const auto isOurs = [&](const char* name) { return name != nullptr && *alarmType == name; };
    if (!isOurs(type.begins) && !isOurs(type.ends) && !isOurs(type.happens))
        return decision;
    if (!everySource) {
        const auto source = events::readNumber(findSource(alarmInfo));
        if (!source) {
            decision.kind = Kind::withoutSource;
            return decision;
        }
        if (*source != std::uint64_t{channel} + 1)
            return decision;
    }
    const auto time = events::readTimeMs(events::findMember(alarmInfo, events::timeStamp));
    decision.timeFound = time.has_value();
    decision.deviceTimeMs = time.value_or(0);
    if (!takeTurn(decision, *alarmType) || isToldAlready(alarmInfo, decision)) {
        decision.kind = Kind::repeated;
        return decision;
    }
    decision.kind = Kind::event;
    decision.fields = events::readFields(alarmInfo);
    return decision;
}

/// Begin and end come in turns; what comes out of turn is not told.
bool DetectorEvents::takeTurn(DetectorDecision& decision, std::string_view alarmType) noexcept
{
    if (type.happens != nullptr) {
        decision.state = DetectorState::momentary;
        decision.alarmType = type.happens;
        return true;
    }
    const bool begins = alarmType == type.begins;
    if (begins == begun)
        return false;
    begun = begins;
    decision.state = begins ? DetectorState::begin : DetectorState::end;
    decision.alarmType = begins ? type.begins : type.ends;
    return true;
}

/// Whether it is the moment that was told last, come once more. Without a sequence number or a time none is like
/// another: better one too many than one too few.
bool DetectorEvents::isToldAlready(const Json::Value& alarmInfo, const DetectorDecision& decision)
{
    if (type.happens == nullptr)
        return false;
    const Json::Value* const sequence = events::findMember(alarmInfo, events::alarmSeq);
    std::optional<Moment> moment;
    if (sequence != nullptr && sequence->isUInt64() && decision.timeFound)
        moment = {sequence->asUInt64(), decision.deviceTimeMs, events::readNumber(findSource(alarmInfo))};
    if (moment && moment == lastMoment)
        return true;
    lastMoment = moment;
    return false;
}
}  // namespace Uniview
