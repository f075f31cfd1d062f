#include "LoadSource.h"

#include "LoadRecording.h"
#include "LoadRequests.h"
#include "LoadSockets.h"

#include <algorithm>
#include <array>
#include <netinet/tcp.h>
#include <optional>
#include <queue>
#include <string>
#include <string_view>
#include <sys/epoll.h>
#include <vector>

namespace kelvo::bench
{
namespace
{
constexpr auto frameNs = static_cast<std::uint64_t>(LoadRecording::frameInterval.count());
// A receiver that lets so much pile up misses what follows.
constexpr std::size_t maxPendingBytes = std::size_t{4} * 1024 * 1024;
constexpr std::size_t maxInputBytes = std::size_t{64} * 1024;
// At full speed: so many groups of pictures, then the other connections have their turn.
constexpr int groupsPerTurn = 8;

/// What plays on one connection.
struct Playing {
    LoadTrack track;
    std::uint64_t frameStart = 0;   // when the first packet of the frame is due
    std::size_t packet = 0;         // the next one of the frame
    std::optional<Address> target;  // of the datagrams; none over TCP
    // At full speed: a recording of its own, which must keep its bytes until they have been taken.
    std::unique_ptr<LoadRecording> recording;
    std::size_t position = 0;
};

struct Connection {
    Descriptor socket;
    std::uint64_t serial = 0;
    bool http = false;
    bool wantsWrite = false;
    Address peer{};
    std::string input;
    std::string pending;  // what the system did not take
    std::size_t pendingAt = 0;
    bool session = false;
    std::optional<Playing> prepared;  // from SETUP to PLAY
    std::optional<Playing> playing;   // since PLAY

