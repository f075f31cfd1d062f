#include "FuzzTarget.h"

#include "AudioSettings.h"
#include "Lapi.h"

#include <optional>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
namespace lapi = Uniview::lapi;
namespace settings = Uniview::settings;

/// Which values are given, the values, then the data of a device's reply.
///
/// Promises: nothing throws; a refusal has a reason; what is refused is not written; every member but those that a
/// value is for stays as it was; putting the values in once more changes nothing; what is written can be read.
void feed(ByteView input)
{
    Script script(input);
    const unsigned given = script.u8();
    const auto value = [&](unsigned bit) {
        return (given >> bit & 1U) != 0 ? std::optional(static_cast<int>(script.u32())) : std::nullopt;
    };
    settings::AudioInputValues values;
    values.volume = value(0);
    values.noiseReduce = value(1);
    values.micNumber = value(2);
    values.micMode = value(3);
    Json::Value before;
    std::string error;
    const Bytes reply = script.remaining();
    if (!lapi::parseJson(textOf(reply), before, error))
        return;

    Json::Value data = before;
    const settings::Edit edit = settings::editAudioInput(data, values);
    require((edit.result != 0) == !edit.message.empty(), "a refusal has a reason");
    require(!edit || edit.result == 0, "what is refused is not written");
    require(!edit || values.any(), "only what a value is for is written");
    if (!edit)
        return;
    for (const std::string& name : before.getMemberNames()) {
        const bool edited = name == "InputGain" || name == "NoiseReduction" || name == "AudioInputList";
        require(edited ? data.isMember(name) : data[name] == before[name], "every other member stays");
    }
    require(data["AudioInputList"].size() == before["AudioInputList"].size(), "microphones neither come nor go");
    Json::Value again = data;
    require(settings::editAudioInput(again, values) && again == data, "what is so already is written as it is");
    const std::string body = lapi::writeJson(data);
    Json::Value read;
    // The greatest number there is would be read as one beyond, when it is rounded to fifteen digits.
    const bool isRead = lapi::parseJson(body, read, error);
    require(isRead || body.find("e+308") != std::string::npos, "what is written can be read");
}

const Target audioInputTarget("audio_input", feed);
}  // namespace
}  // namespace Tavro8::fuzz
