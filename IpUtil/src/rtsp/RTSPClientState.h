#pragma once

#include "rtsp/RtpPorts.h"
#include "rtsp/RtspConnection.h"
#include "rtsp/RtspTrack.h"
#include "rtsp/StreamContext.h"
#include "wire/RtspClientSession.h"

#include <IpUtil/LoggerHelper.h>
#include <IpUtil/RTSPClient.h>
#include <Tavro8/ResultCode.h>
#include <array>
#include <boost/container/static_vector.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Tavro8::Utility
{
/// What a failure of the session is for the host, and its words for the log.
ResultCode resultOf(const wire::RtspClientSession::Failed& failed);
std::string describeFailure(const wire::RtspClientSession::Failed& failed);

/// The RTSP client: feeds the session with the connection's messages, sends what it wants sent, gives media to the
/// tracks, and watches the time. All of it runs on the I/O context.
struct RTSPClient::State final : private StreamContext::Client,
                                 private RtspConnection::Events,
                                 private RtpPorts::Events {
    using TimePoint = std::chrono::steady_clock::time_point;

    enum class Phase : std::uint8_t {
        idle,
        connecting,
        connected,    // until `performDefaultSteps`
        negotiating,  // until PLAY was answered
        playing,
        closing,  // TEARDOWN is out
        closed,
    };

    State(boost::asio::io_context& io, std::shared_ptr<ILogger> hostLogger);
    ~State() override;

    void initialize(const std::shared_ptr<const asio::ConnectionInfo>& info, const std::string& path,
                    Completion handleSession);
    /// `recorded`: the session waits for `playRecorded` instead of playing at once.
    void performDefaultSteps(const Headers& headers, SdpHandler handleSdp, Completion handlePlay, bool recorded);
    void playRecorded(const RecordedPlay& wanted, PlayHandler handlePlay);
    void pauseRecorded(Completion handlePause);
    std::weak_ptr<RTSPTrack> addTrack(TrackInitializer initializer);
    void sendPacket(const std::weak_ptr<RTSPTrack>& weakTrack, const std::vector<std::uint8_t>& payload,
                    std::uint32_t timestamp, Completion handleWritePacket);
    void teardown(Completion completion);

    RTSPClient* owner = nullptr;  // set right after construction, holds this object
    boost::asio::io_context& service;
    const std::shared_ptr<ILogger> loggerOwner;
    LoggerHelper logger;

    RtspTransport transport = RtspTransport::tcp;
    std::optional<RtspTransport> learntTransport;  // what to use instead next time
    std::chrono::milliseconds connectTimeout = DEFAULT_CONNECT_TIMEOUT;
    std::chrono::milliseconds stallTimeout{5000};
    std::optional<RtspMethod> keepAliveMethod;
    VideoSinkParams videoSink;
    AudioSinkParams audioSink;
    Completion onClosed;
    std::function<void()> onEnd;

private:
    static constexpr std::size_t maxTracks = 8;
    static constexpr std::uint8_t nobody = 0xFF;
    // A device that reads nothing gets no more reports, packets, keep-alives and answers once so much waits for it.
    static constexpr std::size_t maxQueuedBytes = 256 * 1024;

    // StreamContext::Client
    void onTick(TimePoint now) override;
    void onContextShutdown() noexcept override;

    // RtspConnection::Events
    void onConnected() override;
    void onReading() noexcept override;
    void onMessage(const wire::RtspMessage& message) override;
    void onInterleaved(const wire::InterleavedFrame& frame, const media::ArrivalTime& arrival) override;
    void onBroken(const error_code& ec, const std::string& reason) override;

    // RtpPorts::Events
    void onRtpDatagram(std::size_t track, wire::ByteView bytes, const media::ArrivalTime& arrival) override;
    void onRtcpDatagram(std::size_t track, wire::ByteView bytes, const media::ArrivalTime& arrival) override;
    void onTruncatedDatagram(std::size_t track) override;
    void onPortsBroken(const error_code& ec, const std::string& reason) override;

    // Both
    std::shared_ptr<void> keepAlive() override;

    void perform(wire::RtspClientSession::Step step);
    void send(const wire::RtspClientSession::Send& out);
    void onDescribed();
    void onPlaying();
    void onKeepAliveRefused(unsigned status);
    void beginSupervision();

    void onReady();
    void onRecordedPlaying();
    void onPaused();
    void onRefused(const wire::RtspClientSession::Failed& why);
    void sendPlay();
    bool namesScale() const noexcept;
    bool canAskForLess(const wire::RtspClientSession::Failed& why) const noexcept;
    void askForLess();
    bool awaitsPlayOrPause() const noexcept { return playAsked || onPauseDone; }
    template <typename Body>
    void forEachReceiving(Body&& body);
    void rest();
    void awaitNewPlace(bool awaited) noexcept;
    bool isOfNewPlace(bool rtcp, wire::ByteView packet);
    void beginAsAsked();
    void continueAsAnswered(RTSPTrack& track);
    void beginAsAnswered(RTSPTrack& track);
    bool isNearEnd();
    const wire::RtspTrack* agreedOf(const RTSPTrack& track) const;
    media::RecordedClock::Start startAsAsked() const;
    media::RecordedClock::Start startAsAnswered(const RTSPTrack& track) const;
    bool isAtEnd();
    void noticeEnd();
    void reachEnd();
    void forgetHandlers() noexcept;

    wire::RtspTrackRequest requestOf(RTSPTrack& track);
    void reportSmallBuffer(const RtpPorts& ports);
    void establishTracks();
    void establish(std::size_t number, const wire::RtspTrack& agreed);
    void learnTransport(bool refusesInterleaved);
    void giveUpUdp();
    void shareChannels(std::size_t number);
    void onRtcp(RTSPTrack& track, wire::ByteView packet, const media::ArrivalTime& arrival);
    void onSharedChannel(RTSPTrack& named, bool rtcp, wire::ByteView packet, const media::ArrivalTime& arrival);
    RTSPTrack* playingTrack(std::size_t number) const noexcept;
    void deliverRtp(RTSPTrack& track, wire::ByteView packet, const media::ArrivalTime& arrival);
    template <typename Body>
    void whileDelivering(Body&& body);

    /// Why a stream is not worth going on with.
    struct Ending {
        ResultCode result;
        const char* reason;     // a part of a sentence
        bool byUdp = false;     // it never began: the other transport may do better
        bool farewell = false;  // of the device: nothing more comes
    };

    void judgeTime(TimePoint now);
    void supervise(TimePoint now);
    bool watchProgress(TimePoint now);
    void handOutLast();
    std::optional<Ending> judge(RTSPTrack& track, bool vital, TimePoint now);
    std::optional<Ending> judgeSilence(const RTSPTrack& track, const media::TrackReceiver::Statistics& total,
                                       std::chrono::steady_clock::duration silence, TimePoint now) const;
    void reportSilentSound();
    void warnOfOddities();
    void sendReports(TimePoint now);
    std::chrono::milliseconds keepAliveInterval() const;

    void fail(const error_code& ec, const char* step, const std::string& reason);
    void sayGoodBye();
    void sayByeToPorts();
    void finishTeardown();
    void close() noexcept;
    void dropTracks();
    void tell(const Completion& completion, const error_code& ec) const noexcept;
    void postResult(Completion completion, ResultCode result);

    const StreamTiming timing;
    std::optional<wire::RtspClientSession> session;
    std::string url;  // without credentials
    wire::Credentials credentials;
    error_code lastFailure;
    wire::RtspStepKind waitingFor = wire::RtspStepKind::options;

    // What is told next; each is taken out before it is called, since it may tear down or be replaced.
    Completion onSession;
    SdpHandler onSdp;
    Completion onPlay;
    std::vector<Completion> onTornDown;
    PlayHandler onPlayDone;
    Completion onPauseDone;

    // Recorded media.
    bool recorded = false;
    bool resting = false;                               // no media are due: not begun, paused or at the end
    std::optional<RecordedPlay> playAsked;              // while its answer is awaited
    bool askedAgain = false;                            // for less, since the device has refused
    RecordedPlay playTaken;                             // the last that the device has accepted
    bool awaitsNewPlace = false;                        // it rested: what comes next is of the place that is asked for
    std::optional<RecordedPlay::Interval> placePlayed;  // by the last PLAY that named one and was accepted

    std::uint32_t ownSource;  // SSRC of our receiver reports
    TimePoint deadline;
    TimePoint nextKeepAlive;
    TimePoint nextReport;
    TimePoint playingSince;
    bool refusalReported = false;
    bool skipReported = false;
    bool strayReported = false;
    bool malformedReported = false;
    bool ignoredReported = false;
    bool silentSoundReported = false;
    bool sharingReported = false;
    bool addingTracks = false;

    // What each packet needs stands side by side, behind the same of the connection.
    RtspConnection connection;
    Phase phase = Phase::idle;
    bool channelsShared = false;
    bool takesDetour = false;  // channels are shared, or a new place is awaited
    bool delivering = false;
    boost::container::static_vector<std::shared_ptr<RTSPTrack>, maxTracks> tracks;
    std::array<std::uint8_t, 256> channelTable;  // interleaved channel -> 2 * track, + 1 for RTCP
};
}  // namespace Tavro8::Utility
