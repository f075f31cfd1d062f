#pragma once

#include <IpUtil/Export.h>
#include <Tavro8/SdkVersion.h>
#include <cstdint>

namespace Tavro8::Utility
{
/// Version of the headers that a driver was compiled against; numbered like the SDK's.
inline constexpr std::uint32_t ipUtilVersion = makeSdkVersion(1, 0);

/// Version of the library that was loaded. A driver compares both when it starts: templates and inline code
/// of the headers work only with the library they belong to.
IPUTIL_API std::uint32_t loadedIpUtilVersion() noexcept;
}  // namespace Tavro8::Utility
