#pragma once

#include <json/value.h>

#include <string>
#include <vector>

// JSON that programs print.
namespace kelvo::test
{

/// Null after adding a failure to the test.
Json::Value parseJson(const std::string& text);

/// Lines of JSON; empty ones are left out, others that are no JSON fail the test.
std::vector<Json::Value> parseJsonLines(const std::string& text);

/// The last one whose member "event" is `name`; null when there is none.
Json::Value lastEvent(const std::vector<Json::Value>& events, const std::string& name);

}  // namespace kelvo::test
