#pragma once

#include <IpUtil/ErrorCode.h>

namespace Tavro8::Utility
{
/// The same failure in the host category, which is the only one that leaves IpUtil: the categories of the socket
/// and TLS libraries exist once per shared library, so that the module could not compare theirs.
error_code toHostError(const error_code& ec) noexcept;
}  // namespace Tavro8::Utility
