#include <utility>

#include "LoadRequests.h"
#include "PushDevices.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <string>
#include <string_view>

namespace kelvo::bench
{
namespace
{
using boost::asio::use_awaitable;
using boost::asio::ip::tcp;

constexpr std::string_view subscriptionPath = "/LAPI/V1.0/System/Event/Subscription";
}  // namespace

PushDevices::PushDevices() : acceptor(context, tcp::endpoint(tcp::v4(), 0)), port(acceptor.local_endpoint().port())
{
    boost::asio::co_spawn(context, acceptAll(), boost::asio::detached);
    thread = std::thread([this] { context.run(); });
}

PushDevices::~PushDevices()
{
    context.stop();
    thread.join();
}

boost::asio::awaitable<void> PushDevices::acceptAll()
{
    for (;;)
        boost::asio::co_spawn(context, serve(co_await acceptor.async_accept(use_awaitable)), boost::asio::detached);
}

boost::asio::awaitable<void> PushDevices::serve(tcp::socket socket)
try {
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
        const std::size_t path = head.find(' ') + 1;
        const std::string wanted = head.substr(path, head.find(' ', path) - path);
        const bool isEvents = wanted.starts_with(subscriptionPath);
        const std::string answer = isEvents ? succeeded(wanted, R"({"ID": "1"})") : managementReply(wanted, port, port);
        subscriptions += head.starts_with("POST") ? 1 : 0;
        co_await boost::asio::async_write(socket, boost::asio::buffer(answer), use_awaitable);
    }
} catch (const std::exception&) {  // the client has gone
}
}  // namespace kelvo::bench
