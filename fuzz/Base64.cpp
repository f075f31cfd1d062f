#include "FuzzTarget.h"

#include "wire/Base64.h"

namespace Tavro8::fuzz
{
namespace
{
/// A text of base64 or hexadecimal digits.
///
/// Promises: any bytes survive encoding and decoding; what is decoded from a text is no longer than its digits can
/// say; decoding, encoding and decoding again gives the same bytes.
void feed(ByteView input)
{
    const Bytes bytes(input.begin(), input.end());
    require(wire::decodeBase64(wire::encodeBase64(bytes)) == bytes, "base64 keeps any bytes");
    require(wire::decodeHex(wire::encodeHex(bytes)) == bytes, "hexadecimal digits keep any bytes");

    if (const auto decoded = wire::decodeBase64(textOf(bytes))) {
        require(decoded->size() <= bytes.size() / 4 * 3 + 2, "four characters are three bytes");
        require(wire::decodeBase64(wire::encodeBase64(*decoded)) == decoded, "decoded bytes keep");
    }
    if (const auto decoded = wire::decodeHex(textOf(bytes)))
        require(decoded->size() * 2 == bytes.size(), "two hexadecimal digits are a byte");
}

const Target base64("base64", feed);
}  // namespace
}  // namespace Tavro8::fuzz
