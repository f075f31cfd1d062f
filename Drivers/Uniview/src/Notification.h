#pragma once

#include <IpUtil/LoggerHelper.h>
#include <algorithm>
#include <json/value.h>
#include <string_view>

/// What a device's notification says: one HTTP request whose body is one JSON object with the event in "AlarmInfo".
namespace Uniview::notification
{
/// The "AlarmInfo" of the JSON text that begins at the first '{' of `chunk`, of whatever shape it is; null, with the
/// reason in the log, when the text cannot be read or has none. Raises `std::out_of_range` when there is no '{', and
/// nothing else for any bytes.
Json::Value readAlarmInfo(std::string_view chunk, const Tavro8::LoggerHelper& logger);

/// Offers the event of a notification to one after the other until one claims it. `subscribers` is a sequence of
/// pointers to whatever has `handleTriggerInfo`. Raises what `readAlarmInfo` and the subscribers raise.
template <typename Subscribers>
void deliver(std::string_view chunk, const Subscribers& subscribers, const Tavro8::LoggerHelper& logger)
{
    const Json::Value alarmInfo = readAlarmInfo(chunk, logger);
    if (alarmInfo.isNull())
        return;
    std::ranges::any_of(subscribers, [&](const auto& each) { return each->handleTriggerInfo(alarmInfo); });
}
}  // namespace Uniview::notification
