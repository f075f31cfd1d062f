#include "FuzzTarget.h"

#include <cstdio>
#include <cstdlib>

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

Target::Target(const char* targetName, Feed feedInput) : name(targetName), feed(feedInput)
{
    registry().push_back(this);
}

const std::vector<const Target*>& targets()
{
    return registry();
}
}  // namespace Tavro8::fuzz
