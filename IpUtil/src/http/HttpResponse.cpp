#include "wire/Text.h"

#include <IpUtil/Http.h>
#include <algorithm>

namespace Tavro8::http
{
void HttpHeaders::set(std::string_view name, std::string_view value)
{
    std::erase_if(fields, [&](const auto& field) { return wire::equalsNoCase(field.first, name); });
    fields.emplace_back(name, value);
}

const std::string* HttpHeaders::find(std::string_view name) const noexcept
{
    const auto at =
        std::find_if(fields.begin(), fields.end(), [&](const auto& f) { return wire::equalsNoCase(f.first, name); });
    return at == fields.end() ? nullptr : &at->second;
}

std::int32_t translateResponseError(const HttpResponse& response) noexcept
{
    const unsigned status = response.status;
    if (isAccepted(status))
        return toResult(ResultCode::success);
    if (status == 0)
        return toResult(ResultCode::deviceUnreachable);
    if (status == 401 || status == 403)
        return toResult(ResultCode::accessDenied);
    // Firmware of this family says 599 for a path that it does not know.
    if (status == 404 || status == 599)
        return toResult(ResultCode::resourceNotFound);
    if (status == 503)
        return toResult(ResultCode::deviceBusy);
    if (status >= 400 && status < 500)
        return toResult(ResultCode::requestRejected);
    return toResult(status >= 500 ? ResultCode::deviceError : ResultCode::unexpectedStatus);
}
}  // namespace Tavro8::http
