#pragma once

#include "media/MediaClock.h"
#include "rtsp/StreamContext.h"

#include <IpUtil/ConnectionPolicy.h>
#include <IpUtil/Logger.h>
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/RTSPClient.h>
#include <IpUtil/RTSPStream.h>
#include <array>
#include <atomic>
#include <boost/asio/steady_timer.hpp>
#include <boost/container/small_vector.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <random>
#include <vector>

namespace Tavro8::Utility
{
/// What a stream does on its I/O context. Handlers in flight hold it, those of the client weakly; the public object
/// only posts to it.
struct RTSPStream::State final : private StreamContext::Client, public std::enable_shared_from_this<State> {
    State(boost::asio::io_context& io, ILogger* hostLogger, Hooks deviceHooks);
    ~State() override;

    boost::asio::io_context& service;
    const std::shared_ptr<LoggerDetail::CollapsingLogger> failures;  // attempts repeat, their failures too
    LoggerHelper logger;
    /// Nothing may be posted any more. Set when the context is destroyed, read by the destructor of the stream.
    std::atomic<bool> contextGone{false};

    void add(const std::shared_ptr<RTSPReceiver>& receiver);
    void remove(const std::shared_ptr<RTSPReceiver>& receiver);
    void restart();
    void onDeviceConnected();
    void onDeviceClosed();
    /// The public object has gone.
    void shutDown();
    StreamCounters counters(const RTSPReceiver& receiver) const;
    RtspTransport getTransport() const noexcept;

private:
    enum class Phase : std::uint8_t {
        idle,              // no receiver
        waitingForDevice,  // no connection description
        waitingForRetry,
        connecting,  // until the description is there
        settingUp,   // until PLAY was answered
        playing,
        reconnecting  // the old session is being ended
    };

    struct Registration {
        std::shared_ptr<RTSPReceiver> receiver;
        MediaKind kind{};       // as the receiver says
        bool joining = false;   // came while frames flowed, and has not had a key frame yet
        StreamCounters before;  // of its kind, when it was registered
    };

    /// One kind of media, whichever connection brings it.
    struct Kind {
        bool described = false;  // the device offers a track that can be received
        bool requested = false;  // it was to be set up in the present connection
        std::weak_ptr<RTSPTrack> track;
        StreamCounters finished;  // of the connections that have ended
        std::optional<media::MediaClock::Carry> clock;
        std::vector<std::uint8_t> parameterSets;  // that hold now, for receivers that join
        bool missingReported = false;
    };

    // StreamContext::Client
    void onTick(std::chrono::steady_clock::time_point) override {}
    void onContextShutdown() noexcept override;

    void connect();
    void onEnded(const error_code&) { connect(); }
    void prepareClient();
    void chooseTransport();
    void learnTransport();
    void onSession(const error_code& ec);
    void onSdp(const error_code& ec, const SessionDescription& description);
    void onPlay(const error_code& ec);
    void onClosed(const error_code& ec);
    void chooseTracks(const SessionDescription& description);
    bool offerTrack(const SdpTrack& track, MediaKind kind);
    void listHotMemory(MediaKind kind);
    void deliver(MediaKind kind, const GDRV::MediaFrame& frame);
    void deliverToJoining(Registration& registration, const GDRV::MediaFrame& frame);
    void onAttemptFailed(const error_code& ec);
    void retryAfter(std::chrono::milliseconds delay);
    void onHealthy(const error_code& ec);
    bool hasLeftoverVideo() const;
    void watchLeftover();
    void onLeftover(const error_code& ec);
    void reconnect();
    void endConnection();
    void collectCounters();
    bool isSetUp(MediaKind kind) const;
    bool wants(MediaKind kind) const;
    void introduce(RTSPReceiver& receiver);
    void tellState(MediaKind kind, const error_code& ec);
    void tellAll(const error_code& ec);
    error_code stateOf(MediaKind kind) const;
    StreamCounters totals(MediaKind kind) const;

    Kind& of(MediaKind kind) { return kinds[static_cast<std::size_t>(kind)]; }
    const Kind& of(MediaKind kind) const { return kinds[static_cast<std::size_t>(kind)]; }

    /// A handler of the present connection: runs only while the stream lives and the connection is the same.
    template <typename Method>
    auto bound(Method method)
    {
        return [weak = weak_from_this(), number = connectionNumber, method](const auto&... arguments) {
            const auto self = weak.lock();
            if (self != nullptr && self->connectionNumber == number)
                ((*self).*method)(arguments...);
        };
    }

    const StreamTiming timing;
    Hooks hooks;
    Phase phase = Phase::idle;
    // Changed only in handlers of their own, never while frames are told. Pictures and sound of one taker each need no
    // memory elsewhere, which would have left the caches when the next frame comes.
    boost::container::small_vector<Registration, 2> registrations;
    bool framesFlowed = false;  // in the present connection
    std::array<Kind, 2> kinds;
    std::shared_ptr<RTSPClient> client;
    std::optional<RtspTransport> wantedTransport;  // by the parameters, at the last connection
    // What has worked instead, until it does not any more or the device is connected anew.
    std::optional<RtspTransport> learntTransport;
    std::optional<RtspTransport> playedOver;  // what the client took when the present connection began to play
    std::uint64_t connectionNumber = 0;       // tells handlers of an older connection from those of this one
    std::optional<boost::asio::steady_timer> retryTimer;
    std::optional<boost::asio::steady_timer> healthTimer;
    std::optional<boost::asio::steady_timer> leftoverTimer;
    Backoff backoff;
    std::minstd_rand random;
    std::chrono::steady_clock::time_point playingSince;
    bool played = false;  // at any time since the first receiver came
    bool lost = false;    // it played, and no attempt has been made since
};
}  // namespace Tavro8::Utility
