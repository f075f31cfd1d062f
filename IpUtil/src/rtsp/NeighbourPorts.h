#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

namespace Tavro8::Utility
{
/// Opens the ports of a track: an even one for RTP and the odd one above it for RTCP (RFC 3550 section 11). When the
/// neighbour of a port is taken another port is tried, and after some attempts any two ports will do, since both are
/// told to the device.
///
/// `open(port)` gives an optional socket bound to that port, 0: to any that is free; `portOf(socket)` its number.
template <typename Open, typename PortOf>
auto openNeighbours(Open&& open, PortOf&& portOf)
    -> std::optional<std::pair<typename decltype(open(std::uint16_t{}))::value_type,
                               typename decltype(open(std::uint16_t{}))::value_type>>
{
    constexpr std::size_t attempts = 16;
    std::array<decltype(open(std::uint16_t{})), attempts> alone;  // held meanwhile, or they would be offered again
    for (auto& first : alone) {
        first = open(std::uint16_t{0});
        if (!first)
            return std::nullopt;
        const std::uint16_t number = portOf(*first);
        auto second = open(static_cast<std::uint16_t>(number ^ 1U));
        if (second && number % 2 == 0)
            return std::pair(std::move(*first), std::move(*second));
        if (second)
            return std::pair(std::move(*second), std::move(*first));
    }
    return std::pair(std::move(*alone[0]), std::move(*alone[1]));
}
}  // namespace Tavro8::Utility
