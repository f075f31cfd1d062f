#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Tavro8::http
{
/// Bounds of the client, kept per I/O context. Only tests have others than these.
struct HttpLimits {
    std::chrono::milliseconds connectTimeout{5'000};
    std::chrono::milliseconds requestTimeout{15'000};  ///< from the call to its completion, waiting in line included
    std::chrono::milliseconds idleTimeout{3'000};      ///< cameras themselves close after a few seconds
    std::size_t connectionsPerDevice = 4;
    std::uint32_t headerBytes = 64U * 1024U;
    std::size_t bodyBytes = 16U * 1024U * 1024U;
};
}  // namespace Tavro8::http
