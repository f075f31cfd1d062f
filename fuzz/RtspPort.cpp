#include "FuzzTarget.h"

#include "RtspPort.h"

#include "wire/Text.h"

#include <algorithm>
#include <optional>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
/// The same by plain searching.
std::optional<std::string> expectedDigits(std::string_view text)
{
    constexpr std::string_view mark = "rtspport\":";
    for (std::size_t at = wire::findNoCase(text, mark); at != std::string_view::npos;
         at = wire::findNoCase(text, mark, at + 1)) {
        std::string_view rest = text.substr(at + mark.size());
        rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
        const std::string_view digits = rest.substr(0, rest.find_first_not_of("0123456789"));
        if (!digits.empty())
            return std::string(digits);
    }
    return {};
}

/// The body of a reply that names the ports of a device.
///
/// Promises: the digits found are those that plain searching finds, and no length of blanks or digits exhausts the
/// stack.
void feed(ByteView input)
{
    const Bytes bytes(input.begin(), input.end());
    const auto digits = Uniview::findRtspPortDigits(textOf(bytes));
    require(digits == expectedDigits(textOf(bytes)), "the digits are those behind the first mark with a number");
}

const Target rtspPort("rtsp_port", feed);
}  // namespace
}  // namespace Tavro8::fuzz
