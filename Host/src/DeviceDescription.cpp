#include "DeviceDescription.h"

#include "ExitStatus.h"

#include <algorithm>
#include <fstream>
#include <json/reader.h>
#include <json/value.h>
#include <typeinfo>

namespace Host
{
namespace
{
using Tavro8::ParameterMap;
using Tavro8::TextMap;

constexpr const char* channelsMember = "channels";

ParameterMap generousDefaults()
{
    // Devices of this family know 256 presets, the last of which is the one behind the count, and at most 16 alarm
    // inputs. Speeds are the host's scale; the module only checks them against these limits.
    constexpr int presets = 255;
    constexpr int inputsAndRelays = 16;
    constexpr int fullSpeed = 100;
    return {
        {"presetCount", presets},     {"rayCount", inputsAndRelays}, {"relayCount", inputsAndRelays},
        {"panSpeed", fullSpeed},      {"tiltSpeed", fullSpeed},      {"zoomSpeed", fullSpeed},
        {"focusSpeed", fullSpeed},    {"irisSpeed", fullSpeed},      {"supportsAreaZoom", true},
        {"supportsPointMove", true},  {"supportsDirectMove", true},  {"supportsDirectZoom", true},
        {"supportsPresetTour", true}, {"maxFpsForCodec", TextMap{}},
    };
}

/// The parameters that a model file may hold, each with a value of its type.
const ParameterMap& knownParameters()
{
    static const ParameterMap known = [] {
        ParameterMap all = generousDefaults();
        all["trackLog"] = false;
        all["channelNumbering"] = 1;
        return all;
    }();
    return known;
}

[[noreturn]] void refuse(const std::string& place, const std::string& what)
{
    throw Failure(ExitStatus::usage, place + ": " + what);
}

TextMap textMap(const Json::Value& object, const std::string& place)
{
    TextMap texts;
    for (const std::string& key : object.getMemberNames()) {
        const Json::Value& value = object[key];
        if (value.isObject() || value.isArray() || value.isNull())
            refuse(place, "\"" + key + "\" must be a text or a number");
        texts[key] = value.asString();
    }
    return texts;
}

boost::any parameter(const Json::Value& value, const std::string& place)
{
    if (value.isBool())
        return value.asBool();
    if (value.isInt())
        return static_cast<int>(value.asInt());
    if (value.isString())
        return value.asString();
    if (value.isObject())
        return textMap(value, place);
    if (value.isDouble() && !value.isIntegral())
        return value.asDouble();
    refuse(place, "must be a flag, a text, an object of texts or a number of at most 32 bits");
}

/// Throws `Failure` when a parameter that is known is of another type or below 0.
void checkType(const std::string& key, const boost::any& value, const std::string& place)
{
    const auto known = knownParameters().find(key);
    if (known == knownParameters().end())
        return;
    const auto is = [&](const std::type_info& type) { return known->second.type() == type && value.type() != type; };
    if (is(typeid(int)))
        refuse(place, "must be a whole number");
    if (is(typeid(bool)))
        refuse(place, "must be true or false");
    if (is(typeid(TextMap)))
        refuse(place, "must be an object of texts");
    if (const int* const number = boost::any_cast<int>(&value); number != nullptr && *number < 0)
        refuse(place, "must not be negative");
}

void overlay(ParameterMap& parameters, const Json::Value& object, const std::string& place)
{
    if (!object.isObject())
        refuse(place, "must be a JSON object");
    for (const std::string& key : object.getMemberNames())
        if (key != channelsMember) {
            const std::string where = place + ": \"" + key + "\"";
            parameters[key] = parameter(object[key], where);
            checkType(key, parameters[key], where);
        }
}

void warnOfUnknown(std::vector<std::string>& warnings, const ParameterMap& parameters, const std::string& place)
{
    for (const auto& [key, value] : parameters) {
        std::string warning = place + ": \"" + key + "\" is no parameter that this host knows";
        if (!knownParameters().contains(key) && std::ranges::find(warnings, warning) == warnings.end())
            warnings.push_back(std::move(warning));
    }
}

Json::Value readJson(const std::filesystem::path& file)
{
    const std::string place = "model file " + file.string();
    std::ifstream stream(file);
    if (!stream)
        refuse(place, "cannot be opened");
    Json::Value root;
    std::string errors;
    try {
        if (!Json::parseFromStream(Json::CharReaderBuilder(), stream, &root, &errors))
            refuse(place, "is no JSON: " + errors.substr(0, errors.find_last_not_of('\n') + 1));
    } catch (const Json::Exception& e) {  // nested too deep
        refuse(place, std::string("is no JSON: ") + e.what());
    }
    return root;
}
}  // namespace

DeviceDescription::DeviceDescription(std::uint32_t videoChannelCount) : channels(videoChannelCount, generousDefaults())
{}

void DeviceDescription::readModel(const std::filesystem::path& file)
{
    const Json::Value root = readJson(file);
    const std::string place = "model file " + file.string();
    overlay(modelParameters, root, place);
    for (ParameterMap& parameters : channels)
        overlay(parameters, root, place);
    warnOfUnknown(warnings, modelParameters, place);

    const Json::Value& perChannel = root[channelsMember];
    if (!perChannel.isNull() && !perChannel.isArray())
        refuse(place, "\"channels\" must be an array of objects");
    for (Json::ArrayIndex index = 0; index < perChannel.size(); ++index) {
        const std::string where = place + ": channel " + std::to_string(index);
        ParameterMap entry;  // those beyond the configured channels are checked all the same
        overlay(entry, perChannel[index], where);
        warnOfUnknown(warnings, entry, where);
        if (index < channels.size()) {
            for (auto& [key, value] : entry)
                channels[index][key] = std::move(value);
        }
    }
}

void DeviceDescription::setProperty(std::string_view assignment)
{
    const std::size_t equals = assignment.find('=');
    if (equals == std::string_view::npos || equals == 0)
        throw Failure(ExitStatus::usage, "--set takes KEY=VALUE, not \"" + std::string(assignment) + "\"");
    properties[std::string(assignment.substr(0, equals))] = std::string(assignment.substr(equals + 1));
}

void* DeviceDescription::FindContract(const char* contract) noexcept
{
    return Tavro8::findContractIn<Tavro8::GDRV::IDeviceDescription, Tavro8::IContract>(this, contract);
}

std::uint32_t DeviceDescription::GetVideoChannelCount() const noexcept
{
    return static_cast<std::uint32_t>(channels.size());
}

const ParameterMap& DeviceDescription::GetChannelModelParameters(std::uint32_t channel) const noexcept
{
    static const ParameterMap none;
    return channel < channels.size() ? channels[channel] : none;
}
}  // namespace Host
