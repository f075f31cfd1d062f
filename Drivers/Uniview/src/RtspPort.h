#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Uniview
{
/// The digits of the RTSP port in a port reply: the first decimal number behind `rtspport":`, in any letter case and
/// with blanks or tabs between the colon and the number, as firmware that pretty-prints its replies sends it.
std::optional<std::string> findRtspPortDigits(std::string_view portReply);
}  // namespace Uniview
