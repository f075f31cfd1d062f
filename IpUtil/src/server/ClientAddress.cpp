#include <utility>

#include "server/ClientAddress.h"

namespace Tavro8::server
{
namespace
{
namespace ip = boost::asio::ip;
}

ClientAddress::ClientAddress(const ip::address& address) noexcept
    : bytes(address.is_v4() ? ip::make_address_v6(ip::v4_mapped, address.to_v4()).to_bytes()
                            : address.to_v6().to_bytes())
{}

std::optional<ClientAddress> ClientAddress::parse(std::string_view text)
{
    if (text.size() > 2 && text.front() == '[' && text.back() == ']')
        text = text.substr(1, text.size() - 2);
    boost::system::error_code ec;
    const ip::address address = ip::make_address(std::string(text), ec);
    if (ec)
        return std::nullopt;
    return ClientAddress(address);
}

std::string ClientAddress::toText() const
{
    const ip::address_v6 address(bytes);
    return address.is_v4_mapped() ? ip::make_address_v4(ip::v4_mapped, address).to_string() : address.to_string();
}
}  // namespace Tavro8::server
