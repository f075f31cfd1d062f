#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelvo::bench
{
std::string lower(std::string_view text);  ///< ASCII letters only

/// The number behind `name` in `text`; names are written in lower case.
std::optional<std::uint16_t> numberAfter(std::string_view text, std::string_view name);

/// The whole HTTP answer of a device that has done what `path` asks for. `data` is JSON.
std::string succeeded(std::string_view path, std::string_view data);

/// The whole HTTP answer to what the module asks a device for when it connects.
std::string managementReply(std::string_view path, std::uint16_t httpPort, std::uint16_t rtspPort);
}  // namespace kelvo::bench
