#pragma once

#include "wire/Auth.h"
#include "wire/RtspMessage.h"
#include "wire/Sdp.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Tavro8::wire
{
/// Why an RTSP session ended. See `describe`.
enum class RtspError : std::uint8_t {
    none,
    wrongCredentials,       ///< 401 in spite of an answer to the challenge
    authenticationMissing,  ///< 401 and we have no user name and password
    authenticationUnknown,  ///< 401 with no challenge that we can answer
    forbidden,              ///< 403
    notFound,               ///< 404: no such stream
    sessionNotFound,        ///< 454
    unsupportedTransport,   ///< 461, or a transport in the answer that was not asked for
    notEnoughBandwidth,     ///< 453: often the limit of viewers
    serviceUnavailable,     ///< 503: often the limit of viewers
    optionNotSupported,     ///< 551: a feature named by Require is missing
    redirected,             ///< 3xx: never followed
    requestRefused,         ///< any other 4xx, or a status that no RTSP answer has
    serverError,            ///< any other 5xx
    badDescription,         ///< the answer to DESCRIBE is no session description
    noTracks,               ///< no track was chosen, or none of them could be set up
    misuse,                 ///< a step was asked for that does not fit the state
};
/// One sentence that an operator understands.
const char* describe(RtspError error) noexcept;

/// What a request that goes out is for.
enum class RtspStepKind : std::uint8_t { options, describe, setup, play, pause, keepAlive, teardown, answer };
/// A name for log lines, for example "DESCRIBE".
const char* nameOf(RtspStepKind kind) noexcept;

enum class RtspKeepAlive : std::uint8_t {
    automatic,  ///< GET_PARAMETER when the device names it in Public, else OPTIONS
    options,
    getParameter,
    setParameter,  ///< talk-back channels
};

struct RtspSessionConfig {
    std::string url;  ///< the stream's, without user and password
    Credentials credentials;
    CnonceGenerator cnonce;  ///< needed for digest; see `CnonceGenerator`
    std::string userAgent;   ///< no header when empty
    std::string require;     ///< feature tag for the Require header of every request, none when empty
    HeaderList headers;      ///< further headers of every request
    std::string range;       ///< Range of PLAY, for example "npt=0.000-", none when empty
    std::string scale;       ///< Scale of PLAY, none when empty
    RtspKeepAlive keepAlive = RtspKeepAlive::automatic;
    bool playAtOnce = true;  ///< PLAY follows the last SETUP by itself; else the session waits for `play`
};

/// What a PLAY asks for on a session that waits for one or plays. Empty texts leave their header out.
struct RtspPlayRequest {
    std::string range;   ///< "clock=20170426T021045Z-20170426T021945Z"; without it the device goes on where it is
    std::string scale;   ///< speed, "4"
    HeaderList headers;  ///< further ones
};

/// What the device says about what it plays now.
struct RtspPlayAnswer {
    std::optional<ClockRange> range;
    std::optional<double> scale;  ///< the speed that it really uses
    std::string frames;           ///< the header of that name: "intra" when only key frames come
};

/// Which transport a track is asked for that has UDP ports. What the device refuses with 461, or by an answer that
/// names another transport, is asked for in the other way in the same session, and not again for the tracks after it.
/// Devices that do not know 461 refuse a transport with other statuses: while none has been accepted, any 4xx or 501
/// does that has no meaning of its own.
enum class RtspTransportOrder : std::uint8_t { udpOnly, udpThenInterleaved, interleavedThenUdp };

/// A track that is to be set up.
struct RtspTrackRequest {
    std::size_t mediaIndex = 0;               ///< in `SessionDescription::media`
    bool optional = false;                    ///< a refusal leaves the track out instead of ending the session
    std::optional<PortPair> clientPort = {};  ///< UDP ports that receive it; without them it comes interleaved
    RtspTransportOrder order = RtspTransportOrder::udpOnly;
};

/// A track that has been set up.
struct RtspTrack {
    std::size_t mediaIndex = 0;
    std::string url;
    ChannelPair channels;       ///< interleaved channels, as the device named them; meaningless over UDP
    bool refusedOther = false;  ///< the transport asked for first was refused
    TransportHeader transport;  ///< the device's answer, for ports, source and SSRC
    std::optional<std::uint16_t> firstSequenceNumber;  ///< of RTP-Info
    std::optional<std::uint32_t> firstRtpTimestamp;    ///< of RTP-Info
};

/// The client's side of one RTSP session, without its socket and its timers: OPTIONS, DESCRIBE, SETUP of each
/// chosen track, PLAY, keep-alive, TEARDOWN.
///
/// Each call returns what the owner has to do next. The owner sends bytes, feeds every message that the
/// `InterleavedParser` finds, calls `keepAlive` each `keepAliveInterval` while playing and gives up by its own clock.
/// One object serves one connection; a plain value for one thread.
///
///     step = session.start();                       // Send OPTIONS
///     step = session.handle(message);               // Send DESCRIBE ... Described
///     step = session.setup({{videoIndex}});         // Send SETUP ... Playing
class RtspClientSession {
public:
    struct Ignored {};  ///< nothing to do: an answer to nothing, or an accepted keep-alive
    struct Send {
        std::string bytes;  ///< the whole message; may hold an Authorization header, so not for a log
        RtspStepKind kind;
    };
    struct Described {};  ///< see `description`; go on with `setup`
    struct Ready {};      ///< set up, see `tracks`; go on with `play`
    struct Playing {};    ///< see `tracks` and `playAnswer`; media may even have come earlier
    struct Paused {};     ///< go on with `play`
    /// The device did not like a keep-alive. It may go on streaming all the same: to be logged.
    struct KeepAliveRefused {
        unsigned status;
    };
    struct Closed {};  ///< TEARDOWN was answered, or there was no session to end
    struct Failed {
        RtspError error;
        RtspStepKind kind;   ///< the request that failed
        unsigned status;     ///< of the answer, 0 when no status was the reason
        std::string reason;  ///< the device's words, without line ends, at most 64 bytes
    };
    /// A `play` or `pause` is refused; the session goes on as it was.
    struct Refused {
        Failed why;
    };
    using Step =
        std::variant<Ignored, Send, Described, Ready, Playing, Paused, KeepAliveRefused, Closed, Failed, Refused>;

    enum class State : std::uint8_t {
        idle,
        opening,
        described,
        settingUp,
        ready,  ///< set up or paused
        starting,
        playing,
        closing,
        closed,
        failed
    };

    explicit RtspClientSession(RtspSessionConfig configuration);

    /// The first request.
    Step start();
    /// Takes a message of the device: an answer to one of ours, or a request of its own, which is answered.
    Step handle(const RtspMessage& message);
    Step handle(const RtspResponse& response);
    Step handle(const RtspRequest& request);
    /// After `Described`: sets the tracks up one after the other, then starts them all if the configuration says so.
    Step setup(std::vector<RtspTrackRequest> requested);
    /// Plays, or plays on in another way or from another place. One `play` or `pause` at a time.
    Step play(const RtspPlayRequest& request);
    Step pause();
    /// A keep-alive, whether or not the last one was answered; `Ignored` when there is no session that is set up.
    Step keepAlive();
    /// Ends the session, also one that failed half-way; `Closed` at once when the device has none of ours.
    Step teardown();

    State state() const noexcept { return current; }
    /// Valid from `Described` on.
    const SessionDescription& description() const noexcept { return sdp; }
    /// Valid from `Ready` or `Playing` on; what comes of RTP-Info is that of the last PLAY.
    const std::vector<RtspTrack>& tracks() const noexcept { return established; }
    /// Valid from `Playing` on.
    const RtspPlayAnswer& playAnswer() const noexcept { return answer; }
    /// Half of the timeout that the device states, 30 s at most and 500 ms at least.
    std::chrono::milliseconds keepAliveInterval() const noexcept;
    const std::string& sessionId() const noexcept { return session.id; }

private:
    struct Pending {
        std::uint32_t cseq;
        RtspStepKind kind;
        unsigned attempt;
        RtspRequest request;
    };

    Step send(RtspStepKind kind, std::string_view method, std::string_view uri, HeaderList extra = {});
    Step dispatch(Pending pending);
    Step retryAuthorized(Pending pending, const RtspResponse& response);
    Step refused(const Pending& pending, const RtspResponse& response);
    Step fail(RtspError error, RtspStepKind kind, const RtspResponse* response);

    Step onOptions(const RtspResponse& response);
    Step onDescribe(const RtspResponse& response);
    Step onSetup(const Pending& pending, const RtspResponse& response);
    Step onPlay(const RtspResponse& response);
    Step sendDescribe();
    Step onAllSetUp();
    Step setupNextTrack();
    Step setupRefused(RtspError error, const RtspResponse& response);
    bool mayMeanTransport(unsigned status) const noexcept;
    bool asksForUdp(const RtspTrackRequest& request) const noexcept;
    bool turnsToOtherTransport(const RtspTrackRequest& request) noexcept;
    Step failWithoutTracks();
    Step sendPlay(const RtspPlayRequest& request);
    bool isMidway() const noexcept;
    void adoptSession(const RtspResponse& response);
    void adoptRtpInfo(std::string_view value);

    RtspSessionConfig config;
    State current = State::idle;
    AuthState auth;
    std::uint32_t nextCseq = 1;
    std::vector<Pending> pendings;  ///< one step, and a keep-alive or TEARDOWN beside it
    MethodList methods;
    bool getParameterRefused = false;

    SessionDescription sdp;
    std::string contentBase;
    std::string contentLocation;
    std::string aggregateUrl;
    SessionHeader session;

    std::vector<RtspTrackRequest> wanted;
    std::size_t settingUp = 0;           ///< index in `wanted`
    bool firstTransportRefused = false;  ///< of those that `RtspTransportOrder` names
    std::optional<Failed> lastRefusal;   ///< of an optional track: the reason when no other is left
    std::vector<RtspTrack> established;
    RtspPlayAnswer answer;
};
}  // namespace Tavro8::wire
