#include "rtsp/StreamSocket.h"

#ifdef BOOST_ASIO_HAS_EPOLL
#include <unistd.h>
#endif

namespace Tavro8::Utility
{
#ifdef BOOST_ASIO_HAS_EPOLL
error_code forgetWriting(StreamSocket& socket, const boost::asio::ip::tcp& protocol)
{
    error_code ec;
    const auto native = socket.release(ec);
    if (ec)
        return ec;
    socket.assign(protocol, native, ec);
    if (ec)
        ::close(native);
    return ec;
}
#else
error_code forgetWriting(StreamSocket&, const boost::asio::ip::tcp&)
{
    return {};
}
#endif
}  // namespace Tavro8::Utility
