#pragma once

#include <cstddef>

namespace Tavro8::media::testkit
{
/// Calls of operator new, in all its forms, since the program began.
std::size_t allocationCount() noexcept;
}  // namespace Tavro8::media::testkit
