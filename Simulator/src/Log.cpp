#include "Log.h"

#include <chrono>
#include <cstdio>
#include <string>

namespace simulator
{

void logLine(std::string_view text)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count() % 86'400'000;
    char time[32];
    std::snprintf(time, sizeof time, "%02d:%02d:%02d.%03d ", static_cast<int>(ms / 3'600'000),
                  static_cast<int>(ms / 60'000 % 60), static_cast<int>(ms / 1000 % 60), static_cast<int>(ms % 1000));
    // One call, so that lines of different threads do not mix.
    const std::string line = time + std::string(text) + '\n';
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace simulator
