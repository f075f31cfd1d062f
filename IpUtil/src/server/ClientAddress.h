#pragma once

#include <array>
#include <boost/asio/ip/address.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Tavro8::server
{
/// The address of a device in the one form in which addresses are compared: the bytes of IPv6, with IPv4 mapped into it
/// (RFC 4291 section 2.5.5.2). Zones are left out, since the device is told apart by its interface identifier.
class ClientAddress {
public:
    ClientAddress() = default;  ///< the unspecified address
    explicit ClientAddress(const boost::asio::ip::address& address) noexcept;

    /// Any notation of IPv4 or IPv6, with or without brackets; nothing for any other text.
    static std::optional<ClientAddress> parse(std::string_view text);

    /// IPv4 as IPv4, also when it was mapped.
    std::string toText() const;

    bool operator==(const ClientAddress&) const noexcept = default;

    struct Hash {
        std::size_t operator()(const ClientAddress& address) const noexcept
        {
            return std::hash<std::string_view>{}(
                {reinterpret_cast<const char*>(address.bytes.data()), address.bytes.size()});
        }
    };

private:
    std::array<std::uint8_t, 16> bytes{};
};
}  // namespace Tavro8::server
