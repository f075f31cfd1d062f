#pragma once

namespace Tavro8::Utility
{
/// Names the calling thread for debuggers and process listings; at most 15 characters are shown everywhere.
void nameThisThread(const char* name) noexcept;
}  // namespace Tavro8::Utility
