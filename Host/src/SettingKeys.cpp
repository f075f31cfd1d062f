#include "SettingKeys.h"

#include "ExitStatus.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <numeric>
#include <optional>
#include <system_error>

namespace Host
{
namespace
{
constexpr const char* text = "text";
constexpr const char* integer = "integer";
constexpr const char* level = "the camera's scale";
constexpr const char* mode = "the camera's number of the mode";

constexpr SettingKey keys[] = {
    {"codec", "stream", text, "H.264, H.265 or MJPEG", "How pictures are compressed"},
    {"resolution", "stream", text, "WIDTHxHEIGHT in pixels, such as 1920x1080", "Size of the pictures"},
    {"fps", "stream", integer, "pictures a second", "Frame rate; maxFpsForCodec of the model (--model) caps it"},
    {"bitRate", "stream", integer, "the camera's unit, mostly kbit/s", "Data rate, at most or throughout"},
    {"bitrateControl", "stream", text, "CBR (constant) or VBR (variable)", "How the data rate is kept"},
    {"quality", "stream", integer, level, "Quality of the pictures where the data rate varies"},
    {"smoothing", "stream", integer, level, "Rather even packets than clear pictures"},
    {"smartEncodeMode", "stream", integer, mode, "Saving data where nothing moves"},
    {"svcMode", "stream", integer, mode, "Layers that can be left out (scalable coding)"},
    {"keyFrameInterval", "stream", integer, "pictures", "From one key frame to the next"},

    {"captureMode", "captureMode", text, "WIDTHxHEIGHTxFPS, such as 1920x1080x25", "What the sensor delivers"},

    {"exposureMode", "exposure", integer, mode, "What is chosen by the camera: shutter, gain, iris"},
    {"exposureCompensation", "exposure", integer, level, "Brighter or darker than the camera would choose"},
    {"shutterLevel", "exposure", integer, level, "Shutter time"},
    {"minShutterLevel", "exposure", integer, level, "Shortest shutter time"},
    {"maxShutterLevel", "exposure", integer, level, "Longest shutter time"},
    {"slowShutterEnable", "exposure", integer, "0 or 1", "Longer shutter times in the dark", true},
    {"slowShutter", "exposure", integer, level, "Longest shutter time in the dark"},
    {"minGain", "exposure", integer, level, "Least gain"},
    {"maxGain", "exposure", integer, level, "Most gain"},
    {"dayNightMode", "exposure", integer, mode, "Colour by day, black and white by night"},
    {"dayNightSensitivity", "exposure", integer, level, "How soon it changes between the two"},
    {"dayNightSwitch", "exposure", integer, "the camera's unit of time", "How long the light must have changed before"},
    {"wdrMode", "exposure", integer, mode, "Wide dynamic range"},
    {"WDR", "exposure", integer, level, "Strength of the wide dynamic range"},
    {"OpenSensitivity", "exposure", integer, level, "How soon wide dynamic range begins"},
    {"CloseSensitivity", "exposure", integer, level, "How soon wide dynamic range ends"},
    {"AntiFlicker", "exposure", integer, mode, "Against the flicker of lamps", true},
    {"meteringMode", "exposure", integer, mode, "Where the light is measured"},
    {"RefBrightness", "exposure", integer, level, "How bright the measured place is to be"},
    {"HoldTime", "exposure", integer, "the camera's unit of time", "How long the measured exposure is held"},

    {"smartIlluminationEnable", "illumination", integer, "0 or 1", "The camera's own lamps", true},
    {"smartIlluminationMode", "illumination", integer, mode, "What their brightness follows"},
    {"smartIlluminationLevel", "illumination", integer, level, "Brightness of those for near things"},
    {"smartIlluminationFarLevel", "illumination", integer, level, "Brightness of those for far things"},

    {"whiteBalance", "whiteBalance", integer, mode, "How colours are kept neutral"},
    {"redGain", "whiteBalance", integer, level, "More or less red"},
    {"blueGain", "whiteBalance", integer, level, "More or less blue"},

    {"defog", "defog", integer, mode, "Clearer pictures in fog"},
    {"defogLevel", "defog", integer, level, "Strength of defogging"},

    {"LDC", "ldc", integer, "0 or 1", "Straight lines in spite of the lens (distortion correction)"},
    {"ldcLevel", "ldc", integer, level, "Strength of the distortion correction"},

    {"brightness", "imageEnhance", integer, level, "Brightness of the picture"},
    {"contrast", "imageEnhance", integer, level, "Difference between dark and bright"},
    {"saturation", "imageEnhance", integer, level, "Strength of the colours"},
    {"sharpness", "imageEnhance", integer, level, "Sharpness of edges"},
    {"imageMirror", "imageEnhance", integer, mode, "Pictures mirrored or turned"},
    {"noiseReduction2D", "imageEnhance", integer, level, "Against noise within a picture"},
    {"noiseReduction3D", "imageEnhance", integer, level, "Against noise from picture to picture"},

    {"volume", "audioInput", integer, level, "Gain of the microphone"},
    {"noiseReduce", "audioInput", integer, "0 or 1", "Against noise in the sound"},
    {"micNumber", "audioInput", integer, "the camera's number of the microphone", "Microphone that is switched on"},
    {"micMode", "audioInput", integer, mode, "How the microphone is connected; together with micNumber"},
};

/// Parameters of a sound source that choose what it receives: they go to no device.
constexpr const char* encoding = "encoding";
constexpr const char* algorithm = "algorithm";
constexpr const char* sampleRate = "samplerate";
constexpr const char* g711 = "G.711";

std::string lowerCase(std::string_view word)
{
    std::string lower(word);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
    return lower;
}

/// How many letters must be put in, taken away or replaced to make one word of the other.
std::size_t editDistance(std::string_view one, std::string_view other)
{
    std::vector<std::size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 0; i < one.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i + 1;
        for (std::size_t j = 0; j < other.size(); ++j) {
            const std::size_t replaced = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
        }
    }
    return row.back();
}

/// Slips of the pen come before words that are a part of the key, such as "gain".
std::optional<std::size_t> unlikeness(const std::string& word, std::string_view key)
{
    const std::string candidate = lowerCase(key);
    const std::size_t distance = editDistance(word, candidate);
    if (distance <= std::max<std::size_t>(1, word.size() / 3))
        return distance;
    if (word.size() >= 3 && (candidate.find(word) != candidate.npos || word.find(candidate) != word.npos))
        return 100 + distance;
    return std::nullopt;
}

[[noreturn]] void refuse(const std::string& sentence)
{
    throw Failure(ExitStatus::usage, sentence);
}

template <typename Number>
std::optional<Number> numberOf(std::string_view word)
{
    Number number{};
    const auto [stop, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    return error == std::errc{} && stop == word.data() + word.size() ? std::optional(number) : std::nullopt;
}

std::optional<int> positiveOf(std::string_view word)
{
    const auto number = numberOf<int>(word);
    return number && *number > 0 ? number : std::nullopt;
}

std::optional<bool> flagOf(std::string_view word)
{
    if (word == "true")
        return true;
    return word == "false" ? std::optional(false) : std::nullopt;
}

struct Assignment {
    std::string key;
    std::string type;  ///< empty for that of the key
    std::string value;
};

Assignment split(const std::string& assignment)
{
    const std::size_t equals = assignment.find('=');
    if (equals == std::string::npos || equals == 0)
        refuse('"' + assignment + "\" is no KEY=VALUE");
    Assignment parts{assignment.substr(0, equals), {}, assignment.substr(equals + 1)};
    if (const std::size_t colon = parts.key.find(':'); colon != std::string::npos) {
        parts.type = parts.key.substr(colon + 1);
        parts.key.resize(colon);
    }
    return parts;
}

const SettingKey& knownKey(const std::string& name)
{
    if (const SettingKey* key = findSettingKey(name))
        return *key;
    if (name == encoding || name == algorithm || name == sampleRate)
        refuse(name +
               " is no setting of the device: it chooses the sound that is received, with "
               "`kelvo-host live --audio --sound " +
               name + "=...`");
    std::string meant;
    for (const std::string& similar : similarSettingKeys(name))
        meant.append(meant.empty() ? "; did you mean " : " or ").append(similar);
    refuse("there is no setting \"" + name + '"' + (meant.empty() ? "" : meant + '?') + (meant.empty() ? "; " : " ") +
           "`kelvo-host settings list` tells them all");
}

template <typename Value>
boost::any required(const std::optional<Value>& value, const Assignment& assignment, const char* what,
                    bool mayBeText = false)
{
    if (value)
        return *value;
    refuse(assignment.key + " takes " + what + ", not \"" + assignment.value + '"' +
           (mayBeText ? "; " + assignment.key + ":text=" + assignment.value + " sends it as a text" : ""));
}

/// Resources that have such a key, each once.
template <typename Predicate>
std::vector<std::string> resourcesWhere(Predicate&& isWanted)
{
    std::vector<std::string> names;
    for (const SettingKey& key : keys)
        if ((names.empty() || names.back() != key.resource) && isWanted(key))
            names.emplace_back(key.resource);
    return names;
}

boost::any valueOf(const Assignment& assignment, const SettingKey& key)
{
    const std::string type = assignment.type.empty() ? key.type : assignment.type;
    if (assignment.value.empty() && assignment.type.empty())
        refuse(assignment.key + " has no value");
    if (type == text)
        return assignment.value;
    if (type == integer)
        return required(numberOf<int>(assignment.value), assignment, "a whole number of 32 bits",
                        key.alsoText && assignment.type.empty());
    if (type == "flag")
        return required(flagOf(assignment.value), assignment, "true or false");
    if (type == "fraction")
        return required(numberOf<double>(assignment.value), assignment, "a decimal number");
    refuse('"' + type + "\" is no type; write " + assignment.key + ":text, :integer, :flag or :fraction");
}
}  // namespace

std::span<const SettingKey> settingKeys() noexcept
{
    return keys;
}

const SettingKey* findSettingKey(std::string_view name) noexcept
{
    const auto* const found =
        std::find_if(std::begin(keys), std::end(keys), [name](const SettingKey& key) { return name == key.name; });
    return found == std::end(keys) ? nullptr : found;
}

std::vector<std::string> similarSettingKeys(std::string_view name)
{
    constexpr std::size_t most = 3;
    const std::string word = lowerCase(name);
    std::vector<std::pair<std::size_t, std::string>> candidates;
    for (const SettingKey& key : keys)
        if (const auto rank = unlikeness(word, key.name))
            candidates.emplace_back(*rank, key.name);
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const auto& one, const auto& other) { return one.first < other.first; });
    std::vector<std::string> names;
    for (std::size_t i = 0; i < std::min(most, candidates.size()); ++i)
        names.push_back(candidates[i].second);
    return names;
}

