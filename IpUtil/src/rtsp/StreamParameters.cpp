#include "wire/Text.h"

#include <IpUtil/LoggerHelper.h>
#include <IpUtil/RTSPClient.h>
#include <boost/any.hpp>
#include <optional>
#include <string>

namespace Tavro8::Utility
{
namespace
{
constexpr const char* sourcePath = "IpUtil/src/rtsp/StreamParameters";
constexpr const char* operation = "Tavro8::Utility::initializeRTSPClientFromParams";
constexpr double longestStallSeconds = 3600;

std::optional<std::string> textOf(const boost::any& value)
{
    const auto* text = boost::any_cast<std::string>(&value);
    return text == nullptr ? std::nullopt : std::optional(wire::lowerCase(wire::trim(*text)));
}

/// A number, whichever plain type it was set with.
std::optional<double> numberOf(const boost::any& value)
{
    if (const auto text = textOf(value))
        return wire::parseFraction(*text);
    if (const auto* number = boost::any_cast<int>(&value))
        return *number;
    if (const auto* number = boost::any_cast<unsigned>(&value))
        return *number;
    if (const auto* number = boost::any_cast<double>(&value))
        return *number;
    return std::nullopt;
}

bool applyTransport(RTSPClient& client, const boost::any& value)
{
    const auto text = textOf(value);
    if (text == "tcp")
        client.setTransport(RtspTransport::tcp);
    else if (text == "udp")
        client.setTransport(RtspTransport::udp);
    else if (text == "auto")
        client.setTransport(RtspTransport::automatic);
    else
        return false;
    return true;
}

bool applyStallTimeout(RTSPClient& client, const boost::any& value)
{
    const auto seconds = numberOf(value);
    if (!seconds || !(*seconds >= 0 && *seconds <= longestStallSeconds))
        return false;
    client.setStallTimeout(std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000)));
    return true;
}

bool applyLossPolicy(VideoSinkParams& params, const boost::any& value)
{
    const auto text = textOf(value);
    if (text == "flag")
        params.lossHandling = LossHandling::flag;
    else if (text == "drop")
        params.lossHandling = LossHandling::dropUntilKeyFrame;
    else
        return false;
    return true;
}

/// Hands the value of `key`, if there is one, to `apply`.
template <typename Target>
void applyParameter(const ParametersContainer& parameters, const char* key, Target& target,
                    bool (*apply)(Target&, const boost::any&), const LoggerHelper& logger)
{
    auto value = parameters.getPersistentParam(key);
    if (!value)
        value = parameters.getDefaultValue(key);
    if (value && !apply(target, *value))
        logger.warning(operation, "the parameter \"", key, "\" has no usable value and is left alone");
}
}  // namespace

void initializeRTSPClientFromParams(RTSPClient& client, const ParametersContainer& parameters)
{
    const LoggerHelper logger(client.logger(), sourcePath);
    applyParameter(parameters, "transport", client, applyTransport, logger);
    applyParameter(parameters, "stallTimeout", client, applyStallTimeout, logger);
}

VideoSinkParams readVideoSinkParams(const ParametersContainer& parameters, ILogger* hostLogger)
{
    VideoSinkParams params;
    applyParameter(parameters, "lossPolicy", params, applyLossPolicy, LoggerHelper(hostLogger, sourcePath));
    return params;
}
}  // namespace Tavro8::Utility
