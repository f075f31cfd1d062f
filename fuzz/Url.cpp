#include "FuzzTarget.h"

#include "wire/Text.h"
#include "wire/Url.h"

#include <algorithm>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
using wire::Url;

bool same(const Url& a, const Url& b)
{
    return a.scheme == b.scheme && a.user == b.user && a.password == b.password && a.hasUser == b.hasUser &&
           a.host == b.host && a.port == b.port && a.target == b.target;
}

void checkUrl(const Url& url)
{
    require(wire::defaultPort(url.scheme) != 0, "the scheme is one that is known");
    require(!url.host.empty(), "there is a host");
    require(url.effectivePort() != 0, "there is a port");
    require(url.host.find_first_of("/?#@[] \t\r\n") == std::string::npos, "the host is a name or an address");
    require(url.target.empty() || url.target[0] == '/' || url.target[0] == '?', "the target begins as one");

    const wire::UrlResult full = wire::parseUrl(wire::formatWithCredentials(url));
    // Percent signs make user and password longer than they came.
    require(full.error == wire::UrlError::tooLong || (full && same(full.url, url)), "an address survives writing");
    const wire::UrlResult bare = wire::parseUrl(wire::formatWithoutCredentials(url));
    require(bare && !bare.url.hasUser, "an address to be shown has no user");
    require(bare.url.host == url.host && bare.url.target == url.target, "only the user is left out");
}

/// The text of an address, as a user, a Content-Base or a track's control names it.
///
/// Promises: an address that is taken survives being written and read; what is shown holds no user and password;
/// percent encodings are undone by decoding; what goes into a request line has no blanks.
void feed(ByteView input)
{
    const Bytes bytes(input.begin(), input.end());
    const std::string_view text = textOf(bytes);
    for (const char* scheme : {"http", "rtsp"}) {
        const wire::UrlResult result = wire::parseUrl(text, scheme);
        require(wire::describe(result.error) != nullptr, "each outcome has a sentence");
        if (result)
            checkUrl(result.url);
        else
            require(same(result.url, Url{}), "a refused address leaves nothing");
    }

    const std::string shown = wire::urlWithoutCredentials(text);
    require(shown.size() <= text.size(), "hiding the user adds nothing");
    if (const wire::UrlResult result = wire::parseUrl(shown))
        require(!result.url.hasUser, "a shown address has no user");

    require(wire::percentDecode(wire::percentEncode(text)) == text, "encoded text is decoded");
    require(wire::percentDecode(text).size() <= text.size(), "decoding makes nothing longer");
    const std::string safe = wire::percentSafe(text);
    require(std::ranges::none_of(
                safe, [](char c) { return c == ' ' || wire::isControl(c) || static_cast<unsigned char>(c) > 126; }),
            "text for a request line is printable");
    require(wire::percentSafe(safe) == safe, "safe text stays");
}

const Target url("url", feed);
}  // namespace
}  // namespace Tavro8::fuzz
