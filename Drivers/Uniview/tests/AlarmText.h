#pragma once

#include "Lapi.h"

#include <gtest/gtest.h>
#include <string>
#include <string_view>

namespace kelvo::test
{
/// A JSON text as a subscriber is offered it. Null after adding a failure when it is no JSON.
inline Json::Value alarm(std::string_view text)
{
    Json::Value value;
    std::string error;
    if (!Uniview::lapi::parseJson(text, value, error))
        ADD_FAILURE() << error << ": " << text;
    return value;
}

/// The "AlarmInfo" of a camera, with further members such as "\"AlarmSrcID\":1".
inline Json::Value alarmOf(std::string_view alarmType, std::string_view members = {})
{
    std::string text = "{\"AlarmType\":\"" + std::string(alarmType) + '"';
    if (!members.empty())
        text.append(1, ',').append(members);
    return alarm(text + '}');
}

/// What stands where an "AlarmInfo" should, or a member of it.
inline constexpr const char* oddShapes[] = {
    "null",
    "true",
    "7",
    "-1",
    "0.5",
    "1e308",
    "18446744073709551615",
    "\"\"",
    "\"text\"",
    "\"\xff\xfe\"",
    "\"\\u0000\"",
    "[]",
    "[1,[2]]",
    "{}",
    "{\"AlarmType\":{}}",
    "[{\"AlarmType\":\"MotionAlarmOn\"}]",
};
}  // namespace kelvo::test
