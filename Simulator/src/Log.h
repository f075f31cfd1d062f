#pragma once

#include <string_view>

namespace simulator
{

/// Writes one line with the time of day (UTC) to standard error. Any thread.
void logLine(std::string_view text);

}  // namespace simulator
