#include <utility>

#include "rtsp/DatagramBatch.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>

#if defined(__linux__)
#include <cerrno>
#include <sys/socket.h>
#endif

namespace Tavro8::Utility
{
namespace
{
using boost::asio::ip::udp;

/// Nothing waits at present, or a datagram that we sent was refused, which some systems tell the receiving side.
bool isPassing(const error_code& ec)
{
    namespace error = boost::asio::error;
    return ec == error::would_block || ec == error::try_again || ec == error::interrupted ||
           ec == error::connection_refused || ec == error::connection_reset || ec == error::host_unreachable ||
           ec == error::network_unreachable;
}
}  // namespace

std::size_t DatagramBatch::readOneByOne(udp::socket& socket, error_code& ec)
{
    std::size_t count = 0;
    for (; count < capacity; ++count) {
        error_code failed;
        sizes[count] =
            socket.receive_from(boost::asio::buffer(place(count), maxDatagramBytes), senders[count], 0, failed);
        truncated[count] = failed == boost::asio::error::message_size;
        if (failed && !truncated[count]) {
            ec = isPassing(failed) || count != 0 ? error_code() : failed;
            break;
        }
    }
    return count;
}

#if defined(__linux__)

struct DatagramBatch::System {
    std::array<mmsghdr, capacity> headers{};
    std::array<iovec, capacity> parts{};
};

DatagramBatch::DatagramBatch()
    : memory(std::make_unique_for_overwrite<std::uint8_t[]>(capacity * stride)), system(std::make_unique<System>())
{
    for (std::size_t i = 0; i < capacity; ++i) {
        system->parts[i] = {place(i), maxDatagramBytes};
        msghdr& header = system->headers[i].msg_hdr;
        header.msg_name = senders[i].data();
        header.msg_namelen = static_cast<socklen_t>(senders[i].capacity());
        header.msg_iov = &system->parts[i];
        header.msg_iovlen = 1;
    }
}

std::size_t DatagramBatch::read(udp::socket& socket, error_code& ec)
{
    const int result = ::recvmmsg(socket.native_handle(), system->headers.data(), capacity, MSG_DONTWAIT, nullptr);
    if (result < 0) {
        const error_code failed(errno, boost::system::system_category());
        ec = isPassing(failed) ? error_code() : failed;
        return 0;
    }
    const auto count = static_cast<std::size_t>(result);
    for (std::size_t i = 0; i < count; ++i) {
        mmsghdr& message = system->headers[i];
        sizes[i] = message.msg_len;
        truncated[i] = (message.msg_hdr.msg_flags & MSG_TRUNC) != 0;
        // The call has replaced the room for the sender's address by the address's length.
        senders[i].resize(message.msg_hdr.msg_namelen);
        message.msg_hdr.msg_namelen = static_cast<socklen_t>(senders[i].capacity());
    }
    return count;
}

#else

struct DatagramBatch::System {};

DatagramBatch::DatagramBatch() : memory(std::make_unique_for_overwrite<std::uint8_t[]>(capacity * stride)) {}

std::size_t DatagramBatch::read(udp::socket& socket, error_code& ec)
{
    return readOneByOne(socket, ec);
}

#endif

DatagramBatch::~DatagramBatch() = default;
}  // namespace Tavro8::Utility
