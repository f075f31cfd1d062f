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

    /// As written, or percent-encoded by `setPassword`.
    const std::string& getPassword() const noexcept { return password; }

    /// What stands where the port belongs but is no number from 1 to 65535; empty when all is well. Most likely
    /// a password whose "@host" was forgotten, so it is not shown.
    const std::string& getMisplaced() const noexcept { return misplaced; }
    bool hasUsablePort() const noexcept { return usablePort; }

    /// Takes `plain` as the password; it is percent-encoded.
    void setPassword(std::string_view plain);

    std::string complete() const;  ///< with the password: for `IDevice::Open` and nothing else
    std::string masked() const;    ///< for people: stars in place of the password, and no path
    std::string hostName() const;  ///< host without port, an IPv6 address in brackets

private:
    std::string front(std::string_view shownPassword) const;
    void readPort();

    std::string scheme;  ///< with "://", or empty
    std::string user;    ///< as written, perhaps percent-encoded
    std::string password;
    std::string rest;       ///< host, port and whatever follows
    std::string shownRest;  ///< what of it may be shown
    std::string misplaced;
    bool passwordGiven = false;
    bool usablePort = true;
};
}  // namespace Host
