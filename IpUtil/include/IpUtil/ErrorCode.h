#pragma once

#include <IpUtil/Export.h>
#include <Tavro8/ResultCode.h>
#include <boost/system/error_code.hpp>
#include <cstdint>

namespace Tavro8
{
using boost::system::error_code;

namespace Utility
{
/// The host result of a transport failure. Codes of the host category keep their value; 0 stays 0; any
/// other category is mapped, and what has no number of its own gives `connectionLost`.
IPUTIL_API std::int32_t translateSystemError(const error_code& ec) noexcept;
}  // namespace Utility
}  // namespace Tavro8
