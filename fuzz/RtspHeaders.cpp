#include "FuzzTarget.h"

#include "wire/RtspMessage.h"
#include "wire/Text.h"

#include <algorithm>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
using wire::TransportHeader;

bool same(const TransportHeader& a, const TransportHeader& b)
{
    return a.profile == b.profile && a.tcp == b.tcp && a.multicast == b.multicast && a.interleaved == b.interleaved &&
           a.clientPort == b.clientPort && a.serverPort == b.serverPort && a.port == b.port && a.ssrc == b.ssrc &&
           a.ttl == b.ttl;
}

void checkTransport(std::string_view text)
{
    const auto transport = wire::parseTransport(text);
    if (!transport)
        return;
    const std::string written = wire::write(*transport);
    const auto again = wire::parseTransport(written);
    require(again.has_value(), "a written transport can be read");
    require(same(*again, *transport), "a written transport is the same");
    // Texts may hold what ends a parameter; once written and read they stay.
    require(wire::write(*again) == written ||
                wire::write(*wire::parseTransport(wire::write(*again))) == wire::write(*again),
            "a written transport stays");
}

/// One header a line: what its first letter says, then its value.
///
/// Promises: a transport survives being written; a session has an identifier and a positive timeout; entries of
/// RTP-Info and methods are bounded by the text that names them.
void feed(ByteView input)
{
    const Bytes bytes(input.begin(), input.end());
    std::string_view lines = textOf(bytes);
    wire::HeaderList headers;
    std::size_t textBytes = 0;
    while (!lines.empty() && headers.size() < wire::HeaderList{}.size() + 64) {
        const std::string_view line = wire::cutAt(lines, '\n');
        if (line.empty())
            continue;
        const std::string_view value = line.substr(1);
        switch (line[0]) {
        case 'T':
            checkTransport(value);
            break;
        case 'S':
            if (const auto session = wire::parseSession(value)) {
                require(!session->id.empty(), "a session has an identifier");
                require(session->timeout.count() > 0, "a session lasts for a while");
            }
            break;
        case 'R':
            require(wire::parseRtpInfo(value).size() <= value.size() + 1, "each entry takes a character");
            break;
        case 'P':
            headers.add("Public", value);
            textBytes += value.size();
            break;
        case 'A':
            headers.add("allow", value);
            break;
        default:
            headers.add("CSeq", value);
            break;
        }
    }
    const wire::MethodList methods(headers);
    require(methods.empty() || textBytes > 0 || headers.contains("Allow"), "methods come from a header");
    if (const auto number = wire::cseqOf(headers))
        require(wire::parseNumber<std::uint32_t>(wire::trim(headers.get("CSeq"))) == number, "a number is the text's");
}

const Target rtspHeaders("rtsp_headers", feed);
}  // namespace
}  // namespace Tavro8::fuzz
