#include "FuzzTarget.h"

#include "DetectorEvents.h"
#include "InputEvents.h"
#include "Lapi.h"

#include <IpUtil/Wide.h>
#include <algorithm>
#include <string>
#include <vector>

namespace Tavro8::fuzz
{
namespace
{
using GDRV::DetectorState;
using Uniview::DetectorDecision;
using Uniview::DetectorEvents;
using Uniview::InputDecision;
using Uniview::InputState;

void requireUtf8(const std::string& text)
{
    require(Utility::toNarrow(Utility::toWide(text)) == text, "texts for the host are UTF-8");
}

void checkFields(const ParameterMap& fields)
{
    for (const auto& [name, value] : fields) {
        requireUtf8(name);
        if (const auto* const text = boost::any_cast<std::string>(&value))
            requireUtf8(*text);
        else
            require(value.type() == typeid(int) || value.type() == typeid(bool) || value.type() == typeid(double),
                    "fields are texts, integers, flags and fractions");
    }
}

/// One detector, and what its host has heard.
class Detector {
public:
    Detector(const Uniview::DetectorType& type, std::uint32_t channel, bool everySource)
        : events(type, channel), everySource(everySource)
    {}

    DetectorDecision::Kind take(const Json::Value& info)
    {
        const DetectorDecision decision = events.decide(info, everySource);
        if (decision.kind != DetectorDecision::Kind::event)
            return decision.kind;
        const bool hasEnd = events.getType().happens == nullptr;
        require((decision.state == DetectorState::momentary) != hasEnd, "what has no end is momentary");
        require(!hasEnd || (decision.state == DetectorState::begin) != begun, "begin and end come in turns");
        begun = decision.state == DetectorState::begin;
        require(decision.deviceTimeMs >= 0 && decision.deviceTimeMs <= 253'402'300'799'999, "times are of this age");
        require(decision.timeFound || decision.deviceTimeMs == 0, "no time is 0");
        require(info["AlarmType"].asString() == decision.alarmType, "an event has the device's name for it");
        checkFields(decision.fields);
        return decision.kind;
    }

private:
    DetectorEvents events;
    const bool everySource;
    bool begun = false;
};

/// What a detector makes of a notification, and what one makes of it that takes every source.
void checkChannel(DetectorDecision::Kind ofChannel, DetectorDecision::Kind ofAny)
{
    using Kind = DetectorDecision::Kind;
    const auto isTaken = [](Kind kind) { return kind == Kind::event || kind == Kind::repeated; };
    require(!isTaken(ofChannel) || isTaken(ofAny), "the number of the source decides on the channel alone");
    require((ofChannel == Kind::withoutType) == (ofAny == Kind::withoutType), "a missing type is missing for all");
    require(ofAny != Kind::withoutSource, "who takes every source needs none");
}

class Inputs {
public:
    explicit Inputs(std::size_t count) : states(count, InputState::unknown) {}

    void take(const Json::Value& info)
    {
        const auto before = states;
        const InputDecision decision = decideInput(info, states);
        require((decision.kind == InputDecision::Kind::changed) == (states != before),
                "a state is told when it is new, and then it is kept");
        require(decision.isTaken() == (decision.input < states.size() && isOfInputs(decision)),
                "the events of our inputs are taken");
        if (decision.isTaken())
            require(states[decision.input] == (decision.state ? InputState::on : InputState::off),
                    "what is told is what is kept");
    }

private:
    static bool isOfInputs(const InputDecision& decision)
    {
        return decision.kind != InputDecision::Kind::foreign && decision.kind != InputDecision::Kind::malformed;
    }

    std::vector<InputState> states;
};

/// One byte: how many inputs and which channel. Then JSON texts with a zero byte between them, each offered as the
/// "AlarmInfo" of a notification to the inputs and to two detectors of each type, one of which takes every source.
///
/// Promises: nothing throws; begin and end come in turns; inputs report what is new; the source decides on the channel
/// and on nothing else; what the host gets is UTF-8 and of the four types.
void feed(ByteView input)
{
    Script script(input);
    const std::uint8_t shape = script.u8();
    Inputs inputs(shape & 7U);
    std::vector<Detector> ours;
    std::vector<Detector> every;
    for (const auto& type : Uniview::detectorTypes()) {
        ours.emplace_back(type, shape >> 3U, false);
        every.emplace_back(type, shape >> 3U, true);
    }
    const Bytes bytes = script.remaining();
    for (auto text = bytes.begin(); text != bytes.end();) {
        const auto end = std::find(text, bytes.end(), std::uint8_t{0});
        Json::Value info;
        std::string error;
        if (Uniview::lapi::parseJson(std::string(text, end), info, error)) {
            inputs.take(info);
            for (std::size_t i = 0; i < ours.size(); ++i)
                checkChannel(ours[i].take(info), every[i].take(info));
        }
        text = end == bytes.end() ? end : end + 1;
    }
}

const Target alarmInfo("alarm_info", feed);
}  // namespace
}  // namespace Tavro8::fuzz
