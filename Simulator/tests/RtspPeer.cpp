#include <utility>  // ahead of Asio, which forgets it

#include "RtspPeer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/write.hpp>

#include <array>
#include <stdexcept>

namespace simulator::test
{

using boost::asio::ip::tcp;

struct RtspPeer::State {
    boost::asio::io_context context;
    tcp::socket socket{context};
    std::string received;
    std::vector<Frame> frames;
    std::string session;
    unsigned sequence = 0;
    bool ended = false;

    /// Reads until at least `count` bytes are there; false when the connection ended before.
    bool need(std::size_t count)
    {
        while (received.size() < count && !ended) {
            std::array<char, 65536> bytes;
            boost::system::error_code result = boost::asio::error::timed_out;
            socket.async_read_some(boost::asio::buffer(bytes),
                                   [&](const boost::system::error_code& error, std::size_t size) {
                                       result = error;
                                       received.append(bytes.data(), size);
                                   });
            context.restart();
            context.run_for(std::chrono::seconds(15));
            if (result == boost::asio::error::timed_out) {
                socket.close();
                context.run();
                throw std::runtime_error("the RTSP server is silent");
            }
            ended = result.failed();
        }
        return received.size() >= count;
    }

    /// Takes an interleaved frame from the front, if that is what is there.
    std::optional<Frame> takeFrame()
    {
        if (!need(4) || received[0] != '$')
            return std::nullopt;
        const auto byte = [this](std::size_t i) { return static_cast<std::uint8_t>(received[i]); };
        const std::size_t length = static_cast<std::size_t>(byte(2) << 8 | byte(3));
        Frame frame;
        frame.channel = byte(1);
        if (!need(4 + length))
            return std::nullopt;
        frame.bytes.assign(received.begin() + 4, received.begin() + 4 + static_cast<std::ptrdiff_t>(length));
        received.erase(0, 4 + length);
        return frame;
    }

    std::string takeAnswer()
    {
        while (auto frame = takeFrame())
            frames.push_back(std::move(*frame));
        std::size_t end = std::string::npos;
        while ((end = received.find("\r\n\r\n")) == std::string::npos)
            if (!need(received.size() + 1))
                throw std::runtime_error("the connection ended before the answer");
        const std::string head = received.substr(0, end + 4);
        const std::size_t body = std::stoul("0" + headerOf(head, "Content-Length: "));
        if (!need(head.size() + body))
            throw std::runtime_error("the connection ended within the answer");
        std::string answer = received.substr(0, head.size() + body);
        received.erase(0, answer.size());
        return answer;
    }

    static std::string headerOf(const std::string& head, const std::string& name)
    {
        const auto found = head.find("\r\n" + name);
        if (found == std::string::npos)
            return {};
        const auto begin = found + 2 + name.size();
        return head.substr(begin, head.find_first_of("\r;", begin) - begin);
    }
};

RtspPeer::RtspPeer(std::uint16_t port) : state(std::make_unique<State>())
{
    state->socket.connect({boost::asio::ip::address_v4::loopback(), port});
}

RtspPeer::~RtspPeer() = default;

std::string RtspPeer::request(const std::string& method, const std::string& url, const std::string& headers)
{
    std::string text =
        method + ' ' + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++state->sequence) + "\r\n" + headers;
    if (!state->session.empty() && headers.find("Session:") == std::string::npos)
        text += "Session: " + state->session + "\r\n";
    boost::asio::write(state->socket, boost::asio::buffer(text + "\r\n"));
    std::string answer = state->takeAnswer();
    if (state->session.empty())
        state->session = State::headerOf(answer, "Session: ");
    return answer;
}

void RtspPeer::play(const std::string& url, unsigned tracks)
{
    const auto require = [this](const std::string& method, const std::string& target, const std::string& headers) {
        const std::string answer = request(method, target, headers);
        if (!answer.starts_with("RTSP/1.0 200"))
            throw std::runtime_error(method + " was answered with " + answer);
    };
    for (unsigned i = 0; i < tracks; ++i)
        require("SETUP", url + "/stream=" + std::to_string(i),
                "Transport: RTP/AVP/TCP;unicast;interleaved=" + std::to_string(2 * i) + "-" +
                    std::to_string(2 * i + 1) + "\r\n");
    require("PLAY", url, {});
}

void RtspPeer::send(const Frame& frame)
{
    std::string bytes{'$', static_cast<char>(frame.channel), static_cast<char>(frame.bytes.size() >> 8),
                      static_cast<char>(frame.bytes.size())};
    bytes.append(frame.bytes.begin(), frame.bytes.end());
    boost::asio::write(state->socket, boost::asio::buffer(bytes));
}

std::optional<RtspPeer::Frame> RtspPeer::nextFrame()
{
    if (state->frames.empty())
        return state->takeFrame();
    Frame frame = std::move(state->frames.front());
    state->frames.erase(state->frames.begin());
    return frame;
}

const std::vector<RtspPeer::Frame>& RtspPeer::pendingFrames() const
{
    return state->frames;
}

}  // namespace simulator::test
