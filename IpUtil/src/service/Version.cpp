#include <IpUtil/Version.h>

namespace Tavro8::Utility
{
std::uint32_t loadedIpUtilVersion() noexcept
{
    return ipUtilVersion;
}
}  // namespace Tavro8::Utility
