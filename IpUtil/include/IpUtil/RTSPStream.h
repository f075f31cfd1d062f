#pragma once

#include <IpUtil/ConnectionInfo.h>
#include <IpUtil/ErrorCode.h>
#include <IpUtil/Export.h>
#include <IpUtil/ParametersContainer.h>
#include <IpUtil/Statistics.h>
#include <Tavro8/GDRV/MediaFrame.h>
#include <Tavro8/ILogger.h>
#include <boost/asio/ts/netfwd.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace Tavro8::Utility
{
class RTSPClient;
enum class RtspTransport;

enum class MediaKind : std::uint32_t { video, audio };

/// One who wants the frames of one kind from a stream. All operations are called on the stream's I/O thread.
class IPUTIL_API RTSPReceiver {
public:
    virtual ~RTSPReceiver() = default;

    virtual MediaKind mediaKind() const noexcept = 0;

    /// Called before each connection (right after `onConnectionStart`), and for a receiver that comes while one is
    /// being made: the receiver puts its settings and sink parameters on the client.
    virtual void initializeClient(RTSPClient& client) = 0;

    /// Called each time the client begins a connection.
    virtual void onConnectionStart() = 0;

    /// One frame; valid during the call.
    virtual void onFrame(const GDRV::MediaFrame& frame) noexcept = 0;

    /// The stream plays (success), or could not be set up for this receiver, or was lost; the stream goes on trying.
    virtual void onStreamState(const error_code& ec) = 0;
};

/// One RTSP stream of a device, shared by its receivers over one connection. It connects while it has a receiver,
/// reconnects when the connection breaks, nothing arrives or the format changes (at once when it had played for a
/// while, else with back-off), and closes when the last one has gone. Pictures that nobody takes any more while the
/// sound goes on are given up after some seconds, by a new connection without them. Of several video or audio tracks it
/// takes the first that can be received; tracks that the device marks `sendonly` are back channels and not for it.
///
/// Public operations may be called on any thread; they are carried out on `service()`.
class IPUTIL_API RTSPStream : public std::enable_shared_from_this<RTSPStream> {
public:
    /// What the stream needs of its device. All functions are called on `service()`, and must hold the device weakly
    /// or be safe until the stream's last receiver is gone.
    struct Hooks {
        /// The RTSP description to connect to now, with credentials; null while the device is not connected.
        std::function<std::shared_ptr<const asio::ConnectionInfo>()> connectionInfo;
        /// The path of the live URL, formed anew at each connect.
        std::function<std::string()> path;
        /// The stream was lost and the first attempt to re-establish it failed.
        std::function<void()> onLost;
        /// Held until the last connection of the stream has said goodbye; keeps the logger's owner, for example.
        std::shared_ptr<void> keepAlive = {};
    };

    RTSPStream(boost::asio::io_context& service, ILogger* logger, Hooks hooks);
    virtual ~RTSPStream();
    RTSPStream(const RTSPStream&) = delete;
    RTSPStream& operator=(const RTSPStream&) = delete;

    /// The I/O context on which the stream, its receivers and their statistics run.
    virtual boost::asio::io_context& service() const noexcept;

    /// Adds a receiver; the stream connects when it has one. A stream that plays without this receiver's kind of
    /// track is set up again with it; one that shares a running video track sees it begin with a key frame that names
    /// its parameter sets.
    virtual void regReceiver(const std::shared_ptr<RTSPReceiver>& receiver);

    /// Removes a receiver; `completion` (may be empty) runs on `service()` once nothing more reaches it.
    virtual void unregReceiver(const std::shared_ptr<RTSPReceiver>& receiver, std::function<void()> completion);

    /// Drops and re-establishes the connection.
    virtual void restart();

    /// Connects now if it is waiting, because the device has just become reachable.
    virtual void deviceConnected();

    /// Ends the connection and waits for `deviceConnected`, because the device is not to be used any more.
    virtual void deviceClosed();

    /// Counters of one receiver since it was registered; only on `service()`.
    virtual StreamCounters counters(const RTSPReceiver& receiver) const;

    /// How the media of the connection that plays come, `tcp` or `udp`, whatever was asked for; only on `service()`.
    virtual RtspTransport getTransport() const;

private:
    struct State;
    std::shared_ptr<State> state;
};

/// The live streams of one device: receivers of the same channel and stream share one `RTSPStream`.
class IPUTIL_API RTSPSource {
public:
    /// As `RTSPStream::Hooks`, for every stream of the device.
    struct Hooks {
        std::function<std::shared_ptr<const asio::ConnectionInfo>()> connectionInfo;
        std::function<std::string(std::uint32_t channel, std::uint32_t stream)> path;
        std::function<void()> onLost;
        std::shared_ptr<void> keepAlive = {};
    };

    RTSPSource(boost::asio::io_context& service, ILogger* logger, Hooks hooks);
    ~RTSPSource();
    RTSPSource(const RTSPSource&) = delete;
    RTSPSource& operator=(const RTSPSource&) = delete;

    /// The stream of that channel and number (both counted from 0), made when nobody holds one. Any thread.
    std::shared_ptr<RTSPStream> getStream(std::uint32_t channel, std::uint32_t stream);

    /// Tells all streams that the device has become reachable. Any thread.
    void deviceConnected();

    /// Tells all streams that the device is closed. Any thread.
    void deviceClosed();

private:
    struct State;
    std::unique_ptr<State> state;
};
}  // namespace Tavro8::Utility
