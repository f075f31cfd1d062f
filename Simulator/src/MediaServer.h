#pragma once

#include "Fault.h"
#include "Options.h"

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

/// Live media over RTSP by GStreamer's server, on connections that others have accepted. Each stream is encoded once,
/// while anyone watches it, and shared by its clients. The operations are called on the I/O context; clients are
/// handled on a thread of their own, and GStreamer encodes on further ones.
class MediaServer {
public:
    using Caption = std::function<std::string(unsigned channel)>;

    /// Throws std::runtime_error with a sentence when GStreamer lacks something or the media file cannot be served.
    /// `faults` is not owned and outlives the server. With a media file, `options` receives its codec, size and
    /// frame rate; the test picture shows in each frame what `caption` says of its channel, asked on any thread.
    MediaServer(Options& options, const std::string& realm, const FaultTable& faults, Caption caption);
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

    /// Changes the test picture of the main streams as a user of the device would. A running stream goes on with the
    /// new size; the codec holds for streams described from now on, beside those that run. Nothing, or a sentence why
    /// it cannot be.
    std::optional<std::string> changePicture(std::optional<Codec> codec, std::optional<Size> size);

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
