#pragma once

#include <IpUtil/ErrorCode.h>
#include <array>
#include <bitset>
#include <boost/asio/ip/udp.hpp>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

namespace Tavro8::Utility
{
/// Reads the datagrams that wait at a socket, many a call where the system can: one system call for a burst instead of
/// one for each packet. The only place that knows a system's own way to do so.
///
/// Belongs to an I/O context and is used by one socket after the other. Each place is as long as the longest datagram,
/// so that none is cut off; of that memory the system provides only the pages that were ever written, one a place for
/// ordinary packets.
class DatagramBatch {
public:
    static constexpr std::size_t capacity = 32;  ///< datagrams a read
    static constexpr std::size_t maxDatagramBytes = 0xFFFF;

    DatagramBatch();
    ~DatagramBatch();
    DatagramBatch(const DatagramBatch&) = delete;
    DatagramBatch& operator=(const DatagramBatch&) = delete;

    /// Replaces the content by what waits at the non-blocking `socket` and returns how many there are. Fewer than
    /// `capacity` means that nothing more waits. That nothing waits is no error, nor is the news that an earlier
    /// datagram of ours found no taker.
    std::size_t read(boost::asio::ip::udp::socket& socket, error_code& ec);
    /// The same with one call for each datagram, on every system.
    std::size_t readOneByOne(boost::asio::ip::udp::socket& socket, error_code& ec);

    // Of the datagram at `index`, valid until the next read.
    std::span<const std::uint8_t> bytes(std::size_t index) const noexcept { return {place(index), sizes[index]}; }
    const boost::asio::ip::udp::endpoint& sender(std::size_t index) const noexcept { return senders[index]; }
    bool isTruncated(std::size_t index) const noexcept { return truncated[index]; }

private:
    struct System;

    // A little more than the longest datagram: places at a power of two would compete for the same lines of the cache.
    static constexpr std::size_t stride = maxDatagramBytes + 1 + 2048;

    std::uint8_t* place(std::size_t index) const noexcept { return memory.get() + index * stride; }

    std::unique_ptr<std::uint8_t[]> memory;
    std::array<std::size_t, capacity> sizes{};
    std::array<boost::asio::ip::udp::endpoint, capacity> senders;
    std::bitset<capacity> truncated;
    std::unique_ptr<System> system;  // what the system's own call works on
};
}  // namespace Tavro8::Utility
