#pragma once

#include <string>
#include <string_view>

namespace Host
{
/// The address of a device as the user wrote it: `[http://|https://][user[:password]@]host[:port]`.
///
/// What stands in front of the last '@' is user and password, so that a password may hold any character even
/// when the user forgot to percent-encode it. Everything else is left for the module to judge.
class DeviceAddress {
public:
    explicit DeviceAddress(std::string_view text);

    bool hasUser() const noexcept { return !user.empty(); }
    bool hasPassword() const noexcept { return passwordGiven; }

    /// Takes `plain` as the password; it is percent-encoded.
    void setPassword(std::string_view plain);

    std::string complete() const;  ///< with the password: for `IDevice::Open` and nothing else
    std::string masked() const;    ///< for people: three stars in place of the password
    std::string hostName() const;  ///< host without port, an IPv6 address in brackets

private:
    std::string build(std::string_view shownPassword) const;

    std::string scheme;    ///< with "://", or empty
    std::string user;      ///< as written, perhaps percent-encoded
    std::string password;  ///< as written, or percent-encoded by `setPassword`
    std::string rest;      ///< host, port and whatever follows
    bool passwordGiven = false;
};

/// Replaces the password in everything in `text` that looks like an address with one. For texts that come
/// from elsewhere: messages of the option parser, log lines, reasons of the system.
std::string maskPasswords(std::string_view text);
}  // namespace Host
