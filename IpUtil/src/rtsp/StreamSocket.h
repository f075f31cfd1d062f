#pragma once

#include <IpUtil/ErrorCode.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace Tavro8::Utility
{
/// A connection that carries media. It names its executor, so that none whose type is erased is asked for each packet.
using StreamSocket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, boost::asio::io_context::executor_type>;

/// To be called once for a socket that has just been connected, before anything is waited for.
///
/// Asio has asked epoll about writing too, to learn that the socket is connected, and does so for as long as it knows
/// the socket. Since that can nearly always be written to, each wait for bytes would wake the thread twice: at once for
/// nothing, and when they come. A socket that is handed to Asio as a connected one is asked about reading alone, and
/// about writing from the moment on when the system takes no more. Without epoll nothing is done.
error_code forgetWriting(StreamSocket& socket, const boost::asio::ip::tcp& protocol);
}  // namespace Tavro8::Utility
