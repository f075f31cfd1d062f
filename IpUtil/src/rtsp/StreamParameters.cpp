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

bool applyLossPolicy(RTSPClient& client, const boost::any& value)
{
    const auto text = textOf(value);
    VideoSinkParams params = client.getVideoSinkParams();
    if (text == "flag")
        params.lossHandling = LossHandling::flag;
    else if (text == "drop")
        params.lossHandling = LossHandling::dropUntilKeyFrame;
    else
        return false;
    client.setVideoSinkParams(params);
    return true;
}
}  // namespace

void initializeRTSPClientFromParams(RTSPClient& client, const ParametersContainer& parameters)
{
    constexpr struct {
        const char* key;
        bool (*apply)(RTSPClient&, const boost::any&);
    } settings[] = {
        {"transport", applyTransport},
        {"stallTimeout", applyStallTimeout},
        {"lossPolicy", applyLossPolicy},
    };
    const LoggerHelper logger(client.logger(), sourcePath);
    for (const auto& setting : settings) {
        auto value = parameters.getPersistentParam(setting.key);
        if (!value)
            value = parameters.getDefaultValue(setting.key);
        if (value && !setting.apply(client, *value))
            logger.warning(operation, "the parameter \"", setting.key, "\" has no usable value and is left alone");
    }
}
}  // namespace Tavro8::Utility
