#pragma once

#include "LocalDevice.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kelvo::bench
{
/// The management interface of any number of cameras, all those of 127/8 at one port: enough of it for the module to
/// connect and to subscribe.
class PushDevices {
public:
    std::uint16_t getPort() const noexcept { return device.getPort(); }
    std::size_t getSubscriptions() const noexcept { return subscriptions; }  ///< made so far

private:
    std::string answer(const LocalDevice::Request& request);

    std::atomic<std::size_t> subscriptions{0};
    LocalDevice device{[this](const LocalDevice::Request& request) { return answer(request); }};
};
}  // namespace kelvo::bench
