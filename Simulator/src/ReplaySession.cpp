#include <utility>  // ahead of Asio, which forgets it

#include "ReplaySession.h"

#include "Log.h"

#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <exception>

namespace simulator
{
namespace
{

using boost::system::error_code;

constexpr Size replaySize{640, 360};
constexpr unsigned replayFramesPerSecond = 10;  ///< so that eightfold speed is affordable
constexpr unsigned replayBitrateKbit = 1000;

/// A client that asks and asks without reading the answers is cut off.
constexpr std::size_t mostPendingBytes = 1024 * 1024;

const char* reasonOf(unsigned status)
{
    switch (status) {
    case 200:
        return "OK";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 404:
        return "Not Found";
    case 454:
        return "Session Not Found";
    case 455:
        return "Method Not Valid in This State";
    case 457:
        return "Invalid Range";
    case 459:
        return "Aggregate Operation Not Allowed";
    case 461:
        return "Unsupported Transport";
    case 500:
        return "Internal Server Error";
    case 501:
        return "Not Implemented";
    case 551:
        return "Option not supported";
    default:
        return "Simulated fault";
    }
}

/// The RTP channel of an interleaved transport, `otherwise` when it names none; nothing when it is another transport.
std::optional<std::uint8_t> channelOf(std::string_view transport, std::uint8_t otherwise)
{
    if (transport.find("RTP/AVP/TCP") == transport.npos)
        return std::nullopt;
    constexpr std::string_view name = "interleaved=";
    const auto found = transport.find(name);
    if (found == transport.npos)
        return otherwise;
    unsigned channel = 0;
    for (char c : transport.substr(found + name.size())) {
        if (c < '0' || c > '9')
            break;
        channel = std::min(channel * 10 + static_cast<unsigned>(c - '0'), 1000u);
    }
    return channel < 255 ? std::optional(static_cast<std::uint8_t>(channel)) : std::nullopt;
}

/// The session that a request names; empty when it names none.
std::string_view sessionOf(const RtspQuestion& question)
{
    const std::string_view header = question.header("session");
    return header.substr(0, header.find(';'));
}

std::string trackName(std::size_t track)
{
    return "stream=" + std::to_string(track);
}

}  // namespace

ReplaySession::ReplaySession(boost::asio::ip::tcp::socket accepted, ReplayServices& shared, std::uint64_t number)
    : socket(std::move(accepted)),
      services(shared),
      id(number),
      playTimer(socket.get_executor()),
      silenceTimer(socket.get_executor()),
      lastSign(ReplayPlayback::Clock::now())
{}

void ReplaySession::start()
{
    read();
    watchSilence();
}

void ReplaySession::close()
{
    error_code ignored;
    socket.close(ignored);
    playTimer.cancel();
    silenceTimer.cancel();
    if (!session.empty())
        report("closed");
    session.clear();
    playback.stop();
}

void ReplaySession::read()
{
    socket.async_read_some(boost::asio::buffer(received),
                           [self = shared_from_this()](const error_code& error, std::size_t size) {
                               if (error)
                                   return self->close();
                               self->lastSign = ReplayPlayback::Clock::now();
                               self->input.append({self->received.data(), size});
                               self->takeRequests();
                           });
}

void ReplaySession::write()
{
    if (!writing.empty() || pending.empty() || !socket.is_open())
        return;
    writing.swap(pending);
    boost::asio::async_write(socket, boost::asio::buffer(writing),
                             [self = shared_from_this()](const error_code& error, std::size_t) {
                                 self->writing.clear();
                                 if (error)
                                     return self->close();
                                 self->write();
                                 self->pump();
                             });
}

/// Takes what is due from the playback, once what was taken before has been read by the client.
void ReplaySession::pump()
{
    if (!playback.isRunning() || !writing.empty() || !pending.empty() || !socket.is_open())
        return;
    const auto collected = playback.collect(pending, ReplayPlayback::Clock::now());
    if (collected.next == ReplayPlayback::Next::failed)
        return close();
    if (collected.next == ReplayPlayback::Next::ended) {
        ++status.ends;
        report("ended");
    } else if (!pending.empty())
        report("playing");
    if (pending.empty() && collected.next == ReplayPlayback::Next::later)
        return pumpAt(collected.due);
    write();
}

void ReplaySession::pumpAt(ReplayPlayback::Clock::time_point due)
{
    playTimer.expires_at(due);
    playTimer.async_wait([weak = weak_from_this()](const error_code& cancelled) {
        const auto self = weak.lock();
        if (!cancelled && self)
            self->pump();
    });
}

/// Without a sign of the client, which may be anything it sends, the session is over after its timeout.
void ReplaySession::watchSilence()
{
    silenceTimer.expires_at(lastSign + std::chrono::seconds(services.options.sessionTimeout));
    silenceTimer.async_wait([weak = weak_from_this()](const error_code& cancelled) {
        const auto self = weak.lock();
        if (cancelled || !self)
            return;
        if (self->silenceTimer.expiry() >= self->lastSign + std::chrono::seconds(self->services.options.sessionTimeout))
            return self->close();
        self->watchSilence();
    });
}

void ReplaySession::takeRequests()
{
    for (;;) {
        const auto next = input.next();
        if (std::holds_alternative<RtspInput::NeedMore>(next))
            break;
        if (std::holds_alternative<RtspInput::Malformed>(next) || pending.size() > mostPendingBytes)
            return close();
        reply(std::get<RtspQuestion>(next));
    }
    write();
    pump();
    if (socket.is_open())
        read();
}

void ReplaySession::reply(const RtspQuestion& question)
{
    services.board.countRequest(question.method);
    logLine("RTSP " + question.method + ' ' + question.url);
    Answer made;
    try {
        made = answer(question);
    } catch (const std::exception& error) {
        logLine(error.what());
        made = {.status = 500};
    }
    std::string text = "RTSP/1.0 " + std::to_string(made.status) + ' ' + reasonOf(made.status) + "\r\nCSeq: ";
    text += std::string(question.header("cseq")) + "\r\n" + made.headers;
    if (!made.body.empty())
        text += "Content-Length: " + std::to_string(made.body.size()) + "\r\n";
    pending += text + "\r\n" + made.body;
}

std::optional<ReplaySession::Answer> ReplaySession::refusal(const RtspQuestion& question)
{
    const std::string_view request = question.url;
    const auto authority = request.find("://");
    const auto slash = authority == request.npos ? request.npos : request.find('/', authority + 3);
    const std::string target = question.method + ' ' + std::string(slash == request.npos ? "*" : request.substr(slash));
    if (const auto fault = services.faults.find(FaultKind::rtspStatus, target)) {
        logLine("RTSP fault " + fault->text);
        return Answer{.status = fault->argument};
    }
    if (question.method == "OPTIONS")
        return Answer{.headers = "Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN, GET_PARAMETER, "
                                 "SET_PARAMETER\r\n"};
    const auto now = Authenticator::Clock::now();
    const auto verdict =
        services.authenticator.judge(question.header("authorization"), question.method, question.url, now);
    if (verdict != Authenticator::Verdict::accepted) {
        Answer refused{.status = 401};
        const auto challenge = services.authenticator.challenge(verdict, now);
        for (const auto& value : {challenge.digest, challenge.basic})
            if (value)
                refused.headers += "WWW-Authenticate: " + *value + "\r\n";
        return refused;
    }
    if (const auto feature = question.header("require"); !feature.empty())
        return Answer{.status = 551, .headers = "Unsupported: " + std::string(feature) + "\r\n"};
    return std::nullopt;
}

ReplaySession::Answer ReplaySession::answer(const RtspQuestion& question)
{
    if (auto refused = refusal(question))
        return std::move(*refused);
    if (question.method == "DESCRIBE" || question.method == "SETUP") {
        const auto wanted = parseReplayPath(question.url);
        if (!wanted)
            return {.status = 404};
        if (const auto problem = problemOf(*wanted))
            return {.status = *problem};
        return question.method == "SETUP" ? setUp(question, *wanted) : describe(question, *wanted);
    }
    const bool keepsAlive = question.method == "GET_PARAMETER" || question.method == "SET_PARAMETER";
    if (!keepsAlive && question.method != "PLAY" && question.method != "PAUSE" && question.method != "TEARDOWN")
        return {.status = 501};
    if (session.empty() || sessionOf(question) != session)
        return {.status = 454};
    if (question.method == "PLAY")
        return play(question);
    if (question.method == "PAUSE")
        return pause();
    if (question.method == "TEARDOWN")
        return tearDown();
    return {.headers = sessionHeader()};
}

/// The status that tells why a SETUP cannot have its track; nothing when it can. A connection has one session, and a
/// session one replay (RFC 2326, 10.4).
std::optional<unsigned> ReplaySession::problemOfSetUp(const RtspQuestion& question, const ReplayPath& wanted) const
{
    const std::string_view named = sessionOf(question);
    if (!named.empty() && named != session)
        return 454;
    if (session.empty())
        return std::nullopt;
    if (named.empty() || playback.isLoaded())
        return 455;
    const bool sameReplay = wanted.channelNumber == path.channelNumber && wanted.interval == path.interval;
    return sameReplay ? std::nullopt : std::optional(459u);
}

/// The status that tells why there is no such replay; nothing when there is.
std::optional<unsigned> ReplaySession::problemOf(const ReplayPath& wanted) const
{
    if (wanted.interval.begin > wanted.interval.end)
        return 400;
    const bool isRecorded =
        wanted.channelNumber != 0 && !services.archive.coverage(wanted.channelNumber - 1, wanted.interval).empty();
    const bool hasTrack = !wanted.track || *wanted.track < (services.options.audio ? replayTracks : 1);
    return isRecorded && hasTrack ? std::nullopt : std::optional(404u);
}

PictureSettings ReplaySession::picture(unsigned channel, bool keyFramesOnly) const
{
    const unsigned perSecond = keyFramesOnly ? 1 : replayFramesPerSecond;
    PictureSettings settings;
    settings.title = "Channel " + std::to_string(channel + 1);
    settings.encoding = {services.options.codec, replaySize, perSecond, replayBitrateKbit, perSecond};
    settings.audio = services.options.audio;
    settings.audioCodec = services.options.audioCodec;
    settings.toneHertz = toneOf(channel);
    return settings;
}

/// Finds out, once for all replays, what their tracks are.
void ReplaySession::prepareTracks()
{
    if (!services.tracks.empty())
        return;
    const auto anyTime = std::make_shared<ReplayTimeline>(std::vector{RecordedSpan{0, 1}});
    ReplayPipeline sample({picture(0, false), {true, services.options.audio}}, anyTime, [] {});
    services.tracks = sample.describe();
}

ReplaySession::Answer ReplaySession::describe(const RtspQuestion& question, const ReplayPath& wanted)
{
    prepareTracks();
    const auto spans = services.archive.coverage(wanted.channelNumber - 1, wanted.interval);
    const ReplayTimeline whole(spans);
    error_code ignored;
    const auto address = socket.local_endpoint(ignored).address();
    std::string body = "v=0\r\no=- " + std::to_string(wanted.interval.begin) + " 1 IN " +
                       (address.is_v6() ? "IP6 " : "IP4 ") + address.to_string() + "\r\ns=Replay\r\nt=0 0\r\n" +
                       "a=control:*\r\na=range:" + writeReplayRange(whole.begin(), whole.end()) + "\r\n";
    const bool hasTracks = !services.faults.find(FaultKind::rtspNoTracks, "DESCRIBE " + question.url);
    for (std::size_t i = 0; hasTracks && i < services.tracks.size(); ++i)
        body += services.tracks[i].description + "a=control:" + trackName(i) + "\r\n";
    const std::string base = question.url + (question.url.ends_with('/') ? "" : "/");
    return {.headers = "Content-Type: application/sdp\r\nContent-Base: " + base + "\r\n", .body = std::move(body)};
}

std::string ReplaySession::sessionHeader() const
{
    return "Session: " + session + ";timeout=" + std::to_string(services.options.sessionTimeout) + "\r\n";
}

ReplaySession::Answer ReplaySession::setUp(const RtspQuestion& question, const ReplayPath& wanted)
{
    if (const auto problem = problemOfSetUp(question, wanted))
        return {.status = *problem};
    const std::size_t track = wanted.track.value_or(0);
    const auto channel = channelOf(question.header("transport"), static_cast<std::uint8_t>(2 * track));
    if (!channel)
        return {.status = 461};
    prepareTracks();
    if (session.empty()) {
        session = randomNonce().substr(0, 16);
        path = wanted;
        const auto end = question.url.rfind("/stream=");
        url = question.url.substr(0, end);
        while (url.ends_with('/'))
            url.pop_back();
        url += '/';
        status = {.channel = path.channelNumber - 1, .begin = path.interval.begin, .end = path.interval.end};
    }
    playback.tracks[track].emplace(services.tracks[track].clockRate, *channel);
    report("ready");
    return {.headers = sessionHeader() + "Transport: RTP/AVP/TCP;unicast;interleaved=" + std::to_string(*channel) +
                       '-' + std::to_string(*channel + 1) + "\r\n"};
}

/// Loads what a range wants, from the second of the present place on where it does not say. The status of the failure.
std::optional<unsigned> ReplaySession::begin(const ReplayRange& range, bool keyFramesOnly)
{
    std::uint32_t from = path.interval.begin;
    if (range.begin)
        from = std::max(*range.begin, from);
    else if (playback.isLoaded())
        from = static_cast<std::uint32_t>(playback.getTimeline().timeAt(playback.position()) / std::chrono::seconds(1));
    const std::uint32_t to = std::min(range.end.value_or(path.interval.end), path.interval.end);
    auto spans =
        from < to ? services.archive.coverage(path.channelNumber - 1, {from, to}) : std::vector<RecordedSpan>();
    if (spans.empty())
        return 457;
    const auto pumpSoon = [weak = weak_from_this()] {
        if (const auto self = weak.lock())
            self->pump();
    };
    playback.start(picture(path.channelNumber - 1, keyFramesOnly), std::make_shared<ReplayTimeline>(std::move(spans)),
                   keyFramesOnly,
                   [pumpSoon, executor = socket.get_executor()] { boost::asio::post(executor, pumpSoon); });
    return std::nullopt;
}

std::string ReplaySession::trackInformation(std::chrono::nanoseconds position) const
{
    std::string text;
    for (std::size_t i = 0; i < replayTracks; ++i)
        if (const auto& track = playback.tracks[i])
            text += (text.empty() ? "" : ",") + ("url=" + url) + trackName(i) +
                    ";seq=" + std::to_string(track->nextSequence()) +
                    ";rtptime=" + std::to_string(track->rtpTime(position));
    return text;
}

ReplaySession::Answer ReplaySession::play(const RtspQuestion& question)
{
    const bool keyFramesOnly = services.options.replayKeyFrames && question.header("frames") == "intra";
    const std::string_view rangeText = question.header("range");
    const auto range = rangeText.empty() ? ReplayRange{} : parseReplayRange(rangeText, path.interval.begin);
    if (!range)
        return {.status = 457};
    const bool goesOn = playback.isLoaded() && rangeText.empty() && keyFramesOnly == playback.playsKeyFramesOnly();
    if (!goesOn)
        if (const auto problem = begin(*range, keyFramesOnly))
            return {.status = *problem};
    const unsigned scale = usableScale(question.header("scale"));
    playback.run(scale, ReplayPlayback::Clock::now());

    status.scale = scale;
    status.keyFramesOnly = keyFramesOnly;
    ++status.plays;
    report("playing");
    const auto position = playback.position();
    const ReplayTimeline& timeline = playback.getTimeline();
    return {.headers = sessionHeader() + "Range: " + writeReplayRange(timeline.timeAt(position), timeline.end()) +
                       "\r\nScale: " + std::to_string(scale) + "\r\n" + (keyFramesOnly ? "Frames: intra\r\n" : "") +
                       "RTP-Info: " + trackInformation(position) + "\r\n"};
}

ReplaySession::Answer ReplaySession::pause()
{
    playTimer.cancel();
    if (playback.isRunning()) {
        playback.pause();
        report("paused");
    }
    return {.headers = sessionHeader()};
}

ReplaySession::Answer ReplaySession::tearDown()
{
    playTimer.cancel();
    report("closed");
    playback.stop();
    playback.tracks = {};
    session.clear();
    return {};
}

void ReplaySession::report(const char* state)
{
    status.state = state;
    status.frames = playback.sentFrames();
    status.packets = playback.sentPackets();
    if (playback.isLoaded())
        status.timeMs = playback.getTimeline().timeAt(playback.position()) / std::chrono::milliseconds(1);
    services.board.update(id, status);
}

}  // namespace simulator
