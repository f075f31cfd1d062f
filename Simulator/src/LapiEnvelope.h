#pragma once

#include "Router.h"

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

namespace simulator
{

/// Writes JSON as the devices do: a tab after each colon, members indented by tabs, array elements on one line.
std::string prettyPrint(const Json::Value& value);

/// JSON on one line, without blanks.
std::string compactPrint(const Json::Value& value);

/// Reads one JSON document; nothing when it is none, or nested too deeply. `errors` gets JsonCpp's words, with lines.
std::optional<Json::Value> parseJson(std::string_view text, std::string* errors = nullptr);

/// The document that answers a LAPI request for `path`. `withData` false leaves "Data" out.
std::string lapiEnvelope(std::string_view path, const Reply& reply, bool withData = true);

}  // namespace simulator
