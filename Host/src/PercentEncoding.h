#pragma once

#include <string>
#include <string_view>

namespace Host
{
/// `plain` as it may stand in any part of an address: letters, digits and -._~ stay, everything else becomes %XX.
std::string percentEncode(std::string_view plain);

/// The other way round; a '%' that is not followed by two hexadecimal digits stands for itself.
std::string percentDecode(std::string_view encoded);
}  // namespace Host