std::vector<std::string> WantedSettings::keysOf(std::string_view resource) const
{
    std::vector<std::string> names;
    for (const SettingKey& key : keys)
        if (resource == key.resource && (video.contains(key.name) || audio.contains(key.name)))
            names.emplace_back(key.name);
    return names;
}

std::vector<std::string> WantedSettings::resources() const
{
    return resourcesWhere(
        [this](const SettingKey& key) { return video.contains(key.name) || audio.contains(key.name); });
}

std::vector<std::string> WantedSettings::resourcesOfSources() const
{
    return resourcesWhere([this](const SettingKey& key) { return !(key.isSound() ? audio : video).empty(); });
}

Tavro8::ParameterMap readSoundChoice(const std::vector<std::string>& assignments)
{
    Tavro8::ParameterMap choice;
    for (const std::string& words : assignments) {
        const Assignment assignment = split(words);
        const auto oneOf = [&](const std::string& first, const std::string& second) {
            if (assignment.value != first && assignment.value != second)
                refuse(assignment.key + " takes " + first + " or " + second + ", not \"" + assignment.value +
                       "\"; without it comes what the device offers");
            return assignment.value;
        };
        boost::any value;
        if (assignment.key == encoding)
            value = oneOf(g711, "u-law");
        else if (assignment.key == algorithm)
            value = oneOf("u-law", "A-law");
        else if (assignment.key == sampleRate)
            value = required(positiveOf(assignment.value), assignment, "a whole number of samples a second");
        else
            refuse("there is no choice \"" + assignment.key +
                   "\" of sound; there are encoding, algorithm and samplerate");
        if (!choice.emplace(assignment.key, std::move(value)).second)
            refuse(assignment.key + " is given twice");
    }
    const auto chosen = choice.find(encoding);
    if (choice.contains(algorithm) && (chosen == choice.end() || boost::any_cast<std::string>(chosen->second) != g711))
        refuse("algorithm needs encoding=G.711, whose law it chooses");
    return choice;
}

WantedSettings readSettings(const std::vector<std::string>& assignments)
{
    WantedSettings wanted;
    for (const std::string& words : assignments) {
        const Assignment assignment = split(words);
        const SettingKey& key = knownKey(assignment.key);
        Tavro8::ParameterMap& parameters = key.isSound() ? wanted.audio : wanted.video;
        if (!parameters.emplace(key.name, valueOf(assignment, key)).second)
            refuse(assignment.key + " is given twice");
    }
    if (wanted.audio.contains("micMode") && !wanted.audio.contains("micNumber"))
        refuse("micMode needs micNumber, the microphone that is meant");
    return wanted;
}
}  // namespace Host
