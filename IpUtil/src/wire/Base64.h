#pragma once

#include "wire/Bytes.h"

#include <optional>
#include <string>
#include <string_view>

namespace Tavro8::wire
{
/// RFC 4648 section 4, with padding.
std::string encodeBase64(ByteView bytes);

/// Accepts missing padding, since some devices leave it out of SDP attributes. Nothing for any character
/// outside the alphabet or a length that cannot be.
std::optional<Bytes> decodeBase64(std::string_view text);

/// Pairs of hexadecimal digits of either case. Nothing for an odd length or any other character.
std::optional<Bytes> decodeHex(std::string_view text);

/// Two lower-case digits a byte.
std::string encodeHex(ByteView bytes);
}  // namespace Tavro8::wire
