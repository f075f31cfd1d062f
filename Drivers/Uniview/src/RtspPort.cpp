#include "RtspPort.h"

#include <boost/xpressive/xpressive_static.hpp>

namespace Uniview
{
std::optional<std::string> findRtspPortDigits(std::string_view portReply)
{
    namespace xp = boost::xpressive;
    using Regex = xp::basic_regex<const char*>;
    static const Regex pattern = xp::icase("rtspport\":") >> *(xp::set = ' ', '\t') >> (xp::s1 = +xp::range('0', '9'));

    xp::match_results<const char*> match;
    if (!xp::regex_search(portReply.data(), portReply.data() + portReply.size(), match, pattern))
        return {};
    return match[1].str();
}
}  // namespace Uniview
