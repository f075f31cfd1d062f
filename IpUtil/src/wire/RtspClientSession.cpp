#include "wire/RtspClientSession.h"

#include "wire/Text.h"
#include "wire/Url.h"

#include <algorithm>
#include <array>
#include <utility>

namespace Tavro8::wire
{
namespace
{
constexpr std::size_t maxReasonBytes = 64;
constexpr std::size_t maxTracks = 64;  ///< two channels each fit into the one byte of a frame header
constexpr std::chrono::milliseconds longestKeepAliveInterval{30'000};
constexpr std::chrono::milliseconds shortestKeepAliveInterval{500};
constexpr std::string_view methodsWeAnswer = "OPTIONS, GET_PARAMETER, SET_PARAMETER";

bool isSuccess(unsigned status)
{
    return status >= 200 && status < 300;
}

RtspError errorOf(unsigned status)
{
    switch (status) {
    case 403:
        return RtspError::forbidden;
    case 404:
        return RtspError::notFound;
    case 453:
        return RtspError::notEnoughBandwidth;
    case 454:
        return RtspError::sessionNotFound;
    case 461:
        return RtspError::unsupportedTransport;
    case 503:
        return RtspError::serviceUnavailable;
    case 551:
        return RtspError::optionNotSupported;
    default:
        break;
    }
    if (status >= 300 && status < 400)
        return RtspError::redirected;
    return status >= 500 && status < 600 ? RtspError::serverError : RtspError::requestRefused;
}

std::string_view methodOf(RtspKeepAlive choice)
{
    switch (choice) {
    case RtspKeepAlive::getParameter:
        return "GET_PARAMETER";
    case RtspKeepAlive::setParameter:
        return "SET_PARAMETER";
    case RtspKeepAlive::automatic:
    case RtspKeepAlive::options:
        break;
    }
    return "OPTIONS";
}

bool isKnownMethod(std::string_view method)
{
    constexpr std::array<std::string_view, 8> others = {"DESCRIBE", "ANNOUNCE", "SETUP",  "PLAY",
                                                        "PAUSE",    "TEARDOWN", "RECORD", "REDIRECT"};
    return std::find(others.begin(), others.end(), method) != others.end();
}

/// What the device says of its refusal, fit for a log line.
std::string printable(std::string_view text)
{
    std::string result;
    for (const char c : text.substr(0, maxReasonBytes))
        result += isControl(c) || static_cast<unsigned char>(c) >= 0x80 ? '?' : c;
    return result;
}

TransportHeader transportFor(const RtspTrackRequest& request, bool udp, std::size_t trackNumber)
{
    TransportHeader transport;
    if (udp) {
        transport.clientPort = request.clientPort;
        return transport;
    }
    const auto channel = static_cast<std::uint8_t>(trackNumber * 2);
    transport.tcp = true;
    transport.interleaved = ChannelPair{channel, static_cast<std::uint8_t>(channel + 1)};
    return transport;
}

RtspClientSession::Failed failureOf(RtspError error, RtspStepKind kind, const RtspResponse* response)
{
    RtspClientSession::Failed failed{error, kind, 0, {}};
    if (response != nullptr) {
        failed.status = response->status;
        failed.reason = printable(response->reason);
    }
    return failed;
}

/// Path and query; devices write other hosts into RTP-Info than the one we are connected to.
std::string_view targetOf(std::string_view url)
{
    const std::size_t scheme = url.find("://");
    if (scheme == std::string_view::npos)
        return url;
    const std::size_t begin = url.find('/', scheme + 3);
    return begin == std::string_view::npos ? std::string_view{} : url.substr(begin);
}
}  // namespace

const char* describe(RtspError error) noexcept
{
    switch (error) {
    case RtspError::none:
        return "No error.";
    case RtspError::wrongCredentials:
        return "The device refuses the user name or password.";
    case RtspError::authenticationMissing:
        return "The device asks for a user name and password.";
    case RtspError::authenticationUnknown:
        return "The device asks for a kind of authentication that is not supported.";
    case RtspError::forbidden:
        return "The user has no right to this stream.";
    case RtspError::notFound:
        return "The device has no such stream.";
    case RtspError::sessionNotFound:
        return "The device does not know the session any more.";
    case RtspError::unsupportedTransport:
        return "The device does not send the stream over the transport asked for.";
    case RtspError::notEnoughBandwidth:
        return "The device has no bandwidth left for another viewer.";
    case RtspError::serviceUnavailable:
        return "The device cannot serve the stream at present.";
    case RtspError::optionNotSupported:
        return "The device does not support a required feature.";
    case RtspError::redirected:
        return "The device sends the viewer to another address, which is not followed.";
    case RtspError::requestRefused:
        return "The device refuses the request.";
    case RtspError::serverError:
        return "The device has failed internally.";
    case RtspError::badDescription:
        return "The device's description of the stream cannot be read.";
    case RtspError::noTracks:
        return "The stream has no track that can be received.";
    case RtspError::misuse:
        return "The step does not fit the state of the session.";
    }
    return "Unknown RTSP error.";
}

const char* nameOf(RtspStepKind kind) noexcept
{
    switch (kind) {
    case RtspStepKind::options:
        return "OPTIONS";
    case RtspStepKind::describe:
        return "DESCRIBE";
    case RtspStepKind::setup:
        return "SETUP";
    case RtspStepKind::play:
        return "PLAY";
    case RtspStepKind::pause:
        return "PAUSE";
    case RtspStepKind::keepAlive:
        return "keep-alive";
    case RtspStepKind::teardown:
        return "TEARDOWN";
    case RtspStepKind::answer:
        return "answer";
    }
    return "request";
}

RtspClientSession::RtspClientSession(RtspSessionConfig configuration) : config(std::move(configuration))
{
    config.url = urlWithoutCredentials(percentSafe(config.url));
}

RtspClientSession::Step RtspClientSession::start()
{
    if (current != State::idle)
        return fail(RtspError::misuse, RtspStepKind::options, nullptr);
    current = State::opening;
    return send(RtspStepKind::options, "OPTIONS", config.url);
}

RtspClientSession::Step RtspClientSession::setup(std::vector<RtspTrackRequest> requested)
{
    if (current != State::described)
        return fail(RtspError::misuse, RtspStepKind::setup, nullptr);
    std::erase_if(requested, [this](const RtspTrackRequest& track) { return track.mediaIndex >= sdp.media.size(); });
    if (requested.empty() || requested.size() > maxTracks)
        return fail(RtspError::noTracks, RtspStepKind::setup, nullptr);
    wanted = std::move(requested);
    settingUp = 0;
    current = State::settingUp;
    return setupNextTrack();
}

RtspClientSession::Step RtspClientSession::play(const RtspPlayRequest& request)
{
    if (!isMidway())
        return fail(RtspError::misuse, RtspStepKind::play, nullptr);
    return sendPlay(request);
}

RtspClientSession::Step RtspClientSession::pause()
{
    if (!isMidway())
        return fail(RtspError::misuse, RtspStepKind::pause, nullptr);
    return send(RtspStepKind::pause, "PAUSE", aggregateUrl);
}

/// Set up, and neither a PLAY nor a PAUSE is on its way.
bool RtspClientSession::isMidway() const noexcept
{
    return (current == State::ready || current == State::playing) &&
           std::ranges::none_of(pendings, [](const Pending& pending) {
               return pending.kind == RtspStepKind::play || pending.kind == RtspStepKind::pause;
           });
}

RtspClientSession::Step RtspClientSession::keepAlive()
{
    if (current != State::playing && current != State::ready)
        return Ignored{};
    // Some devices never answer one: it must not keep the next from being sent. A late answer is ignored.
    std::erase_if(pendings, [](const Pending& pending) { return pending.kind == RtspStepKind::keepAlive; });
    RtspKeepAlive choice = config.keepAlive;
    if (choice == RtspKeepAlive::automatic && methods.contains("GET_PARAMETER") && !getParameterRefused)
        choice = RtspKeepAlive::getParameter;
    return send(RtspStepKind::keepAlive, methodOf(choice), aggregateUrl);
}

RtspClientSession::Step RtspClientSession::teardown()
{
    if (current == State::closing)
        return Ignored{};
    pendings.clear();  // late answers would open again what is closed
    if (session.id.empty() || current == State::closed) {
        current = State::closed;
        return Closed{};
    }
    current = State::closing;
    return send(RtspStepKind::teardown, "TEARDOWN", aggregateUrl);
}

std::chrono::milliseconds RtspClientSession::keepAliveInterval() const noexcept
{
    const std::chrono::milliseconds half = std::chrono::milliseconds(session.timeout) / 2;
    return std::clamp(half, shortestKeepAliveInterval, longestKeepAliveInterval);
}

RtspClientSession::Step RtspClientSession::handle(const RtspMessage& message)
{
    return std::visit([this](const auto& kind) { return handle(kind); }, message);
}

RtspClientSession::Step RtspClientSession::handle(const RtspRequest& request)
{
    RtspResponse response;
    const std::string method = upperCase(request.method);
    if (method == "OPTIONS" || method == "GET_PARAMETER" || method == "SET_PARAMETER") {
        response.status = 200;
        response.reason = "OK";
    } else if (isKnownMethod(method)) {
        response.status = 405;
        response.reason = "Method Not Allowed";
    } else {
        response.status = 501;
        response.reason = "Not Implemented";
    }
    for (const std::string_view echoed : {"CSeq", "Session"}) {
        if (const auto value = request.headers.find(echoed))
            response.headers.add(echoed, *value);
    }
    if (method == "OPTIONS")
        response.headers.add("Public", methodsWeAnswer);
    else if (response.status == 405)
        response.headers.add("Allow", methodsWeAnswer);
    return Send{write(response), RtspStepKind::answer};
}

RtspClientSession::Step RtspClientSession::handle(const RtspResponse& response)
{
    const auto cseq = cseqOf(response.headers);
    auto found = std::find_if(pendings.begin(), pendings.end(),
                              [&](const Pending& pending) { return cseq && pending.cseq == *cseq; });
    // Without a number the answer can only be to the one request that waits.
    if (pendings.size() == 1 && !response.headers.contains("CSeq"))
        found = pendings.begin();
    // An answer to nothing, or a late one to a request that no longer matters. 1xx announces the real answer.
    if (found == pendings.end() || response.status < 200)
        return Ignored{};
    Pending pending = std::move(*found);
    pendings.erase(found);

    if (response.status == 401)
        return retryAuthorized(std::move(pending), response);
    if (!isSuccess(response.status))
        return refused(pending, response);
    switch (pending.kind) {
    case RtspStepKind::options:
        return onOptions(response);
    case RtspStepKind::describe:
        return onDescribe(response);
    case RtspStepKind::setup:
        return onSetup(pending, response);
    case RtspStepKind::play:
        return onPlay(response);
    case RtspStepKind::pause:
        current = State::ready;
        return Paused{};
    case RtspStepKind::teardown:
        current = State::closed;
        return Closed{};
    case RtspStepKind::keepAlive:
    case RtspStepKind::answer:
        break;
    }
    return Ignored{};
}

RtspClientSession::Step RtspClientSession::send(RtspStepKind kind, std::string_view method, std::string_view uri,
                                                HeaderList extra)
{
    Pending pending{0, kind, 0, {std::string(method), std::string(uri), std::move(extra), {}}};
    HeaderList& headers = pending.request.headers;
    if (!config.userAgent.empty())
        headers.add("User-Agent", config.userAgent);
    if (!config.require.empty())
        headers.add("Require", config.require);
    for (const HeaderField& field : config.headers)
        headers.add(field.name, field.value);
    if (!session.id.empty())
        headers.add("Session", session.id);
    return dispatch(std::move(pending));
}

/// Numbers the request, authorizes it as far as the challenge is known, and remembers it.
RtspClientSession::Step RtspClientSession::dispatch(Pending pending)
{
    RtspRequest& request = pending.request;
    pending.cseq = nextCseq++;
    HeaderList headers;
    headers.add("CSeq", std::to_string(pending.cseq));
    for (const HeaderField& field : request.headers) {
        if (!equalsNoCase(field.name, "CSeq") && !equalsNoCase(field.name, "Authorization"))
            headers.add(field.name, field.value);
    }
    if (auth.known())
        headers.add("Authorization",
                    auth.authorization(config.credentials, request.method, request.uri, config.cnonce));
    request.headers = std::move(headers);

    Send out{write(request), pending.kind};
    pendings.push_back(std::move(pending));
    return out;
}

RtspClientSession::Step RtspClientSession::retryAuthorized(Pending pending, const RtspResponse& response)
{
    RtspError error = RtspError::none;
    if (config.credentials.empty()) {
        error = RtspError::authenticationMissing;
    } else {
        const auto challenges = parseChallenges(response.headers.all("WWW-Authenticate"));
        const std::string refusedHeader(pending.request.headers.get("Authorization"));
        switch (auth.update(challenges, refusedHeader, pending.attempt)) {
        case AuthVerdict::retry:
            ++pending.attempt;
            return dispatch(std::move(pending));
        case AuthVerdict::wrongCredentials:
            error = RtspError::wrongCredentials;
            break;
        case AuthVerdict::unsupported:
            error = RtspError::authenticationUnknown;
            break;
        }
    }
    if (pending.kind == RtspStepKind::keepAlive || pending.kind == RtspStepKind::teardown)
        return refused(pending, response);
    return fail(error, pending.kind, &response);
}

/// A request was answered with an error.
RtspClientSession::Step RtspClientSession::refused(const Pending& pending, const RtspResponse& response)
{
    switch (pending.kind) {
    case RtspStepKind::options:
        // Some devices do not know the method. What else is wrong shows itself at DESCRIBE.
        if ((response.status >= 400 && response.status < 500) || response.status == 501)
            return sendDescribe();
        return fail(errorOf(response.status), pending.kind, &response);
    case RtspStepKind::setup:
        return setupRefused(errorOf(response.status), response);
    case RtspStepKind::keepAlive:
        if (pending.request.method == "GET_PARAMETER")
            getParameterRefused = true;
        return KeepAliveRefused{response.status};
    case RtspStepKind::teardown:
        current = State::closed;  // The device has dropped the session by itself: nothing is left to end.
        return Closed{};
    case RtspStepKind::play:
    case RtspStepKind::pause:
        if (current != State::starting && errorOf(response.status) != RtspError::sessionNotFound)
            return Refused{failureOf(errorOf(response.status), pending.kind, &response)};
        return fail(errorOf(response.status), pending.kind, &response);
    default:
        return fail(errorOf(response.status), pending.kind, &response);
    }
}

RtspClientSession::Step RtspClientSession::fail(RtspError error, RtspStepKind kind, const RtspResponse* response)
{
    // A caller's mistake does not end a session that runs.
    if (error != RtspError::misuse) {
        current = State::failed;
        pendings.clear();
    }
    return failureOf(error, kind, response);
}

RtspClientSession::Step RtspClientSession::onOptions(const RtspResponse& response)
{
    methods = MethodList(response.headers);
    return sendDescribe();
}

RtspClientSession::Step RtspClientSession::sendDescribe()
{
    HeaderList extra;
    extra.add("Accept", "application/sdp");
    return send(RtspStepKind::describe, "DESCRIBE", config.url, std::move(extra));
}

RtspClientSession::Step RtspClientSession::onDescribe(const RtspResponse& response)
{
    SdpResult parsed = parseSdp(response.body);
    if (!parsed) {
        Failed failed{RtspError::badDescription, RtspStepKind::describe, response.status, parsed.rule};
        fail(failed.error, failed.kind, &response);
        return failed;
    }
    sdp = std::move(*parsed.description);
    contentBase = response.headers.get("Content-Base");
    contentLocation = response.headers.get("Content-Location");
    aggregateUrl = resolveControl(config.url, contentBase, contentLocation, sdp.control);
    current = State::described;
    return Described{};
}

/// The device's last refusal says more than that nothing is left.
RtspClientSession::Step RtspClientSession::failWithoutTracks()
{
    Step step = fail(RtspError::noTracks, RtspStepKind::setup, nullptr);
    return lastRefusal ? Step(*lastRefusal) : step;
}

RtspClientSession::Step RtspClientSession::onAllSetUp()
{
    if (established.empty())
        return failWithoutTracks();
    if (!config.playAtOnce) {
        current = State::ready;
        return Ready{};
    }
    current = State::starting;
    return sendPlay({config.range, config.scale, {}});
}

RtspClientSession::Step RtspClientSession::setupNextTrack()
{
    if (settingUp >= wanted.size())
        return onAllSetUp();
    const SdpMedia& media = sdp.media[wanted[settingUp].mediaIndex];
    HeaderList extra;
    extra.add("Transport", write(transportFor(wanted[settingUp], asksForUdp(wanted[settingUp]), settingUp)));
    const std::string url = resolveControl(config.url, contentBase, contentLocation, media.control);
    return send(RtspStepKind::setup, "SETUP", url, std::move(extra));
}

RtspClientSession::Step RtspClientSession::onSetup(const Pending& pending, const RtspResponse& response)
{
    const RtspTrackRequest& request = wanted[settingUp];
    const bool udp = asksForUdp(request);
    const TransportHeader asked = transportFor(request, udp, settingUp);
    adoptSession(response);

    RtspTrack track;
    track.mediaIndex = request.mediaIndex;
    track.url = pending.request.uri;
    // A device that answers without the header has taken what was asked for.
    track.transport = parseTransport(response.headers.get("Transport")).value_or(asked);
    if (track.transport.interleaved)
        track.transport.tcp = true;  // Some answers leave out the "/TCP".
    // Channels in answer to UDP ports are a choice that can be followed; ports in answer to channels are not ours.
    if ((track.transport.tcp != asked.tcp && !track.transport.interleaved) ||
        (!track.transport.tcp && track.transport.multicast))
        return setupRefused(RtspError::unsupportedTransport, response);
    track.channels = track.transport.interleaved.value_or(asked.interleaved.value_or(ChannelPair{}));
    track.refusedOther = request.clientPort && request.order != RtspTransportOrder::udpOnly &&
                         track.transport.tcp == (request.order == RtspTransportOrder::udpThenInterleaved);
    established.push_back(std::move(track));
    ++settingUp;
    return setupNextTrack();
}

RtspClientSession::Step RtspClientSession::setupRefused(RtspError error, const RtspResponse& response)
{
    const RtspTrackRequest& request = wanted[settingUp];
    const bool refusesTransport = error == RtspError::unsupportedTransport || mayMeanTransport(response.status);
    if (refusesTransport && turnsToOtherTransport(request))
        return setupNextTrack();
    if (!request.optional)
        return fail(error, RtspStepKind::setup, &response);
    lastRefusal = failureOf(error, RtspStepKind::setup, &response);
    ++settingUp;
    return setupNextTrack();
}

/// Of the first SETUP: what a later one is refused with has nothing to do with its transport.
bool RtspClientSession::mayMeanTransport(unsigned status) const noexcept
{
    if (settingUp != 0 || (status != 501 && (status < 400 || status >= 500)))
        return false;
    constexpr std::array<unsigned, 5> others = {401, 403, 404, 453, 454};  // rights, place and session
    return std::find(others.begin(), others.end(), status) == others.end();
}

bool RtspClientSession::asksForUdp(const RtspTrackRequest& request) const noexcept
{
    return request.clientPort && (request.order == RtspTransportOrder::udpOnly ||
                                  (request.order == RtspTransportOrder::udpThenInterleaved) != firstTransportRefused);
}

bool RtspClientSession::turnsToOtherTransport(const RtspTrackRequest& request) noexcept
{
    const bool hasOther = request.clientPort && request.order != RtspTransportOrder::udpOnly;
    return hasOther && !std::exchange(firstTransportRefused, true);
}

RtspClientSession::Step RtspClientSession::sendPlay(const RtspPlayRequest& request)
{
    HeaderList extra = request.headers;
    if (!request.range.empty())
        extra.add("Range", request.range);
    if (!request.scale.empty())
        extra.add("Scale", request.scale);
    return send(RtspStepKind::play, "PLAY", aggregateUrl, std::move(extra));
}

RtspClientSession::Step RtspClientSession::onPlay(const RtspResponse& response)
{
    adoptSession(response);
    for (RtspTrack& track : established) {
        track.firstSequenceNumber.reset();
        track.firstRtpTimestamp.reset();
    }
    for (const std::string_view line : response.headers.all("RTP-Info"))
        adoptRtpInfo(line);
    answer = {parseClockRange(response.headers.get("Range")), parseScale(response.headers.get("Scale")),
              std::string(trim(response.headers.get("Frames")))};
    current = State::playing;
    return Playing{};
}

/// The first answer names the session; a later one may state the timeout only then.
void RtspClientSession::adoptSession(const RtspResponse& response)
{
    const auto stated = parseSession(response.headers.get("Session"));
    if (stated && (session.id.empty() || stated->timeoutStated))
        session = *stated;
}

/// Entries are matched by path; one track with one entry needs no match.
void RtspClientSession::adoptRtpInfo(std::string_view value)
{
    const std::vector<RtpInfo> entries = parseRtpInfo(value);
    for (const RtpInfo& entry : entries) {
        const std::string_view target = targetOf(entry.url);
        for (RtspTrack& track : established) {
            const bool only = entries.size() == 1 && established.size() == 1;
            if (!only && (target.empty() || !track.url.ends_with(target)))
                continue;
            track.firstSequenceNumber = entry.sequenceNumber;
            track.firstRtpTimestamp = entry.rtpTimestamp;
            break;
        }
    }
}
}  // namespace Tavro8::wire
