#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

struct evp_md_st;  // OpenSSL's EVP_MD

namespace Tavro8::Utility::testkit
{
using Bytes = std::vector<std::uint8_t>;

/// The digest of `text` in small hexadecimal digits.
std::string hexDigest(const evp_md_st* algorithm, const std::string& text);

/// An RTSP device whose every byte a test decides. Shares no code with the client. Each connection is served by a
/// thread that runs the script.
class ScriptedPeer {
public:
    struct Request {
        std::string method;
        std::string uri;
        std::map<std::string, std::string> headers;  // names in lower case
        std::size_t connection = 0;                  // which one, from 0
    };
    struct Received {
        std::uint8_t channel = 0;
        Bytes payload;
    };

    /// One connection, in its thread.
    class Connection {
    public:
        Connection(ScriptedPeer& peer, boost::asio::ip::tcp::socket socket, std::size_t number);

        /// The next request; interleaved frames in front of it are recorded. Nothing when the client has gone.
        std::optional<Request> read();
        /// Whether the client has sent something that has not been read.
        bool hasMore();
        /// False when the client has gone.
        bool write(const std::string& bytes);
        bool write(const Bytes& bytes);
        /// `lines` are whole header lines.
        bool reply(const Request& request, unsigned status, const std::string& lines = {},
                   const std::string& body = {});
        bool sendFrame(std::uint8_t channel, const Bytes& payload);
        void close();
        void waitUntilClosed();

        const std::size_t number;
        bool byteByByte = false;

    private:
        friend class ScriptedPeer;
        bool fill();

        ScriptedPeer& peer;
        boost::asio::ip::tcp::socket socket;
        std::string buffer;
    };

    using Script = std::function<void(Connection& connection)>;

    explicit ScriptedPeer(Script script);
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    std::uint16_t port() const noexcept { return portNumber; }
    std::vector<Request> requests() const;
    std::vector<Received> received() const;
    std::size_t count(const std::string& method) const;
    std::size_t connectionCount() const;

private:
    void acceptLoop();

    Script script;
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor acceptor;
    std::uint16_t portNumber;
    std::atomic<bool> stopping{false};
    mutable std::mutex mutex;  // guards all below
    std::list<std::shared_ptr<Connection>> connections;
    std::list<std::thread> threads;
    std::vector<Request> requestLog;
    std::vector<Received> receivedLog;
    std::thread acceptThread;
};

/// The behaviour of an ordinary camera, with what a test wants different.
struct Camera {
    enum class Auth { none, basic, digest, digestAgainOnSetup };

    std::string sdp;
    std::string publicMethods = "OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, GET_PARAMETER";
    std::string session = "88;timeout=60";
    Auth auth = Auth::none;
    std::map<std::string, unsigned> statuses;                                           // by method
    std::function<std::string(std::size_t track, const std::string& asked)> transport;  // of the answer to SETUP
    std::function<void(ScriptedPeer::Connection&)> afterPlay;
    std::function<bool(ScriptedPeer::Connection&, const ScriptedPeer::Request&)> intercept;  // true: handled
    std::function<void(ScriptedPeer::Connection&)> beforePlayAnswer;

    ScriptedPeer::Script script() const;
};

extern const char* const videoAndAudioSdp;
extern const char* const videoSdp;

// Media.
/// "67 64 00 1f" or "6764001f" as bytes.
Bytes fromHex(const std::string& text);
Bytes rtp(std::uint8_t payloadType, std::uint16_t sequence, std::uint32_t timestamp, bool marker, const Bytes& payload,
          std::uint32_t source = 0x11223344);
Bytes senderReport(std::uint32_t source, std::uint64_t ntp, std::uint32_t timestamp);
Bytes byePacket(std::uint32_t source);
Bytes interleaved(std::uint8_t channel, const Bytes& payload);
Bytes spsNal();
Bytes ppsNal();
Bytes idrNal(std::size_t bytes = 200);
Bytes pictureNal(std::size_t bytes = 100);
Bytes annexB(std::initializer_list<Bytes> nals);

/// Sends packets one by one, with numbers that go on.
struct PacketSender {
    /// One RTP packet; false when the client has gone.
    bool send(ScriptedPeer::Connection& connection, const Bytes& payload, bool marker)
    {
        return connection.sendFrame(channel, rtp(payloadType, sequence++, timestamp, marker, payload, source));
    }
    /// One frame of a packet for each NAL unit, the marker on the last.
    bool sendFrame(ScriptedPeer::Connection& connection, const std::vector<Bytes>& nals, std::uint32_t ticks = 3600)
    {
        bool there = true;
        for (std::size_t i = 0; i < nals.size() && there; ++i)
            there = send(connection, nals[i], i + 1 == nals.size());
        timestamp += ticks;
        return there;
    }

    std::uint8_t channel = 0;
    std::uint8_t payloadType = 96;
    std::uint16_t sequence = 100;
    std::uint32_t timestamp = 90000;
    std::uint32_t source = 0x11223344;
};

/// Sends frames of video (a key frame each `period`) with numbers that go on.
class VideoSender {
public:
    explicit VideoSender(std::uint8_t channel = 0, std::uint8_t payloadType = 96)
        : channel(channel), payloadType(payloadType)
    {}
    bool sendKeyFrame(ScriptedPeer::Connection& connection);
    bool sendPicture(ScriptedPeer::Connection& connection);
    /// Key frame and pictures in turn, until the client has gone or `frames` were sent.
    void run(ScriptedPeer::Connection& connection, std::size_t frames, std::size_t period = 5);
    Bytes keyFramePackets();
    Bytes picturePackets();
    /// The same as RTP packets, to be sent in any way.
    std::vector<Bytes> keyFrameRtp();
    Bytes pictureRtp();

    std::uint8_t channel;
    std::uint8_t payloadType;
    std::uint16_t sequence = 100;
    std::uint32_t timestamp = 90000;
};
}  // namespace Tavro8::Utility::testkit
