#include <utility>

#include "ScriptedPeer.h"

#include <algorithm>
#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <cctype>
#include <openssl/evp.h>

namespace Tavro8::Utility::testkit
{
namespace
{
using boost::asio::ip::tcp;
using boost::system::error_code;

std::string lower(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// The value of `name="..."` in an Authorization header.
std::string quoted(const std::string& header, const std::string& name)
{
    const std::size_t at = header.find(name + "=\"");
    if (at == std::string::npos)
        return {};
    const std::size_t begin = at + name.size() + 2;
    return header.substr(begin, header.find('"', begin) - begin);
}

constexpr const char* realm = "001122334455";

bool isDigestRight(const ScriptedPeer::Request& request, const std::string& nonce)
{
    const auto found = request.headers.find("authorization");
    if (found == request.headers.end() || quoted(found->second, "nonce") != nonce)
        return false;
    const std::string a1 = hexDigest(EVP_md5(), std::string("admin:") + realm + ":s3cret");
    const std::string a2 = hexDigest(EVP_md5(), request.method + ':' + quoted(found->second, "uri"));
    return quoted(found->second, "uri") == request.uri &&
           quoted(found->second, "response") == hexDigest(EVP_md5(), a1 + ':' + nonce + ':' + a2);
}

/// True when the request may pass; otherwise it has been answered with 401.
bool authorize(ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request, Camera::Auth auth)
{
    if (auth == Camera::Auth::none || request.method == "OPTIONS")
        return true;
    if (auth == Camera::Auth::basic) {
        const auto found = request.headers.find("authorization");
        if (found != request.headers.end() && found->second == "Basic YWRtaW46czNjcmV0")
            return true;
        connection.reply(request, 401, "WWW-Authenticate: Basic realm=\"camera\"\r\n");
        return false;
    }
    const bool second = auth == Camera::Auth::digestAgainOnSetup && request.method == "SETUP";
    const std::string nonce = second ? "feed2222" : "feed1111";
    if (isDigestRight(request, nonce) || (auth == Camera::Auth::digest && request.method != "DESCRIBE"))
        return true;
    if (auth == Camera::Auth::digestAgainOnSetup && request.method != "SETUP" && isDigestRight(request, "feed2222"))
        return true;
    // As real firmware writes it: no qop, `stale` in quotes and capitals.
    connection.reply(request, 401,
                     std::string("WWW-Authenticate: Digest realm=\"") + realm + "\", nonce=\"" + nonce +
                         "\", stale=\"FALSE\"\r\n");
    return false;
}
}  // namespace

std::string hexDigest(const evp_md_st* algorithm, const std::string& text)
{
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned length = 0;
    EVP_Digest(text.data(), text.size(), digest.data(), &length, algorithm, nullptr);
    std::string hex;
    for (unsigned i = 0; i < length; ++i) {
        constexpr const char* digits = "0123456789abcdef";
        hex += digits[digest[i] >> 4];
        hex += digits[digest[i] & 15];
    }
    return hex;
}

// ---- connection -----------------------------------------------------------------------------------------------

ScriptedPeer::Connection::Connection(ScriptedPeer& peer, tcp::socket socket, std::size_t number)
    : number(number), peer(peer), socket(std::move(socket))
{}

bool ScriptedPeer::Connection::fill()
{
    std::array<char, 4096> chunk;
    error_code ec;
    const std::size_t count = socket.read_some(boost::asio::buffer(chunk), ec);
    buffer.append(chunk.data(), count);
    return !ec;
}

std::optional<ScriptedPeer::Request> ScriptedPeer::Connection::read()
{
    for (;;) {
        while (!buffer.empty() && buffer[0] == '$') {
            const auto at = [this](std::size_t i) { return static_cast<std::uint8_t>(buffer[i]); };
            while (buffer.size() < 4 || buffer.size() < 4U + at(2) * 256U + at(3)) {
                if (!fill())
                    return std::nullopt;
            }
            const std::size_t length = at(2) * 256U + at(3);
            Received frame{at(1), Bytes(buffer.begin() + 4, buffer.begin() + 4 + static_cast<std::ptrdiff_t>(length))};
            buffer.erase(0, 4 + length);
            const std::lock_guard lock(peer.mutex);
            peer.receivedLog.push_back(std::move(frame));
        }
        const std::size_t end = buffer.find("\r\n\r\n");
        if (end != std::string::npos) {
            std::string head = buffer.substr(0, end + 2);
            buffer.erase(0, end + 4);
            Request request;
            request.connection = number;
            request.method = head.substr(0, head.find(' '));
            head.erase(0, request.method.size() + 1);
            request.uri = head.substr(0, head.find(' '));
            head.erase(0, head.find("\r\n") + 2);
            while (!head.empty()) {
                const std::size_t lineEnd = head.find("\r\n");
                const std::string line = head.substr(0, lineEnd);
                const std::size_t colon = line.find(": ");
                request.headers[lower(line.substr(0, colon))] = line.substr(colon + 2);
                head.erase(0, lineEnd + 2);
            }
            const std::lock_guard lock(peer.mutex);
            peer.requestLog.push_back(request);
            return request;
        }
        if (!fill())
            return std::nullopt;
    }
}

bool ScriptedPeer::Connection::hasMore()
{
    error_code ignored;
    return !buffer.empty() || socket.available(ignored) != 0;
}

bool ScriptedPeer::Connection::write(const std::string& bytes)
{
    error_code ec;
    if (!byteByByte) {
        boost::asio::write(socket, boost::asio::buffer(bytes), ec);
        return !ec;
    }
    for (std::size_t i = 0; i < bytes.size() && !ec; ++i)
        boost::asio::write(socket, boost::asio::buffer(&bytes[i], 1), ec);
    return !ec;
}

bool ScriptedPeer::Connection::write(const Bytes& bytes)
{
    return write(std::string(bytes.begin(), bytes.end()));
}

bool ScriptedPeer::Connection::reply(const Request& request, unsigned status, const std::string& lines,
                                     const std::string& body)
{
    const auto cseq = request.headers.find("cseq");
    std::string text = "RTSP/1.0 " + std::to_string(status) + (status == 200 ? " OK\r\n" : " Refused\r\n");
    text += "CSeq: " + (cseq == request.headers.end() ? std::string("0") : cseq->second) + "\r\n" + lines;
    if (!body.empty())
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return write(text + "\r\n" + body);
}

bool ScriptedPeer::Connection::sendFrame(std::uint8_t channel, const Bytes& payload)
{
    return write(interleaved(channel, payload));
}

void ScriptedPeer::Connection::close()
{
    error_code ignored;
    socket.shutdown(tcp::socket::shutdown_both, ignored);
}

void ScriptedPeer::Connection::waitUntilClosed()
{
    while (read()) {
    }
}

// ---- peer -----------------------------------------------------------------------------------------------------

ScriptedPeer::ScriptedPeer(Script script)
    : script(std::move(script)),
      acceptor(io, tcp::endpoint(boost::asio::ip::address_v4::loopback(), 0)),
      portNumber(acceptor.local_endpoint().port()),
      acceptThread([this] { acceptLoop(); })
{}

void ScriptedPeer::acceptLoop()
{
    for (;;) {
        error_code ec;
        tcp::socket socket(io);
        acceptor.accept(socket, ec);
        if (ec || stopping)
            return;
        error_code ignored;
        socket.set_option(tcp::no_delay(true), ignored);
        const std::lock_guard lock(mutex);
        const auto connection = std::make_shared<Connection>(*this, std::move(socket), connections.size());
        connections.push_back(connection);
        threads.emplace_back([this, connection] {
            script(*connection);
            connection->close();
        });
    }
}

ScriptedPeer::~ScriptedPeer()
{
    stopping = true;
    error_code ignored;
    tcp::socket wake(io);
    wake.connect(tcp::endpoint(boost::asio::ip::address_v4::loopback(), portNumber), ignored);
    acceptThread.join();
    for (const auto& connection : connections)
        connection->close();
    for (std::thread& thread : threads)
        thread.join();
}

std::vector<ScriptedPeer::Request> ScriptedPeer::requests() const
{
    const std::lock_guard lock(mutex);
    return requestLog;
}

std::vector<ScriptedPeer::Received> ScriptedPeer::received() const
{
    const std::lock_guard lock(mutex);
    return receivedLog;
}

std::size_t ScriptedPeer::count(const std::string& method) const
{
    const std::lock_guard lock(mutex);
    return static_cast<std::size_t>(std::ranges::count(requestLog, method, &Request::method));
}

std::size_t ScriptedPeer::connectionCount() const
{
    const std::lock_guard lock(mutex);
    return connections.size();
}

// ---- camera ---------------------------------------------------------------------------------------------------

ScriptedPeer::Script Camera::script() const
{
    return [camera = *this](ScriptedPeer::Connection& connection) {
        std::size_t tracks = 0;
        while (const auto request = connection.read()) {
            if (camera.intercept && camera.intercept(connection, *request))
                continue;
            const auto status = camera.statuses.find(request->method);
            if (status != camera.statuses.end()) {
                connection.reply(*request, status->second);
                continue;
            }
            if (!authorize(connection, *request, camera.auth))
                continue;
            const std::string session = "Session: " + camera.session + "\r\n";
            if (request->method == "OPTIONS") {
                connection.reply(*request, 200, "Public: " + camera.publicMethods + "\r\n");
            } else if (request->method == "DESCRIBE") {
                connection.reply(*request, 200, "Content-Type: application/sdp\r\n", camera.sdp);
            } else if (request->method == "SETUP") {
                const std::string asked = request->headers.at("transport");
                const std::string given = camera.transport ? camera.transport(tracks, asked) : asked;
                ++tracks;
                connection.reply(*request, 200, "Transport: " + given + "\r\n" + session);
            } else if (request->method == "PLAY") {
                if (camera.beforePlayAnswer)
                    camera.beforePlayAnswer(connection);
                connection.reply(*request, 200, session);
                if (camera.afterPlay)
                    camera.afterPlay(connection);
            } else {
                connection.reply(*request, 200, session);
            }
        }
    };
}

const char* const videoAndAudioSdp = "v=0\r\n"
                                     "o=- 1001 1 IN\r\n"
                                     "s=Media Presentation\r\n"
                                     "c=IN \r\n"
                                     "m=video 0 RTP/AVP 96\r\n"
                                     "a=rtpmap:96 H264/90000\r\n"
                                     "a=fmtp:96 packetization-mode=1\r\n"
                                     "a=control:track1\r\n"
                                     "m=audio 0 RTP/AVP 0\r\n"
                                     "a=fmtp:0 RTCP=0\r\n"
                                     "a=control:track2\r\n";
const char* const videoSdp = "v=0\r\n"
                             "o=- 1001 1 IN IP4 127.0.0.1\r\n"
                             "s=-\r\n"
                             "t=0 0\r\n"
                             "m=video 0 RTP/AVP 96\r\n"
                             "a=rtpmap:96 H264/90000\r\n"
                             "a=control:track1\r\n";

// ---- media ----------------------------------------------------------------------------------------------------

namespace
{
void put16(Bytes& to, std::size_t value)
{
    to.push_back(static_cast<std::uint8_t>(value >> 8));
    to.push_back(static_cast<std::uint8_t>(value));
}

void put32(Bytes& to, std::uint32_t value)
{
    put16(to, value >> 16);
    put16(to, value & 0xFFFF);
}
}  // namespace

Bytes fromHex(const std::string& text)
{
    Bytes bytes;
    std::string digits;
    for (const char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c)) != 0)
            digits += c;
        if (digits.size() == 2) {
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(digits, nullptr, 16)));
            digits.clear();
        }
    }
    return bytes;
}

