#include "Notification.h"

#include "EventNames.h"
#include "Lapi.h"

#include <boost/utility/string_view.hpp>
#include <string>

namespace Uniview::notification
{
namespace
{
constexpr const char* receiving = "Uniview::EventListener::processData";

/// Skips the HTTP head that way. Boost's view, because the text of its exception is part of what the log says.
std::string_view jsonText(std::string_view chunk)
{
    const boost::string_view bytes(chunk.data(), chunk.size());
    const boost::string_view json = bytes.substr(bytes.find('{'));
    return {json.data(), json.size()};
}
}  // namespace

Json::Value readAlarmInfo(std::string_view chunk, const Tavro8::LoggerHelper& logger)
{
    Json::Value document;
    std::string reason;
    if (!lapi::parseJson(jsonText(chunk), document, reason)) {
        logger.error(receiving, "Can't parse data: ", reason);
        return {};
    }
    Json::Value alarmInfo;
    alarmInfo.swap(document[events::alarmInfo]);  // what begins with '{' is an object
    if (alarmInfo.isNull())
        logger.error(receiving, "AlarmInfo is not found in notification.");
    return alarmInfo;
}
}  // namespace Uniview::notification
