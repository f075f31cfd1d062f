#include "FuzzTarget.h"

#include "wire/InterleavedParser.h"
#include "wire/RtspClientSession.h"
#include "wire/Text.h"
#include "wire/Url.h"

#include <algorithm>
#include <string>
#include <utility>

namespace Tavro8::fuzz
{
namespace
{
using wire::RtspClientSession;
using wire::RtspMessage;
using State = RtspClientSession::State;

const std::string password = "xyzzy-plugh";
constexpr std::size_t maxTracks = 8;

/// Bits of the input's first byte.
enum Choice : unsigned {
    withoutCredentials = 1,
    overUdp = 2,
    withRequire = 4,
    setParameter = 8,
    optionalTracks = 16,
    eitherTransport = 32,
    recordedMedia = 64,
};

wire::RtspSessionConfig configOf(unsigned choices)
{
    wire::RtspSessionConfig config;
    config.url = "rtsp://192.0.2.1:8554/media/video1";
    if ((choices & withoutCredentials) == 0)
        config.credentials = {"admin", password};
    config.cnonce = [] { return std::string("c0ffee"); };
    config.userAgent = "Kelvo/1.0";
    if ((choices & withRequire) != 0)
        config.require = "www.onvif.org/ver20/backchannel";
    if ((choices & setParameter) != 0)
        config.keepAlive = wire::RtspKeepAlive::setParameter;
    config.range = "npt=0.000-";
    config.playAtOnce = (choices & recordedMedia) == 0;
    return config;
}

/// The client in a conversation with whatever the input says.
class Dialogue {
public:
    explicit Dialogue(unsigned choice) : choices(choice), session(configOf(choice)) { check(session.start()); }

    void onMessage(const RtspMessage& message)
    {
        sendsLeft = 1;
        check(session.handle(message));
    }

    /// Interleaved frames stand for what the owner of a session does meanwhile.
    void onCommand(ByteView payload)
    {
        sendsLeft = 1;
        switch (payload.empty() ? 0 : payload.front()) {
        case 't':
            check(session.teardown());
            break;
        case 's':
            check(session.setup({wire::RtspTrackRequest{}}));  // out of turn most often
            break;
        case 'p':
            check(session.play({"clock=20170426T021045Z-20170426T021945Z", "4", {}}));
            break;
        case 'r':
            check(session.play({}));
            break;
        case 'h':
            check(session.pause());
            break;
        default:
            check(session.keepAlive());
            break;
        }
    }

private:
    void check(const RtspClientSession::Step& step);
    void checkRequest(const RtspClientSession::Send& send);
    void checkTracks() const;
    void setUp();

