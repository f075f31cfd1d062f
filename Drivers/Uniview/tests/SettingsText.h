#pragma once

#include "Lapi.h"
#include "SettingsEdit.h"

#include <gtest/gtest.h>
#include <string>

namespace Uniview::test
{
inline Json::Value jsonOf(const std::string& text)
{
    Json::Value value;
    std::string error;
    EXPECT_TRUE(lapi::parseJson(text, value, error)) << text << ": " << error;
    return value;
}

/// What a settings function made of data: the body to be written, "-" when nothing is, or the result and the message of
/// a refusal.
template <typename Function>
std::string edited(const std::string& data, Function&& function)
{
    Json::Value value = jsonOf(data);
    const settings::Edit edit = function(value);
    if (edit.result != 0) {
        EXPECT_FALSE(edit) << "what is refused is not written";
        return std::to_string(edit.result) + ' ' + edit.message;
    }
    EXPECT_EQ(edit.message, "");
    return edit ? lapi::writeJson(value) : "-";
}
}  // namespace Uniview::test
