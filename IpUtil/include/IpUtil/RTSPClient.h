#pragma once

#include <IpUtil/ConnectionInfo.h>
#include <IpUtil/ErrorCode.h>
#include <IpUtil/Export.h>
#include <IpUtil/ParametersContainer.h>
#include <IpUtil/RTSPStream.h>
#include <Tavro8/GDRV/MediaFrame.h>
#include <Tavro8/ILogger.h>
#include <boost/asio/ts/netfwd.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Tavro8::Utility
{
inline constexpr std::chrono::seconds DEFAULT_CONNECT_TIMEOUT{5};
inline constexpr const char* RTSP_HEADER_REQUIRE = "Require";

enum class RtspMethod { RTSP_METHOD_OPTIONS, RTSP_METHOD_GET_PARAMETER, RTSP_METHOD_SET_PARAMETER };
using enum RtspMethod;

/// How media come.
enum class RtspTransport {
    tcp,       ///< interleaved in the RTSP connection
    udp,       ///< UDP; interleaved when the device refuses UDP or nothing gets through
    automatic  ///< interleaved; UDP when the device refuses that
};

/// What to do with pictures that cannot be decoded cleanly because packets were lost.
enum class LossHandling {
    flag,              ///< hand them over, marked as damaged
    dropUntilKeyFrame  ///< hand nothing over until the next key frame
};

struct VideoSinkParams {
    LossHandling lossHandling = LossHandling::dropUntilKeyFrame;
};

struct AudioSinkParams {
    GDRV::MediaCodec expectedCodec = GDRV::MediaCodec::unknown;   ///< unknown: whatever the device offers
    std::uint32_t sampleRate = 0;                                 ///< 0: whatever the device offers
    GDRV::MediaCodec alternateCodec = GDRV::MediaCodec::unknown;  ///< is as good as the expected one; unknown: none is

    bool operator==(const AudioSinkParams&) const = default;
    /// Whether such sound is what is expected.
    bool accepts(GDRV::MediaCodec codec, std::uint32_t rate) const noexcept
    {
        return (sampleRate == 0 || rate == sampleRate) &&
               (expectedCodec == GDRV::MediaCodec::unknown || codec == expectedCodec || codec == alternateCodec);
    }
};

/// One track of a session description.
struct SdpTrack {
    enum class Direction { unspecified, sendOnly, receiveOnly, sendReceive, inactive };

    std::string kind;      ///< "video", "audio", "application"
    std::string encoding;  ///< upper case: "H264", "H265", "PCMU", "PCMA", "MPEG4-GENERIC", "JPEG"
    int payloadType = -1;
    std::uint32_t clockRate = 0;
    std::uint32_t channels = 1;
    std::string control;  ///< as the description gives it
    Direction direction = Direction::unspecified;
    std::size_t index = 0;  ///< position in the description

    /// One way of coding that the device offers for the track.
    struct Format {
        std::string encoding;  ///< upper case
        int payloadType = -1;
        std::uint32_t clockRate = 0;
        std::uint32_t channels = 1;
    };
    /// All that it offers, in its order of preference. The members above are those of the one that this library can
    /// receive; whoever sends on the track chooses another by putting it in their place.
    std::vector<Format> formats;

    void use(const Format& chosen)
    {
        encoding = chosen.encoding;
        payloadType = chosen.payloadType;
        clockRate = chosen.clockRate;
        channels = chosen.channels;
    }
};

struct SessionDescription {
    std::vector<SdpTrack> tracks;
};

/// A track that has been set up.
class RTSPTrack;

struct TrackInitializer {
    SdpTrack track;
    /// Frames of the track; empty for a track that is only sent to.
    std::function<void(const GDRV::MediaFrame&)> onFrame;
};

/// How recorded media are to be played.
struct RecordedPlay {
    /// What to play, UTC milliseconds since 1970; the device is told whole seconds.
    struct Interval {
        std::int64_t beginMs = 0;
        std::int64_t endMs = 0;
    };
    std::optional<Interval> interval;  ///< nothing: on from where the device is
    std::uint32_t scale = 1;           ///< speed
    bool keyFramesOnly = false;
};

/// What the device has made of it.
struct RecordedPlayAnswer {
    double scale = 1;  ///< the speed that it uses: 1 when it names none
    bool keyFramesOnly = false;
};

/// An RTSP connection to a device: RTSP over TCP, RTP in the same connection (RFC 2326 section 10.12) or over UDP,
/// digest or basic authentication, keep-alive at no more than half of the session's time-out.
///
/// One thread: the I/O context it was made with, which one thread runs. Always held by shared ownership; keeps itself
/// alive until it is torn down or has failed. Each completion runs once, never inside the call that takes it, and not
/// at all after `teardown` or when the context is destroyed first. Error codes are of the host category. Whoever is
/// told a failure need not tear down: the connection is closed already, and one log line names request, URL and status.
class IPUTIL_API RTSPClient : public std::enable_shared_from_this<RTSPClient> {
public:
    using Completion = std::function<void(const error_code& ec)>;
    using SdpHandler = std::function<void(const error_code& ec, const SessionDescription& description)>;
    using Headers = std::map<std::string, std::string>;

    /// `logger` may be null and must outlive the client, which may live for another second after `teardown`.
    static std::shared_ptr<RTSPClient> create(boost::asio::io_context& service, ILogger* logger);
    /// Keeps the logger as long as it needs it.
    static std::shared_ptr<RTSPClient> create(boost::asio::io_context& service, std::shared_ptr<ILogger> logger);
    ~RTSPClient();
    RTSPClient(const RTSPClient&) = delete;
    RTSPClient& operator=(const RTSPClient&) = delete;

    ILogger* logger() const noexcept;

    // Settings; before `initialize`.
    void setTransport(RtspTransport transport);
    RtspTransport getTransport() const noexcept;
    void setConnectTimeout(std::chrono::milliseconds timeout);
    /// No packet for so long while media are due ends the connection; 0: never.
    void setStallTimeout(std::chrono::milliseconds timeout);
    void setKeepAliveCommand(RtspMethod method);
    void setVideoSinkParams(const VideoSinkParams& params);
    void setAudioSinkParams(const AudioSinkParams& params);
    const VideoSinkParams& getVideoSinkParams() const noexcept;
    const AudioSinkParams& getAudioSinkParams() const noexcept;

    /// Connects to the device and keeps `path` as the URL to describe. The description carries host, port and
    /// credentials.
    void initialize(const std::shared_ptr<const asio::ConnectionInfo>& info, const std::string& path,
                    Completion handleSession);

    /// OPTIONS and DESCRIBE with `headers` on every request from now on; `handleSdp` is told the description and
    /// adds the tracks it wants during the call; then SETUP of each and PLAY; `handlePlay` is told the outcome. A
    /// failure up to the description is told to `handleSdp` alone, a later one to `handlePlay` alone. When `handleSdp`
    /// adds no track nothing is set up and `handlePlay` is told `noSuchStream`. Of several tracks those that the
    /// device refuses are left out. Frames may come before `handlePlay`.
    void performDefaultSteps(const Headers& headers, SdpHandler handleSdp, Completion handlePlay);

    /// Only inside `handleSdp`. Nothing when the track cannot be received; the reason is logged.
    std::weak_ptr<RTSPTrack> addTrack(TrackInitializer initializer);

    // Recorded media, instead of `performDefaultSteps`. Frames carry the time at which they were recorded: that of the
    // device's sender reports, unless they are well outside the interval; until the first one the begin of the range
    // that it plays counts. Within one interval times do not decrease, unless the device takes back what it said.
    // Always over the RTSP connection: who takes frames slowly slows the device down, and nothing piles up here.

    /// As `performDefaultSteps` up to the last SETUP; `handleReady` is told the outcome. Nothing comes before
    /// `playRecorded`. From then on a failure that ends the connection is told to the closed handler alone.
    void prepareRecorded(const Headers& headers, SdpHandler handleSdp, Completion handleReady);

    using PlayHandler = std::function<void(const error_code& ec, const RecordedPlayAnswer& answer)>;
    /// Begins, goes on after `pauseRecorded`, or changes place or speed while media come. With an interval frames are
    /// of that interval from here on, and begin with a key frame; without one none is lost. A refusal is told to the
    /// handler and changes nothing, but that frames which came while another place was asked for are gone: the next is
    /// a key frame then. One `playRecorded` or `pauseRecorded` at a time, else `invalidState`.
    /// Where the device may have refused the speed, or key frames only, it is asked once more: for what it took last if
    /// that is less, else without a word of either. The answer tells what came of it. Never fails with `notSupported`.
    void playRecorded(const RecordedPlay& wanted, PlayHandler handlePlay);
    /// Frames that are on their way still come, up to the call of `handlePause`. Later ones are dropped, and it goes on
    /// with a key frame where there were some.
    void pauseRecorded(Completion handlePause);
    /// Told each time when the device has said that everything was played (RTCP BYE): at once near the end of the
    /// interval, elsewhere when nothing follows. The session stays and may play another interval.
    void setEndHandler(std::function<void()> handleEnd);

    /// Sends one RTP payload on a track that plays; `timestamp` in the track's clock. Fails with `noResources` while
    /// too much waits to be written, because the device does not read.
    void sendPacket(const std::weak_ptr<RTSPTrack>& track, std::vector<std::uint8_t> payload, std::uint32_t timestamp,
                    Completion handleWritePacket);

    /// What the next connection to the same device should be set to: differs from `getTransport` once the device has
    /// refused that, or has not got anything through.
    RtspTransport getWorkingTransport() const noexcept;

    /// Told once when a connection that played ends by itself: loss, stall, end by the device, or nothing that comes
    /// over UDP.
    void setClosedHandler(Completion handleClosed);

    /// What a track has received; zero when it is gone.
    StreamCounters counters(const std::weak_ptr<RTSPTrack>& track) const;

    /// Says TEARDOWN if a session stands, closes, and drops all handlers; `completion` may be empty.
    void teardown(Completion completion = {});

private:
    struct State;
    explicit RTSPClient(std::unique_ptr<State> state);
    std::unique_ptr<State> state;
};

/// Loads `transport` ("tcp", "udp", "auto", see `RtspTransport`) and `stallTimeout` (seconds, default 5) of a channel's
/// parameters into the client. A value that cannot be used is logged and leaves the default. Where several receivers
/// share a connection the values of the last one that names any hold.
IPUTIL_API void initializeRTSPClientFromParams(RTSPClient& client, const ParametersContainer& parameters);

/// Whether `changed` names another `transport` than a client has that was loaded from `present`.
IPUTIL_API bool changesTransport(const ParametersContainer& present, const ParameterMap& changed);

/// What a channel's parameters say about pictures: `lossPolicy` ("flag", "drop"). A value that cannot be used is logged
/// and gives the default.
IPUTIL_API VideoSinkParams readVideoSinkParams(const ParametersContainer& parameters, ILogger* logger);

/// Takes those of the three out of new parameters whose value cannot be used, and logs it: what was set before holds.
IPUTIL_API void eraseUnusableStreamParameters(ParameterMap& changed, ILogger* logger);
}  // namespace Tavro8::Utility