Bytes rtp(std::uint8_t payloadType, std::uint16_t sequence, std::uint32_t timestamp, bool marker, const Bytes& payload,
          std::uint32_t source)
{
    Bytes packet{0x80, static_cast<std::uint8_t>(payloadType | (marker ? 0x80 : 0))};
    put16(packet, sequence);
    put32(packet, timestamp);
    put32(packet, source);
    packet.insert(packet.end(), payload.begin(), payload.end());
    return packet;
}

Bytes senderReport(std::uint32_t source, std::uint64_t ntp, std::uint32_t timestamp)
{
    Bytes packet{0x80, 200};
    put16(packet, 6);
    put32(packet, source);
    put32(packet, static_cast<std::uint32_t>(ntp >> 32));
    put32(packet, static_cast<std::uint32_t>(ntp));
    put32(packet, timestamp);
    put32(packet, 10);
    put32(packet, 1000);
    return packet;
}

Bytes byePacket(std::uint32_t source)
{
    Bytes packet{0x81, 203};
    put16(packet, 1);
    put32(packet, source);
    return packet;
}

Bytes interleaved(std::uint8_t channel, const Bytes& payload)
{
    Bytes frame{'$', channel};
    put16(frame, payload.size());
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

// A real encoder's, 320x240.
Bytes spsNal()
{
    return {0x67, 0x42, 0xc0, 0x0d, 0xd9, 0x01, 0x41, 0xfb, 0x01, 0x10, 0x00, 0x00,
            0x03, 0x00, 0x10, 0x00, 0x00, 0x03, 0x03, 0x20, 0xf1, 0x42, 0xa4, 0x80};
}

Bytes ppsNal()
{
    return {0x68, 0xcb, 0x83, 0xcb, 0x20};
}

Bytes idrNal(std::size_t bytes)
{
    Bytes nal(bytes, 0x5A);
    nal[0] = 0x65;
    nal[1] = 0x88;
    nal[2] = 0x84;  // of picture set 0
    return nal;
}

Bytes pictureNal(std::size_t bytes)
{
    Bytes nal(bytes, 0x3C);
    nal[0] = 0x41;
    nal[1] = 0x9A;
    return nal;
}

Bytes annexB(std::initializer_list<Bytes> nals)
{
    Bytes stream;
    for (const Bytes& nal : nals) {
        stream.insert(stream.end(), {0, 0, 0, 1});
        stream.insert(stream.end(), nal.begin(), nal.end());
    }
    return stream;
}

std::vector<Bytes> VideoSender::keyFrameRtp()
{
    std::vector<Bytes> packets;
    for (const auto& [nal, last] : {std::pair{spsNal(), false}, std::pair{ppsNal(), false}, std::pair{idrNal(), true}})
        packets.push_back(rtp(payloadType, sequence++, timestamp, last, nal));
    timestamp += 3600;
    return packets;
}

Bytes VideoSender::pictureRtp()
{
    Bytes packet = rtp(payloadType, sequence++, timestamp, true, pictureNal());
    timestamp += 3600;
    return packet;
}

Bytes VideoSender::keyFramePackets()
{
    Bytes all;
    for (const Bytes& packet : keyFrameRtp()) {
        const Bytes frame = interleaved(channel, packet);
        all.insert(all.end(), frame.begin(), frame.end());
    }
    return all;
}

Bytes VideoSender::picturePackets()
{
    return interleaved(channel, pictureRtp());
}

bool VideoSender::sendKeyFrame(ScriptedPeer::Connection& connection)
{
    return connection.write(keyFramePackets());
}

bool VideoSender::sendPicture(ScriptedPeer::Connection& connection)
{
    return connection.write(picturePackets());
}

void VideoSender::run(ScriptedPeer::Connection& connection, std::size_t frames, std::size_t period)
{
    bool there = true;
    for (std::size_t i = 0; i < frames && there; ++i)
        there = i % period == 0 ? sendKeyFrame(connection) : sendPicture(connection);
}
}  // namespace Tavro8::Utility::testkit
