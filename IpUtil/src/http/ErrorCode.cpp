#include "http/HostError.h"

#include <utility>

#include <boost/asio/error.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#include <cerrno>
#include <string_view>

namespace Tavro8::Utility
{
namespace
{
namespace errc = boost::system::errc;

ResultCode classifySocketError(const error_code& ec) noexcept
{
    static constexpr struct {
        errc::errc_t condition;
        ResultCode result;
    } table[] = {
        {errc::operation_canceled, ResultCode::cancelled},
        {errc::timed_out, ResultCode::timedOut},
        {errc::connection_refused, ResultCode::deviceUnreachable},
        {errc::host_unreachable, ResultCode::deviceUnreachable},
        {errc::network_unreachable, ResultCode::deviceUnreachable},
        {errc::network_down, ResultCode::deviceUnreachable},
        {errc::address_not_available, ResultCode::deviceUnreachable},
        {errc::address_family_not_supported, ResultCode::deviceUnreachable},
        // What a local firewall makes of an attempt to connect.
        {errc::permission_denied, ResultCode::deviceUnreachable},
        {errc::operation_not_permitted, ResultCode::deviceUnreachable},
        {errc::not_enough_memory, ResultCode::noResources},
        {errc::no_buffer_space, ResultCode::noResources},
        {errc::too_many_files_open, ResultCode::noResources},
        {errc::too_many_files_open_in_system, ResultCode::noResources},
    };
    for (const auto& row : table) {
        if (ec == errc::make_error_condition(row.condition))
            return row.result;
    }
#if defined(EHOSTDOWN)  // has no portable condition
    if (ec.category() == boost::system::system_category() && ec.value() == EHOSTDOWN)
        return ResultCode::deviceUnreachable;
#endif
    // Windows reports the resolver's failures in the system category.
    if (ec == boost::asio::error::host_not_found || ec == boost::asio::error::host_not_found_try_again ||
        ec == boost::asio::error::no_data || ec == boost::asio::error::no_recovery)
        return ResultCode::nameNotResolved;
    return ResultCode::connectionLost;
}

ResultCode classifyMiscellaneous(int value) noexcept
{
    // An empty list of addresses to connect to.
    return value == boost::asio::error::not_found ? ResultCode::nameNotResolved : ResultCode::connectionLost;
}

ResultCode classifyMessageError(int value) noexcept
{
    using boost::beast::http::error;
    switch (static_cast<error>(value)) {
    case error::end_of_stream:
    case error::partial_message:
        return ResultCode::connectionLost;
    case error::body_limit:
    case error::header_limit:
    case error::buffer_overflow:
        return ResultCode::responseTooLarge;
    case error::bad_alloc:
        return ResultCode::noResources;
    default:
        return ResultCode::malformedResponse;
    }
}

/// Categories are told apart by name, because each shared library may have its own object of one.
ResultCode classify(const error_code& ec) noexcept
{
    const std::string_view category = ec.category().name();
    if (category == "asio.netdb" || category == "asio.addrinfo")
        return ResultCode::nameNotResolved;
    if (category == "asio.misc")
        return classifyMiscellaneous(ec.value());
    if (category == "asio.ssl")
        return ResultCode::secureChannelFailed;
    if (category == "asio.ssl.stream")
        return ResultCode::connectionLost;  // ended without the closing message of TLS
    if (category == "beast.http")
        return classifyMessageError(ec.value());
    if (category == "boost.beast" || category == "beast") {
        return ec.value() == static_cast<int>(boost::beast::error::timeout) ? ResultCode::timedOut
                                                                            : ResultCode::connectionLost;
    }
    return classifySocketError(ec);
}
}  // namespace

error_code toHostError(const error_code& ec) noexcept
{
    if (!ec)
        return {};
    if (ec.category() == get_tavro8_category())
        return ec;
    return make_error_code(classify(ec));
}

std::int32_t translateSystemError(const error_code& ec) noexcept
{
    return toHostError(ec).value();
}
}  // namespace Tavro8::Utility
