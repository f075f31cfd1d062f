// Stands for what the RTSP layer and its neighbours use of the HTTP layer, which would bring far more along.
#include <IpUtil/ErrorCode.h>
#include <IpUtil/Http.h>
#include <Tavro8/ResultCode.h>

namespace Tavro8
{
namespace http
{
struct CancellationSource::State {};

CancellationSource::CancellationSource() = default;
void CancellationSource::cancel() noexcept {}
bool CancellationSource::isCancelled() const noexcept
{
    return false;
}
void CancellationSource::reset() noexcept {}
}  // namespace http

std::int32_t Utility::translateSystemError(const error_code& ec) noexcept
{
    if (!ec || ec.category() == get_tavro8_category())
        return ec.value();
    return toResult(ec == boost::system::errc::connection_refused ? ResultCode::deviceUnreachable
                                                                  : ResultCode::connectionLost);
}
}  // namespace Tavro8
