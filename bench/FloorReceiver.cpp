// The floor: what it costs to read the streams of a load source and do nothing with them. One thread, one epoll, one
// buffer. Whatever a receiver does beyond this is its own.
#include "Arguments.h"
#include "Descriptor.h"
#include "FrameStamp.h"
#include "ProcessCost.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <exception>
#include <netinet/in.h>
#include <string>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <vector>

namespace
{
using namespace kelvo::bench;

constexpr std::size_t bufferBytes = std::size_t{256} * 1024;
constexpr std::size_t datagramBytes = 2048;
constexpr std::size_t batch = 64;  // datagrams a call
constexpr int udpBufferBytes = 1024 * 1024;

sockaddr_in loopback(std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

/// One stream: its RTSP connection, which carries the media too, or a socket for the datagrams beside it.
struct Stream {
    Descriptor rtsp;
    Descriptor media;  // over UDP

    int socket() const noexcept { return media.get() >= 0 ? media.get() : rtsp.get(); }
};

/// Sends a request and reads its answer, and perhaps some media behind it.
void request(int socket, const std::string& text)
{
    checked(::send(socket, text.data(), text.size(), MSG_NOSIGNAL), "send");
    std::string answer;
    while (answer.find("\r\n\r\n") == std::string::npos) {
        std::array<char, 4096> bytes{};
        const ssize_t count = checked(::recv(socket, bytes.data(), bytes.size(), 0), "recv");
        if (count == 0)
            throw std::runtime_error("the source closed the connection");
        answer.append(bytes.data(), static_cast<std::size_t>(count));
    }
    if (!answer.starts_with("RTSP/1.0 200"))
        throw std::runtime_error("the source refuses: " + answer);
}

Stream openStream(std::uint16_t port, bool udp)
{
    Stream stream;
    stream.rtsp = Descriptor(checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
    const sockaddr_in server = loopback(port);
    checked(::connect(stream.rtsp.get(), reinterpret_cast<const sockaddr*>(&server), sizeof server), "connect");
    std::string transport = "RTP/AVP/TCP;unicast;interleaved=0-1";
    if (udp) {
        stream.media = Descriptor(checked(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket"));
        sockaddr_in own = loopback(0);
        socklen_t length = sizeof own;
        checked(::bind(stream.media.get(), reinterpret_cast<const sockaddr*>(&own), length), "bind");
        checked(::getsockname(stream.media.get(), reinterpret_cast<sockaddr*>(&own), &length), "getsockname");
        ::setsockopt(stream.media.get(), SOL_SOCKET, SO_RCVBUF, &udpBufferBytes, sizeof udpBufferBytes);
        const unsigned ownPort = ntohs(own.sin_port);
        transport = "RTP/AVP;unicast;client_port=" + std::to_string(ownPort) + '-' + std::to_string(ownPort + 1);
    }
    const std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/media/video1";
    request(stream.rtsp.get(),
            "SETUP " + url + "/trackID=1 RTSP/1.0\r\nCSeq: 1\r\nTransport: " + transport + "\r\n\r\n");
    request(stream.rtsp.get(), "PLAY " + url + " RTSP/1.0\r\nCSeq: 2\r\nSession: 1\r\n\r\n");
    return stream;
}

class Floor {
public:
    Floor(std::uint16_t port, std::size_t count, bool overUdp)
        : udp(overUdp),
          epoll(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
          timer(checked(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC), "timerfd_create")),
          buffer(udp ? batch * datagramBytes : bufferBytes)
    {
        for (std::size_t i = 0; i < count; ++i)
            streams.push_back(openStream(port, udp));
        for (const Stream& stream : streams)
            watch(stream.socket(), EPOLLIN | EPOLLET);
        watch(timer.get(), EPOLLIN);
        for (std::size_t i = 0; udp && i < batch; ++i) {
            vectors[i] = {buffer.data() + i * datagramBytes, datagramBytes};
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
    }

    void readFor(double seconds)
    {
        itimerspec time{};
        time.it_value.tv_sec = static_cast<time_t>(seconds);
        time.it_value.tv_nsec = 1 + static_cast<long>((seconds - static_cast<double>(time.it_value.tv_sec)) * 1e9);
        checked(::timerfd_settime(timer.get(), 0, &time, nullptr), "timerfd_settime");
        std::array<epoll_event, 256> events{};
        for (;;) {
            const int count = ::epoll_wait(epoll.get(), events.data(), static_cast<int>(events.size()), -1);
            for (int i = 0; i < count; ++i) {
                const int socket = events[static_cast<std::size_t>(i)].data.fd;
                if (socket == timer.get())
                    return;
                udp ? readDatagrams(socket) : readStream(socket);
            }
        }
    }

    std::uint64_t received = 0;  ///< bytes

private:
    void watch(int socket, std::uint32_t events)
    {
        epoll_event event{};
        event.events = events;
        event.data.fd = socket;
        checked(::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, socket, &event), "epoll_ctl");
    }

    /// Until less came than there was room for: then the socket is empty and says so when that changes.
    void readStream(int socket)
    {
        ssize_t count = 0;
        do {
            count = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
            if (count < 0 && errno == EAGAIN)
                return;
            if (checked(count, "recv") == 0)
                throw std::runtime_error("the source closed the connection");
            received += static_cast<std::size_t>(count);
        } while (static_cast<std::size_t>(count) == buffer.size());
    }

    void readDatagrams(int socket)
    {
        int count = 0;
        do {
            count = ::recvmmsg(socket, messages.data(), batch, MSG_DONTWAIT, nullptr);
            for (int i = 0; i < count; ++i)
                received += messages[static_cast<std::size_t>(i)].msg_len;
        } while (count == static_cast<int>(batch));
    }

    const bool udp;
    Descriptor epoll;
    Descriptor timer;
    std::vector<std::uint8_t> buffer;
    std::vector<Stream> streams;
    std::array<iovec, batch> vectors{};
    std::array<mmsghdr, batch> messages{};
};
}  // namespace

int main(int argc, char** argv)
try {
    const Arguments arguments(argc, argv, {"rtsp", "streams", "seconds", "warm-up", "transport"});
    raiseDescriptorLimit();
    const ProcessCost empty = ProcessCost::present();
    const std::uint64_t begin = monotonicNs();
    Floor floor(arguments.number<std::uint16_t>("rtsp", 0), arguments.number<std::size_t>("streams", 1),
                arguments.text("transport", "tcp") == "udp");
    const std::uint64_t connected = monotonicNs();
    floor.readFor(arguments.number("warm-up", 1.0));

    std::printf("{\"event\":\"steady\"}\n");
    std::fflush(stdout);
    const std::uint64_t steadyBegin = monotonicNs();
    const ProcessCost before = ProcessCost::present();
    const std::uint64_t bytesBefore = floor.received;
    floor.readFor(arguments.number("seconds", 4.0));
    const ProcessCost after = ProcessCost::present();
    const std::uint64_t steadyEnd = monotonicNs();
    std::printf("{\"event\":\"result\",\"seconds\":%.6f,\"connectSeconds\":%.6f,\"cpuSeconds\":%.6f,\"sleeps\":%llu,"
                "\"wireBytes\":%llu,\"emptyBytes\":%llu,\"residentBytes\":%llu,\"peakBytes\":%llu}\n",
                static_cast<double>(steadyEnd - steadyBegin) * 1e-9, static_cast<double>(connected - begin) * 1e-9,
                after.cpuSeconds - before.cpuSeconds,
                static_cast<unsigned long long>(after.contextSwitches - before.contextSwitches),
                static_cast<unsigned long long>(floor.received - bytesBefore),
                static_cast<unsigned long long>(empty.residentBytes),
                static_cast<unsigned long long>(after.residentBytes), static_cast<unsigned long long>(after.peakBytes));
    return 0;
} catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
}
