#include <utility>

#include "LocalAddress.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

namespace Uniview
{
namespace
{
using boost::asio::ip::tcp;
using boost::system::error_code;

/// Our end of a connection to `target`, which is closed again.
std::optional<tcp::endpoint> connectBriefly(const tcp::endpoint& target, std::chrono::milliseconds limit)
{
    boost::asio::io_context context;
    tcp::socket socket(context);
    std::optional<tcp::endpoint> local;
    socket.async_connect(target, [&](const error_code& failure) {
        error_code ec;
        const auto endpoint = socket.local_endpoint(ec);
        if (!failure && !ec)
            local = endpoint;
    });
    context.run_for(limit);
    return local;
}
}  // namespace

std::string resolveAddress(const std::string& host, std::uint16_t port, std::chrono::milliseconds limit)
{
    error_code ec;
    if (const auto literal = boost::asio::ip::make_address(host, ec); !ec)
        return literal.to_string();
    boost::asio::io_context context;
    const auto found = tcp::resolver(context).resolve(host, std::to_string(port), tcp::resolver::numeric_service, ec);
    if (ec || found.empty())
        return {};
    if (found.size() > 1) {
        for (const auto& entry : found) {
            if (connectBriefly(entry.endpoint(), limit))
                return entry.endpoint().address().to_string();
        }
    }
    return found.begin()->endpoint().address().to_string();
}

std::string withoutZone(const std::string& address)
{
    return address.substr(0, address.find('%'));
}

std::optional<std::string> detectLocalAddress(const std::string& address, std::uint16_t port,
                                              std::chrono::milliseconds limit)
{
    error_code ec;
    const auto target = boost::asio::ip::make_address(address, ec);
    if (ec)
        return {};
    const auto local = connectBriefly({target, port}, limit);
    if (!local)
        return {};
    return withoutZone(local->address().to_string());
}
}  // namespace Uniview