    std::size_t pendingBytes() const noexcept { return pending.size() - pendingAt; }
};

/// A packet that is due.
struct Due {
    std::uint64_t time;
    int socket;
    std::uint64_t serial;  // of the connection: descriptors are used again
    bool operator>(const Due& other) const noexcept { return time > other.time; }
};

std::span<const std::uint8_t> asBytes(std::string_view text)
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
}  // namespace

struct LoadSource::State {
    explicit State(const LoadOptions& loadOptions)
        : options(loadOptions),
          epoll(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
          http(listener()),
          rtsp(listener()),
          udp(bindUdpPair()),
          outbox(udp.rtp.get())
    {
        for (const int socket : {http.get(), rtsp.get(), udp.rtcp.get()})
            watch(socket, EPOLLIN);
    }

    void watch(int socket, std::uint32_t events, int operation = EPOLL_CTL_ADD)
    {
        epoll_event event{};
        event.events = events;
        event.data.fd = socket;
        checked(::epoll_ctl(epoll.get(), operation, socket, &event), "epoll_ctl");
    }

    void serve(int commands, LoadSource& owner, void (*onCommand)(LoadSource&));
    bool onCommands(int commands, LoadSource& owner, void (*onCommand)(LoadSource&));
    void onReady(const epoll_event& event);
    void acceptAll(int listening);
    void discardReports();
    void onReadable(Connection& connection);
    bool takeHttp(Connection& connection);
    bool takeRtsp(Connection& connection);
    void answer(Connection& connection, std::string_view head);
    std::string prepare(Connection& connection, const std::string& transport);
    void play(Connection& connection);
    void stop(Connection& connection);
    void send(Connection& connection, std::span<const std::uint8_t> bytes);
    void flush(Connection& connection);
    void setWriteWatch(Connection& connection, bool wanted);
    void drop(Connection& connection);

    void sendDue(std::uint64_t now);
    std::uint64_t sendFrame(Connection& connection);
    std::uint64_t sendPacket(Connection& connection);
    void emit(Connection& connection, std::span<const std::uint8_t> bytes);
    void count(std::size_t frame);
    bool isOver(const Playing& playing) const { return options.frames != 0 && playing.track.frame >= options.frames; }
    void pump(Connection& connection);
    void beginGroup(Playing& playing);

    const LoadOptions options;
    Descriptor epoll;
    Descriptor http;
    Descriptor rtsp;
    UdpPair udp;
    Outbox outbox;
    LoadRecording recording;
    std::vector<std::unique_ptr<Connection>> connections;  // by descriptor
    std::priority_queue<Due, std::vector<Due>, std::greater<>> schedule;
    std::uint64_t nextSerial = 0;
    std::uint32_t nextStream = 0;
    std::string commandInput;
    Totals totals;
};

// ---- the loop -------------------------------------------------------------------------------------------------

void LoadSource::State::serve(int commands, LoadSource& owner, void (*onCommand)(LoadSource&))
{
    watch(commands, EPOLLIN);
    std::array<epoll_event, 256> events{};
    for (;;) {
        timespec wait{};
        if (!schedule.empty()) {
            const std::uint64_t now = monotonicNs();
            const std::uint64_t due = schedule.top().time;
            const std::uint64_t ns = due > now ? due - now : 0;
            wait.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
            wait.tv_nsec = static_cast<long>(ns % 1'000'000'000);
        }
        const int count = ::epoll_pwait2(epoll.get(), events.data(), static_cast<int>(events.size()),
                                         schedule.empty() ? nullptr : &wait, nullptr);
        if (count < 0 && errno != EINTR)
            checked(count, "epoll_pwait2");
        for (int i = 0; i < count; ++i) {
            if (events[static_cast<std::size_t>(i)].data.fd != commands)
                onReady(events[static_cast<std::size_t>(i)]);
            else if (!onCommands(commands, owner, onCommand))
                return;
        }
        sendDue(monotonicNs());
    }
}

bool LoadSource::State::onCommands(int commands, LoadSource& owner, void (*onCommand)(LoadSource&))
{
    std::array<char, 256> text{};
    const ssize_t count = ::read(commands, text.data(), text.size());
    if (count <= 0)
        return false;
    const auto lines = std::count(text.data(), text.data() + count, '\n');
    for (auto i = lines; i > 0; --i)
        onCommand(owner);
    return true;
}

void LoadSource::State::onReady(const epoll_event& event)
{
    const int socket = event.data.fd;
    if (socket == http.get() || socket == rtsp.get())
        return acceptAll(socket);
    if (socket == udp.rtcp.get())
        return discardReports();
    const auto index = static_cast<std::size_t>(socket);
    if (index >= connections.size() || connections[index] == nullptr)
        return;  // gone within this turn
    Connection& connection = *connections[index];
    if ((event.events & EPOLLOUT) != 0)
        flush(connection);
    if ((event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0)
        onReadable(connection);
}

void LoadSource::State::acceptAll(int listening)
{
    for (;;) {
        Address peer{};
        socklen_t length = sizeof peer;
        Descriptor socket(
            ::accept4(listening, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket.get() < 0)
            return;
        const int noDelay = 1;
        ::setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof noDelay);
        const auto index = static_cast<std::size_t>(socket.get());
        if (index >= connections.size())
            connections.resize(index + 1);
        watch(socket.get(), EPOLLIN);
        auto connection = std::make_unique<Connection>();
        connection->socket = std::move(socket);
        connection->serial = ++nextSerial;
        connection->http = listening == http.get();
        connection->peer = peer;
        connections[index] = std::move(connection);
    }
}

void LoadSource::State::discardReports()
{
    std::array<char, 2048> report{};
    while (::recv(udp.rtcp.get(), report.data(), report.size(), 0) > 0) {
    }
}

void LoadSource::State::drop(Connection& connection)
{
    connections[static_cast<std::size_t>(connection.socket.get())].reset();
}

// ---- requests -------------------------------------------------------------------------------------------------

void LoadSource::State::onReadable(Connection& connection)
{
    std::array<char, 4096> bytes{};
    const ssize_t count = ::recv(connection.socket.get(), bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0 || connection.input.size() > maxInputBytes)
        return drop(connection);
    connection.input.append(bytes.data(), static_cast<std::size_t>(count));
    while (connection.http ? takeHttp(connection) : takeRtsp(connection)) {
    }
}

bool LoadSource::State::takeHttp(Connection& connection)
{
    const std::size_t end = connection.input.find("\r\n\r\n");
    if (end == std::string::npos)
        return false;
    const std::size_t path = connection.input.find(' ') + 1;
    const std::string wanted = connection.input.substr(path, connection.input.find(' ', path) - path);
    connection.input.erase(0, end + 4);
    send(connection, asBytes(managementReply(wanted, portOf(http.get()), portOf(rtsp.get()))));
    return true;
}

bool LoadSource::State::takeRtsp(Connection& connection)
{
    std::string& input = connection.input;
    if (input.starts_with('$')) {  // a receiver report
        if (input.size() < 4)
            return false;
        const auto byteAt = [&](std::size_t at) {
            return static_cast<std::size_t>(static_cast<unsigned char>(input[at]));
        };
        const std::size_t length = 4 + byteAt(2) * 256 + byteAt(3);
        if (input.size() < length)
            return false;
        input.erase(0, length);
        return true;
    }
    const std::size_t end = input.find("\r\n\r\n");
    if (end == std::string::npos)
        return false;
    const std::string head = input.substr(0, end + 2);
    const std::size_t length = end + 4 + numberAfter(lower(head), "content-length:").value_or(0);
    if (input.size() < length)
        return false;
    input.erase(0, length);
    answer(connection, head);
    return true;
}

void LoadSource::State::answer(Connection& connection, std::string_view head)
{
    const std::string text = lower(head);
    const auto is = [&](std::string_view method) { return head.starts_with(method) && head[method.size()] == ' '; };
    std::string status = "200 OK";
    std::string fields;
    std::string body;
    if (is("OPTIONS")) {
        fields = "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN, GET_PARAMETER\r\n";
    } else if (is("DESCRIBE")) {
        body = LoadRecording::describe();
        fields = "Content-Type: application/sdp\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    } else if (is("SETUP")) {
        fields = prepare(connection, text);
        status = fields.empty() ? "461 Unsupported Transport" : status;
    } else if (is("PLAY") && !connection.session) {
        status = "455 Method Not Valid In This State";
    } else if (is("TEARDOWN")) {
        stop(connection);
    } else if (!is("PLAY") && !is("GET_PARAMETER")) {
        status = "501 Not Implemented";
    }
    const std::string session = connection.session ? "Session: 1;timeout=60\r\n" : "";
    const std::string reply = "RTSP/1.0 " + status +
                              "\r\nCSeq: " + std::to_string(numberAfter(text, "cseq:").value_or(0)) + "\r\n" + session +
                              fields + "\r\n" + body;
    if (options.pace == LoadPace::full && connection.playing)
        return;  // no place between the packets; nobody measures for longer than a session's time-out
    send(connection, asBytes(reply));
    if (is("PLAY") && connection.prepared)
        play(connection);
}

/// The fields of the answer to SETUP; empty when the transport cannot be had.
std::string LoadSource::State::prepare(Connection& connection, const std::string& transport)
{
    Playing prepared;
    LoadTrack& track = prepared.track;
    track.stream = nextStream++;
    track.ssrc = 0x4c000000U + track.stream;
    track.sequence = static_cast<std::uint16_t>(track.stream * 97);
    track.timestamp = track.stream * 12345;
    std::string fields;
    if (transport.find("rtp/avp/tcp") != std::string::npos) {
        track.channel = static_cast<std::uint8_t>(numberAfter(transport, "interleaved=").value_or(0));
        fields = "Transport: RTP/AVP/TCP;unicast;interleaved=" + std::to_string(track.channel) + '-' +
                 std::to_string(track.channel + 1) + "\r\n";
    } else {
        const auto port = numberAfter(transport, "client_port=");
        if (!port || options.pace == LoadPace::full)
            return {};
        track.interleaved = false;
        prepared.target = connection.peer;
        prepared.target->sin_port = htons(*port);
        const std::uint16_t server = portOf(udp.rtp.get());
        fields = "Transport: RTP/AVP;unicast;client_port=" + std::to_string(*port) + '-' + std::to_string(*port + 1) +
                 ";server_port=" + std::to_string(server) + '-' + std::to_string(server + 1) + "\r\n";
    }
    connection.prepared = std::move(prepared);
    connection.session = true;
    return fields;
}

void LoadSource::State::play(Connection& connection)
{
    connection.playing = std::exchange(connection.prepared, std::nullopt);
    Playing& playing = *connection.playing;
    if (options.pace == LoadPace::full) {
        playing.recording = std::make_unique<LoadRecording>();
        beginGroup(playing);
        setWriteWatch(connection, true);
        return;
    }
    // The golden section spreads any number of streams evenly.
    const auto phase =
        static_cast<std::uint64_t>(playing.track.stream) * 618'033'989 % 1'000'000'000 * frameNs / 1'000'000'000;
    const std::uint64_t now = monotonicNs();
    playing.frameStart = (now / frameNs + 1) * frameNs + phase;
    schedule.push({playing.frameStart, connection.socket.get(), connection.serial});
}

void LoadSource::State::stop(Connection& connection)
{
    if (connection.playing && connection.playing->recording != nullptr) {  // the packet under way is sent to its end
        const Playing& playing = *connection.playing;
        if (playing.position != 0) {
            const std::size_t end = playing.recording->packetEnd(playing.position - 1);
            const auto rest = playing.recording->allBytes().subspan(playing.position, end - playing.position);
            connection.pending.append(reinterpret_cast<const char*>(rest.data()), rest.size());
        }
        setWriteWatch(connection, !connection.pending.empty());
    }
    connection.playing.reset();
    connection.prepared.reset();
    connection.session = false;
}

// ---- writing --------------------------------------------------------------------------------------------------

void LoadSource::State::send(Connection& connection, std::span<const std::uint8_t> bytes)
{
    ssize_t sent = 0;
    if (connection.pendingBytes() == 0)
        sent = ::send(connection.socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    const auto rest = bytes.subspan(static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
    if (rest.empty())
        return;
    connection.pending.append(reinterpret_cast<const char*>(rest.data()), rest.size());
    setWriteWatch(connection, true);
}

void LoadSource::State::flush(Connection& connection)
{
    while (connection.pendingBytes() != 0) {
        const ssize_t sent = ::send(connection.socket.get(), connection.pending.data() + connection.pendingAt,
                                    connection.pendingBytes(), MSG_NOSIGNAL);
        if (sent <= 0)
            return;
        connection.pendingAt += static_cast<std::size_t>(sent);
    }
    connection.pending.clear();
    connection.pendingAt = 0;
    if (connection.playing && connection.playing->recording != nullptr)
        pump(connection);
    else
        setWriteWatch(connection, false);
}

void LoadSource::State::setWriteWatch(Connection& connection, bool wanted)
{
    if (std::exchange(connection.wantsWrite, wanted) != wanted)
        watch(connection.socket.get(), wanted ? EPOLLIN | EPOLLOUT : EPOLLIN, EPOLL_CTL_MOD);
}

// ---- media by the clock ---------------------------------------------------------------------------------------

void LoadSource::State::sendDue(std::uint64_t now)
{
    while (!schedule.empty() && schedule.top().time <= now) {
        const Due due = schedule.top();
        schedule.pop();
        const auto& connection = connections[static_cast<std::size_t>(due.socket)];
        if (connection == nullptr || connection->serial != due.serial || !connection->playing)
            continue;
        const std::uint64_t next = options.pace == LoadPace::burst ? sendFrame(*connection) : sendPacket(*connection);
        if (!isOver(*connection->playing))
            schedule.push({next, due.socket, due.serial});
    }
    outbox.flush();
}

/// The frame of the recording that is the track's next one: a key frame first, as cameras do, and then the group of
/// pictures from a place that differs from stream to stream.
std::size_t frameOf(const LoadTrack& track)
{
    return track.frame == 0 ? 0 : (std::size_t{track.stream} * 7 + track.frame) % LoadRecording::framesPerGroup;
}

/// Sends a whole frame; returns when the next one is due.
std::uint64_t LoadSource::State::sendFrame(Connection& connection)
{
    Playing& playing = *connection.playing;
    const std::size_t frame = frameOf(playing.track);
    const std::size_t packets = recording.packetCount(frame);
    for (std::size_t i = 0; i < packets; ++i)
        recording.address(frame, i, playing.track);
    recording.finish(frame, monotonicNs(), playing.track);
    if (playing.target) {
        for (std::size_t i = 0; i < packets; ++i)
            outbox.add(recording.packet(frame, i).subspan(4), *playing.target);
        outbox.flush();
        totals.datagrams += packets;
        totals.wireBytes += recording.frameBytes(frame).size() - 4 * packets;
    } else if (connection.pendingBytes() > maxPendingBytes) {
        totals.skippedPackets += packets;
    } else {
        send(connection, recording.frameBytes(frame));
        totals.wireBytes += recording.frameBytes(frame).size();
    }
    totals.wirePackets += packets;
    count(frame);
    return playing.frameStart += frameNs;
}

/// Sends the next packet; returns when the one behind it is due.
std::uint64_t LoadSource::State::sendPacket(Connection& connection)
{
    Playing& playing = *connection.playing;
    const std::size_t frame = frameOf(playing.track);
    const std::size_t packets = recording.packetCount(frame);
    const std::size_t index = playing.packet++;
    const bool last = playing.packet == packets;
    recording.address(frame, index, playing.track);
    if (last)
        recording.finish(frame, monotonicNs(), playing.track);
    emit(connection, recording.packet(frame, index));
    if (!last)
        return playing.frameStart + frameNs * playing.packet / packets;
    playing.packet = 0;
    count(frame);
    return playing.frameStart += frameNs;
}

void LoadSource::State::emit(Connection& connection, std::span<const std::uint8_t> bytes)
{
    ++totals.wirePackets;
    if (const auto& target = connection.playing->target) {
        outbox.add(bytes.subspan(4), *target);
        ++totals.datagrams;
        totals.wireBytes += bytes.size() - 4;
    } else if (connection.pendingBytes() > maxPendingBytes) {
        ++totals.skippedPackets;
    } else {
        send(connection, bytes);
        totals.wireBytes += bytes.size();
    }
}

void LoadSource::State::count(std::size_t frame)
{
    ++totals.frames;
    totals.keyFrames += LoadRecording::isKey(frame) ? 1U : 0U;
    totals.elementBytes += recording.elementBytes(frame);
}

// ---- media at full speed --------------------------------------------------------------------------------------

void LoadSource::State::beginGroup(Playing& playing)
{
    playing.position = 0;
    for (std::size_t frame = 0; frame < LoadRecording::framesPerGroup; ++frame) {
        for (std::size_t i = 0; i < playing.recording->packetCount(frame); ++i)
            playing.recording->address(frame, i, playing.track);
        playing.recording->finish(frame, monotonicNs(), playing.track);
    }
}

void LoadSource::State::pump(Connection& connection)
{
    Playing& playing = *connection.playing;
    const auto bytes = playing.recording->allBytes();
    for (int groups = 0; groups < groupsPerTurn;) {
        const auto rest = bytes.subspan(playing.position);
        const ssize_t sent = ::send(connection.socket.get(), rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent <= 0)
            return;
        playing.position += static_cast<std::size_t>(sent);
        totals.wireBytes += static_cast<std::size_t>(sent);
        if (playing.position < bytes.size())
            continue;
        ++groups;
        for (std::size_t frame = 0; frame < LoadRecording::framesPerGroup; ++frame) {
            totals.wirePackets += recording.packetCount(frame);
            count(frame);
        }
        if (isOver(playing))
            return setWriteWatch(connection, false);
        beginGroup(playing);
    }
}

// ---- the public face ------------------------------------------------------------------------------------------

LoadSource::LoadSource(const LoadOptions& options) : state(std::make_unique<State>(options)) {}

LoadSource::~LoadSource() = default;

std::uint16_t LoadSource::httpPort() const noexcept
{
    return portOf(state->http.get());
}

std::uint16_t LoadSource::rtspPort() const noexcept
{
    return portOf(state->rtsp.get());
}

const LoadSource::Totals& LoadSource::totals() const noexcept
{
    return state->totals;
}

void LoadSource::run(int commands, void (*onCommand)(LoadSource& source))
{
    state->serve(commands, *this, onCommand);
}
}  // namespace kelvo::bench
