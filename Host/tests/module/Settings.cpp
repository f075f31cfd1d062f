#include "Settings.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <utility>

namespace Sample
{
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;
namespace
{
std::string textOf(const boost::any& value)
{
    if (const auto* text = boost::any_cast<std::string>(&value))
        return "text " + *text;
    if (const auto* number = boost::any_cast<int>(&value))
        return "integer " + std::to_string(*number);
    if (const auto* flag = boost::any_cast<bool>(&value))
        return *flag ? "flag true" : "flag false";
    return "something else";
}

std::size_t countOf(const std::vector<std::string>& keys, const ParameterMap& parameters)
{
    const auto given = [&](const std::string& key) { return parameters.contains(key); };
    return static_cast<std::size_t>(std::count_if(keys.begin(), keys.end(), given));
}

template <typename Value>
bool haveType(const std::vector<std::string>& keys, const ParameterMap& parameters)
{
    return std::all_of(keys.begin(), keys.end(), [&](const std::string& key) {
        const auto found = parameters.find(key);
        return found == parameters.end() || boost::any_cast<Value>(&found->second) != nullptr;
    });
}
}  // namespace

Settings::Resources Settings::picture()
{
    return {{"stream", {"fps", "bitRate"}, {"codec", "resolution"}},
            {"exposure", {"minGain", "maxGain"}, {}},
            {"imageEnhance", {"brightness", "contrast"}, {}}};
}

Settings::Resources Settings::pictureOfRecorder()
{
    return {picture().back()};
}

Settings::Resources Settings::sound()
{
    return {{"audioInput", {"volume", "noiseReduce", "micNumber", "micMode"}, {}}};
}

void Settings::log(const std::string& message) const
{
    if (logger != nullptr && Tavro8::wants(logger->GetLevel(), Tavro8::LogSeverity::info))
        logger->Log(Tavro8::LogSeverity::info, "Sample::Settings", "Settings", __LINE__, message.c_str());
}

std::int32_t Settings::resultOf(const Resource& resource, const ParameterMap& parameters) const
{
    if (resource.name == "exposure" && !manners.hasExposure)
        return toResult(ResultCode::resourceNotFound);
    const bool understood =
        haveType<int>(resource.integers, parameters) && haveType<std::string>(resource.texts, parameters);
    return toResult(understood ? ResultCode::success : ResultCode::invalidArgument);
}

void Settings::tell(Tavro8::IContract* source, const std::string& resource, std::int32_t result)
{
    loop.post(this, [this, source, resource, result] { handler->SettingsApplied(source, resource.c_str(), result); });
}

std::int32_t Settings::apply(Tavro8::IContract* source, const ParameterMap& parameters) noexcept
try {
    if (!manners.takesThem)
        return toResult(ResultCode::notSupported);
    for (const auto& [key, value] : parameters)
        log(name + ": " + key + " = " + textOf(value));
    if (handler == nullptr || !manners.answers)
        return toResult(ResultCode::success);
    std::int32_t first = 0;
    std::size_t known = 0;
    for (const Resource& resource : resources) {
        const std::int32_t result = resultOf(resource, parameters);
        const std::size_t given = countOf(resource.integers, parameters) + countOf(resource.texts, parameters);
        known += given;
        if (first == 0 && given > 0)
            first = result;
        if (manners.isComplete || resource.name != "exposure")
            tell(source, resource.name, result);
    }
    if (first == 0 && known < parameters.size())
        first = toResult(ResultCode::notSupported);
    if (manners.isComplete)
        tell(source, "all", first);
    return toResult(ResultCode::success);
} catch (const std::exception&) {
    return toResult(ResultCode::noResources);
}
}  // namespace Sample
