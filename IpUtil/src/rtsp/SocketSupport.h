#pragma once

#include <IpUtil/ErrorCode.h>

namespace Tavro8::Utility
{
/// A stream that sends faster than it is read lets others have their turn after so many reads.
inline constexpr unsigned maxReadsPerTurn = 4;

/// The error of a socket as hosts know it.
inline error_code hostError(const error_code& ec)
{
    return {translateSystemError(ec), get_tavro8_category()};
}
}  // namespace Tavro8::Utility
