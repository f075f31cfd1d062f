#pragma once

#include "AudioInput.h"
#include "Fault.h"
#include "ImageSettings.h"
#include "Options.h"
#include "StreamEncoding.h"

#include <json/value.h>

#include <boost/asio/ip/tcp.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace simulator
{

class TalkBack;

/// Live media over RTSP by GStreamer's server, on connections that others have accepted. Each stream is encoded once,
/// while anyone watches it, and shared by its clients; one that asks to speak to the device has it for itself. The
/// operations are called on the I/O context; clients are handled on a thread of their own, and GStreamer encodes on
/// further ones.
class MediaServer {
public:
    using Caption = std::function<std::string(unsigned channel)>;

    /// Throws std::runtime_error with a sentence when GStreamer lacks something or the media file cannot be served.
    /// `faults` and `talkBack` are not owned and outlive the server. With a media file, `options` receives its codec,
    /// size and frame rate; the test picture shows in each frame what `caption` says of its channel, asked on any
    /// thread.
    MediaServer(Options& options, const std::string& realm, const FaultTable& faults, TalkBack& talkBack,
                Caption caption);
    ~MediaServer();
    MediaServer(const MediaServer&) = delete;
    MediaServer& operator=(const MediaServer&) = delete;

    /// The paths served, channel by channel, main stream first.
    std::vector<std::string> paths() const;

    using ConnectionId = std::uint64_t;
    /// Serves a connection until either side closes it; nothing when it is closed already.
    std::optional<ConnectionId> serve(boost::asio::ip::tcp::socket socket);
    /// Closes a connection, if it still is there.
    void close(ConnectionId connection);
    void closeAll();

    /// A sentence why no stream can be encoded so; nothing when it can.
    std::optional<std::string> refuseEncoding(const StreamEncoding& encoding) const;
    /// Encodes a stream so from now on. One that keeps its format goes on; of another format the clients learn as the
    /// option `formatChange` says.
    void encode(unsigned channel, unsigned stream, const StreamEncoding& encoding);
    /// The same without a connection closed: a running stream goes on with the new size, and with its codec until it
    /// is described anew. Until then both run beside each other.
    void encodeBesideRunning(unsigned channel, unsigned stream, const StreamEncoding& encoding);

    /// At once, in all streams of the channel.
    void show(unsigned channel, const PictureLook& look);
    void hear(unsigned channel, const Microphone& microphone);

    /// Ends sessions whose client has been silent for too long; to be called every few seconds.
    void expireSessions();

    /// {"connections", "requests": {"DESCRIBE": n...}, "streams": [{"path", "clients", "frames", ...}]}
    Json::Value counters() const;
    void clearCounters();

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace simulator
