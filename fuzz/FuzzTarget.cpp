#include "FuzzTarget.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
std::vector<const Target*>& registry()
{
    static std::vector<const Target*> all;
    return all;
}
}  // namespace

void require(bool holds, const char* promise)
{
    if (holds)
        return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

bool gives(ByteView text, std::string_view secret)
{
    std::string printable;
    for (const std::uint8_t byte : text) {
        if (byte >= 0x20 && byte != 0x7f)
            printable += static_cast<char>(byte);
    }
    return printable.find(secret) != std::string::npos;
}

Target::Target(const char* targetName, Feed feedInput) : name(targetName), feed(feedInput)
{
    registry().push_back(this);
}

const std::vector<const Target*>& targets()
{
    return registry();
}
}  // namespace Tavro8::fuzz
