#include <utility>

#include "LocalDevice.h"

#include "LoadRequests.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <exception>

namespace kelvo::bench
{
namespace
{
using boost::asio::use_awaitable;
using boost::asio::ip::tcp;

/// The first two words of a request.
LocalDevice::Request requestIn(std::string_view head)
{
    const std::size_t path = head.find(' ') + 1;
    return {head.substr(0, path - 1), head.substr(path, head.find(' ', path) - path)};
}
}  // namespace

LocalDevice::LocalDevice(Answer answer, std::chrono::microseconds thinking)
    : answer(std::move(answer)),
      thinking(thinking),
      acceptor(context, tcp::endpoint(tcp::v4(), 0)),
      port(acceptor.local_endpoint().port())
{
    boost::asio::co_spawn(context, acceptAll(), boost::asio::detached);
    thread = std::thread([this] { context.run(); });
}

LocalDevice::~LocalDevice()
{
    context.stop();
    thread.join();
}

boost::asio::awaitable<void> LocalDevice::acceptAll()
{
    for (;;)
        boost::asio::co_spawn(context, serve(co_await acceptor.async_accept(use_awaitable)), boost::asio::detached);
}

boost::asio::awaitable<void> LocalDevice::serve(tcp::socket socket)
try {
    boost::asio::steady_timer timer(context);
    std::string input;
    for (;;) {
        const std::size_t end = co_await boost::asio::async_read_until(socket, boost::asio::dynamic_buffer(input),
                                                                       "\r\n\r\n", use_awaitable);
        const std::string head = input.substr(0, end);
        const std::size_t whole = end + numberAfter(lower(head), "content-length:").value_or(0);
        if (input.size() < whole)
            co_await boost::asio::async_read(socket, boost::asio::dynamic_buffer(input),
                                             boost::asio::transfer_exactly(whole - input.size()), use_awaitable);
        input.erase(0, whole);
        const std::string reply = answer(requestIn(head));
        if (thinking > thinking.zero()) {
            timer.expires_after(thinking);
            co_await timer.async_wait(use_awaitable);
        }
        co_await boost::asio::async_write(socket, boost::asio::buffer(reply), use_awaitable);
    }
} catch (const std::exception&) {  // the client has gone
}
}  // namespace kelvo::bench
