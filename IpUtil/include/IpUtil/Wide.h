#pragma once

#include <IpUtil/Export.h>
#include <string>
#include <string_view>

namespace Tavro8::Utility
{
/// Narrow text (UTF-8) as wide text; bytes that are no UTF-8 become U+FFFD. Knows no locale.
IPUTIL_API std::wstring toWide(std::string_view text);

/// Wide text as UTF-8; what is no character becomes U+FFFD. Knows no locale.
IPUTIL_API std::string toNarrow(std::wstring_view text);
}  // namespace Tavro8::Utility
