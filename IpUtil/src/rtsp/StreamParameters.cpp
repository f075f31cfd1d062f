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
constexpr const char* operation = "Tavro8::Utility::readStreamParameter";
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

std::optional<RtspTransport> readTransport(const boost::any& value)
{
    const auto text = textOf(value);
    if (text == "tcp")
        return RtspTransport::tcp;
    if (text == "udp")
        return RtspTransport::udp;
    if (text == "auto")
        return RtspTransport::automatic;
    return std::nullopt;
}

std::optional<std::chrono::milliseconds> readStallTimeout(const boost::any& value)
{
    const auto seconds = numberOf(value);
    if (!seconds || !(*seconds >= 0 && *seconds <= longestStallSeconds))
        return std::nullopt;
    return std::chrono::milliseconds(static_cast<std::int64_t>(*seconds * 1000));
}

std::optional<LossHandling> readLossPolicy(const boost::any& value)
{
    const auto text = textOf(value);
    if (text == "flag")
        return LossHandling::flag;
    if (text == "drop")
        return LossHandling::dropUntilKeyFrame;
    return std::nullopt;
}

/// What `read` makes of the value of `key`.
template <typename T>
struct Parameter {
    const char* key;
    std::optional<T> (*read)(const boost::any& value);

    std::optional<T> valueOf(const boost::any& value, const LoggerHelper& logger) const
    {
        const auto usable = read(value);
        if (!usable)
            logger.warning(operation, "the parameter \"", key, "\" has no usable value and is left alone");
        return usable;
    }
    std::optional<T> of(const ParametersContainer& parameters, const LoggerHelper& logger) const
    {
        auto value = parameters.getPersistentParam(key);
        if (!value)
            value = parameters.getDefaultValue(key);
        return value ? valueOf(*value, logger) : std::nullopt;
    }
    void eraseUnusable(ParameterMap& from, const LoggerHelper& logger) const
    {
        const auto found = from.find(key);
        if (found != from.end() && !valueOf(found->second, logger))
            from.erase(found);
    }
};

constexpr Parameter<RtspTransport> transportParameter{"transport", readTransport};
constexpr Parameter<std::chrono::milliseconds> stallTimeoutParameter{"stallTimeout", readStallTimeout};
constexpr Parameter<LossHandling> lossPolicyParameter{"lossPolicy", readLossPolicy};
}  // namespace

void initializeRTSPClientFromParams(RTSPClient& client, const ParametersContainer& parameters)
{
    const LoggerHelper logger(client.logger(), sourcePath);
    if (const auto transport = transportParameter.of(parameters, logger))
        client.setTransport(*transport);
    if (const auto timeout = stallTimeoutParameter.of(parameters, logger))
        client.setStallTimeout(*timeout);
}

bool changesTransport(const ParametersContainer& present, const ParameterMap& changed)
{
    const LoggerHelper silent;
    const auto found = changed.find(transportParameter.key);
    const auto wanted = found == changed.end() ? std::nullopt : transportParameter.read(found->second);
    return wanted && *wanted != transportParameter.of(present, silent).value_or(RtspTransport::tcp);
}

VideoSinkParams readVideoSinkParams(const ParametersContainer& parameters, ILogger* hostLogger)
{
    VideoSinkParams params;
    if (const auto policy = lossPolicyParameter.of(parameters, LoggerHelper(hostLogger, sourcePath)))
        params.lossHandling = *policy;
    return params;
}

void eraseUnusableStreamParameters(ParameterMap& changed, ILogger* hostLogger)
{
    const LoggerHelper logger(hostLogger, sourcePath);
    transportParameter.eraseUnusable(changed, logger);
    stallTimeoutParameter.eraseUnusable(changed, logger);
    lossPolicyParameter.eraseUnusable(changed, logger);
}
}  // namespace Tavro8::Utility
