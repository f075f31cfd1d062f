#include "http/HostError.h"

#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#include <gtest/gtest.h>

namespace
{
using namespace Tavro8;
using Utility::toHostError;
using Utility::translateSystemError;
namespace net = boost::asio::error;
namespace message = boost::beast::http;

TEST(HostError, givesEachForeignFailureItsHostResult)
{
    const struct {
        error_code ec;
        ResultCode result;
    } cases[] = {
        {net::connection_refused, ResultCode::deviceUnreachable},
        {net::host_unreachable, ResultCode::deviceUnreachable},
        {net::network_unreachable, ResultCode::deviceUnreachable},
        {net::network_down, ResultCode::deviceUnreachable},
        {net::access_denied, ResultCode::deviceUnreachable},
        {net::connection_reset, ResultCode::connectionLost},
        {net::connection_aborted, ResultCode::connectionLost},
        {net::broken_pipe, ResultCode::connectionLost},
        {net::eof, ResultCode::connectionLost},
        {boost::asio::ssl::error::stream_truncated, ResultCode::connectionLost},
        {net::timed_out, ResultCode::timedOut},
        {boost::beast::error::timeout, ResultCode::timedOut},
        {net::host_not_found, ResultCode::nameNotResolved},
        {net::host_not_found_try_again, ResultCode::nameNotResolved},
        {net::service_not_found, ResultCode::nameNotResolved},
        {net::operation_aborted, ResultCode::cancelled},
        {net::no_memory, ResultCode::noResources},
        {net::no_descriptors, ResultCode::noResources},
        {error_code(1, net::get_ssl_category()), ResultCode::secureChannelFailed},
        {message::error::end_of_stream, ResultCode::connectionLost},
        {message::error::partial_message, ResultCode::connectionLost},
        {message::error::bad_version, ResultCode::malformedResponse},
        {message::error::bad_chunk, ResultCode::malformedResponse},
        {message::error::body_limit, ResultCode::responseTooLarge},
        {message::error::header_limit, ResultCode::responseTooLarge},
        {error_code(4711, boost::system::generic_category()), ResultCode::connectionLost},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.ec.category().name()) + ' ' + c.ec.message());
        const error_code translated = toHostError(c.ec);
        EXPECT_EQ(translated, make_error_code(c.result));
        EXPECT_EQ(translated.category(), Utility::get_tavro8_category());
        EXPECT_EQ(translateSystemError(c.ec), toResult(c.result));
    }
}

TEST(HostError, leavesSuccessAndHostResultsAlone)
{
    EXPECT_FALSE(toHostError({}));
    EXPECT_EQ(translateSystemError({}), 0);
    EXPECT_EQ(translateSystemError(make_error_code(ResultCode::timedOut)), 258);
    EXPECT_EQ(translateSystemError(error_code(4711, Utility::get_tavro8_category())), 4711);
}

#if defined(EHOSTDOWN)
TEST(HostError, takesAHostThatIsDownForUnreachable)
{
    EXPECT_EQ(translateSystemError(error_code(EHOSTDOWN, boost::system::system_category())), 256);
}
#endif

/// As another shared library would have it: the same name, another object.
class ForeignMessageCategory final : public boost::system::error_category {
public:
    const char* name() const noexcept override { return "beast.http"; }
    std::string message(int) const override { return {}; }
};

TEST(HostError, knowsACategoryOfAnotherLibraryByItsName)
{
    const ForeignMessageCategory foreign;
    const error_code ec(static_cast<int>(message::error::body_limit), foreign);
    EXPECT_EQ(translateSystemError(ec), toResult(ResultCode::responseTooLarge));
}
}  // namespace