    unsigned choices;
    RtspClientSession session;
    std::uint32_t lastCseq = 0;
    unsigned requestsBeforePlay = 0;
    bool opened = false;
    int sendsLeft = 1;
};

void Dialogue::check(const RtspClientSession::Step& step)
{
    const auto interval = session.keepAliveInterval();
    require(interval >= std::chrono::milliseconds(500) && interval <= std::chrono::seconds(30),
            "keep-alives are neither too often nor too rare");
    if (const auto* send = std::get_if<RtspClientSession::Send>(&step)) {
        require(sendsLeft-- > 0, "one message brings one message at most");
        checkRequest(*send);
    } else if (std::holds_alternative<RtspClientSession::Described>(step)) {
        require(session.state() == State::described, "the state says what the step says");
        setUp();
    } else if (std::holds_alternative<RtspClientSession::Ready>(step)) {
        require(session.state() == State::ready, "the state says what the step says");
        require((choices & recordedMedia) != 0, "live media do not wait for a word");
        opened = true;
        checkTracks();
    } else if (std::holds_alternative<RtspClientSession::Playing>(step)) {
        require(session.state() == State::playing, "the state says what the step says");
        opened = true;
        checkTracks();
    } else if (std::holds_alternative<RtspClientSession::Paused>(step)) {
        require(session.state() == State::ready, "the state says what the step says");
    } else if (const auto* refused = std::get_if<RtspClientSession::Refused>(&step)) {
        require(opened && (session.state() == State::ready || session.state() == State::playing),
                "a refusal leaves the session as it was");
        require(refused->why.error != wire::RtspError::none, "a refusal has a reason");
    } else if (const auto* failed = std::get_if<RtspClientSession::Failed>(&step)) {
        require(failed->reason.size() <= 64 && std::ranges::none_of(failed->reason, wire::isControl),
                "a reason fits into a line of a log");
        require(failed->error != wire::RtspError::none && wire::describe(failed->error) != nullptr,
                "a failure has a sentence");
        require(failed->error == wire::RtspError::misuse || session.state() == State::failed,
                "a failure ends the session");
    } else if (std::holds_alternative<RtspClientSession::Closed>(step)) {
        require(session.state() == State::closed, "the state says what the step says");
    }
}

void Dialogue::checkRequest(const RtspClientSession::Send& send)
{
    wire::InterleavedParser parser;
    wire::ByteView input = wire::asBytes(send.bytes);
    const auto result = parser.next(input);
    const auto* message = std::get_if<wire::ReceivedMessage>(&result);
    require(message != nullptr && input.empty(), "what is sent is one message");
    require(send.bytes.find(password) == std::string::npos, "the password is never sent as it is");
    if (send.kind == wire::RtspStepKind::answer) {
        require(message->response() != nullptr, "a request of the device gets a response");
        return;
    }
    const wire::RtspRequest* request = message->request();
    require(request != nullptr, "a step of ours is a request");
    const auto cseq = wire::cseqOf(request->headers);
    require(request->headers.all("CSeq").size() == 1 && cseq && *cseq > lastCseq,
            "each request has a number of its own");
    lastCseq = *cseq;
    require(request->headers.all("Authorization").size() <= 1, "a request is authorized once");
    if (!opened)
        require(++requestsBeforePlay <= 3 * (4 + maxTracks), "a session is opened with a bounded number of requests");
    const wire::UrlResult url = wire::parseUrl(request->uri);
    // What a device names as control may be too long for an address, or hold an '@' that reads as a user.
    require(request->uri.starts_with("rtsp://192.0.2.1:8554"), "requests go to the device that we are connected to");
    require(!url || url.url.host == "192.0.2.1", "requests go to the device that we are connected to");
    if ((choices & withRequire) != 0)
        require(request->headers.contains("Require"), "each request names the feature");
}

void Dialogue::checkTracks() const
{
    const auto& tracks = session.tracks();
    require(!tracks.empty() && tracks.size() <= maxTracks, "the tracks are some of those asked for");
    for (const wire::RtspTrack& track : tracks)
        require(track.mediaIndex < session.description().media.size(), "a track is one of the description");
}

void Dialogue::setUp()
{
    std::vector<wire::RtspTrackRequest> wanted;
    for (std::size_t i = 0; i < session.description().media.size() && wanted.size() < maxTracks; ++i) {
        wire::RtspTrackRequest track;
        track.mediaIndex = i;
        track.optional = (choices & optionalTracks) != 0;
        const auto port = static_cast<std::uint16_t>(5000 + 2 * i);
        if ((choices & (overUdp | eitherTransport)) != 0)
            track.clientPort = wire::PortPair{port, static_cast<std::uint16_t>(port + 1)};
        if ((choices & eitherTransport) != 0)
            track.order = (choices & overUdp) != 0 ? wire::RtspTransportOrder::udpThenInterleaved
                                                   : wire::RtspTransportOrder::interleavedThenUdp;
        wanted.push_back(track);
    }
    check(session.setup(std::move(wanted)));
}

/// One byte of choices, then all that a server says on one connection: answers, requests of its own, and
/// interleaved frames, each of which lets the client do something by itself.
///
/// Promises: what is sent is always one proper message with a number of its own, to the device that we are connected
/// to, without the password; no server makes the client ask for ever; states and steps agree.
void feed(ByteView input)
{
    Script script(input);
    Dialogue dialogue(script.u8());
    const Bytes stream = script.remaining();
    if (gives(stream, password))
        return;  // it would come back in what the client quotes

    wire::InterleavedParser parser;
    wire::ByteView rest(stream);
    for (bool more = true; more;) {
        const auto result = parser.next(rest);
        if (const auto* message = std::get_if<wire::ReceivedMessage>(&result))
            dialogue.onMessage(**message);
        else if (const auto* frame = std::get_if<wire::InterleavedFrame>(&result))
            dialogue.onCommand(frame->payload);
        else
            more = false;
    }
}

const Target rtspSession("rtsp_session", feed);
}  // namespace
}  // namespace Tavro8::fuzz
