#include "AudioDestination.h"

#include "ObjectName.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace Uniview
{
namespace
{
using Tavro8::error_code;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::Utility::G711EncodingFilter;
using Tavro8::Utility::G711Law;
using Tavro8::Utility::PcmPacketizingFilter;
using Tavro8::Utility::RTSPClient;
using Tavro8::Utility::SdpTrack;
using Tavro8::Utility::SessionDescription;

constexpr const char* backChannelTag = "www.onvif.org/ver20/backchannel";
constexpr std::size_t packetBytes = 160;  // 20 ms of G.711

/// Where the sound of each call is kept, read once when the module is loaded; empty when it is not to be kept.
const std::filesystem::path dumpDirectory = [] {
#if defined(_WIN32)
    const wchar_t* const text = _wgetenv(L"KELVO_SPEAKER_AUDIO_OUTPUT_DUMP_DIR");  // narrow, it has a code page
#else
    const char* const text = std::getenv("KELVO_SPEAKER_AUDIO_OUTPUT_DUMP_DIR");
#endif
    return text == nullptr ? std::filesystem::path() : std::filesystem::path(text);
}();

std::optional<G711Law> lawOf(const SdpTrack::Format& format)
{
    if (format.clockRate != Tavro8::Utility::talkBackRate || format.channels != 1)
        return {};
    if (format.encoding == "PCMU")
        return G711Law::uLaw;
    if (format.encoding == "PCMA")
        return G711Law::aLaw;
    return {};
}

/// The way to the device, and the first of its formats that can be sent.
struct BackChannel {
    SdpTrack track;
    std::optional<G711Law> law;
};

/// Of several such tracks one that takes G.711; nothing when there is no such track at all.
std::optional<BackChannel> findBackChannel(const SessionDescription& description)
{
    std::optional<BackChannel> found;
    for (const SdpTrack& track : description.tracks) {
        if (track.kind != "audio" || track.direction != SdpTrack::Direction::sendOnly)
            continue;
        if (!found)
            found = BackChannel{track, {}};
        const auto format =
            std::ranges::find_if(track.formats, [](const auto& each) { return lawOf(each).has_value(); });
        if (format == track.formats.end())
            continue;
        found = BackChannel{track, lawOf(*format)};
        found->track.use(*format);
        break;
    }
    return found;
}

std::string livePathOf(std::uint32_t channel)
{
    return "/media/video" + std::to_string(channel + 1);
}
}  // namespace

/// Nothing reaches this object after it has gone, nor one call from the client of another.
template <typename... Arguments>
auto AudioDestination::bind(void (AudioDestination::*handle)(const error_code&, Arguments...))
{
    return [weak = weak_from_this(), of = std::weak_ptr(client), handle](const error_code& ec, Arguments... arguments) {
        const auto self = std::static_pointer_cast<AudioDestination>(weak.lock());
        if (self != nullptr && self->client != nullptr && self->client == of.lock())
            (*self.*handle)(ec, arguments...);
    };
}

// ---- sending --------------------------------------------------------------------------------------------------

UniviewAudioSendingFilter::UniviewAudioSendingFilter(AudioDestination& destination)
    : destination(&destination),
      timeStamps(Tavro8::Utility::talkBackRate, Tavro8::Utility::talkBackRate),
      firstTimeStamp(std::random_device{}())
{}

void UniviewAudioSendingFilter::process(std::span<const std::uint8_t> packet)
{
    const auto time = timeStamps.inc(packet.size()).toFrequency(Tavro8::Utility::talkBackRate);
    destination->sendPacket(packet, firstTimeStamp + static_cast<std::uint32_t>(time));
}

void AudioDestination::makeFilters()
{
    filters = std::make_unique<Filters>(G711EncodingFilter{}, PcmPacketizingFilter{}, UniviewAudioSendingFilter{*this});
    filters->get<PcmPacketizingFilter>().setPacketSize(packetBytes);
}

void AudioDestination::sendSound(std::span<const std::int16_t> samples)
{
    filters->process(samples);
}

void AudioDestination::sendPacket(std::span<const std::uint8_t> packet, std::uint32_t timestamp)
{
    if (client != nullptr)
        client->sendPacket(track, {packet.begin(), packet.end()}, timestamp,
                           bind(&AudioDestination::handleWritePacket));
}

void AudioDestination::handleWritePacket(const error_code& ec)
{
    if (!ec || !isUnderWay())
        return;
    log.error("Uniview::AudioDestination::handleWritePacket", "Failed to write packet:", ec.message());
    fail(ec);
}

// ---- the line -------------------------------------------------------------------------------------------------

Tavro8::GDRV::IAudioDestination* AudioDestination::create(Device* device, std::uint32_t channel,
                                                          Tavro8::GDRV::IAudioDestinationHandler* handler,
                                                          const Tavro8::ParameterMap& parameters)
{
    Tavro8::Utility::TalkBackContext context;
    context.parameters = parameters;
    context.objectName = destinationObjectName(channel);
    context.channel = channel;
    context.dumpDirectory = dumpDirectory;
    const auto destination = std::make_shared<AudioDestination>(device, handler, std::move(context));
    destination->adopt();
    return destination.get();
}

void AudioDestination::openLine()
{
    makeFilters();
    const auto info = device->getRtspConnectionInfo();
    if (info == nullptr) {
        const error_code ec = make_error_code(ResultCode::invalidState);
        log.error("Uniview::AudioDestination::openLine",
                  "Session initialization error:", "the device is not connected");
        return fail(ec);
    }
    client = RTSPClient::create(worker.service(), deviceLogger);
    client->setKeepAliveCommand(Tavro8::Utility::RTSP_METHOD_SET_PARAMETER);
    client->setConnectTimeout(Tavro8::Utility::DEFAULT_CONNECT_TIMEOUT);
    initializeRTSPClientFromParams(*client, parameters);
    client->setClosedHandler(bind(&AudioDestination::handleClosed));
    client->initialize(info, livePathOf(context.channel), bind(&AudioDestination::handleSession));
}

void AudioDestination::handleSession(const error_code& ec)
{
    if (ec) {
        log.error("Uniview::AudioDestination::handleSession", "Session initialization error:", ec.message());
        return fail(ec);
    }
    client->performDefaultSteps({{Tavro8::Utility::RTSP_HEADER_REQUIRE, backChannelTag}},
                                bind(&AudioDestination::handleSdp), bind(&AudioDestination::handlePlay));
}

void AudioDestination::handleSdp(const error_code& ec, const SessionDescription& description)
{
    constexpr const char* operation = "Uniview::AudioDestination::handleSdp";
    if (ec == ResultCode::malformedReply) {
        log.error(operation, "Failed to parse sdp");
        return fail(ec);
    }
    if (ec) {
        log.error(operation, "failed request sdp:", ec.message());
        return fail(ec);
    }
    auto found = findBackChannel(description);
    if (!found) {
        log.error(operation, "Cannot find track with sendonly attribute for backchannel.");
        return fail(ResultCode::noSuchStream);
    }
    if (!found->law) {
        log.error(operation, "The back channel takes no G.711 at 8000 Hz");
        return fail(ResultCode::unsupportedMedia);
    }
    filters->get<G711EncodingFilter>().setLaw(*found->law);
    track = client->addTrack({std::move(found->track), {}});
}

void AudioDestination::handlePlay(const error_code& ec)
{
    if (ec) {
        log.error("Uniview::AudioDestination::handlePlay", "error sending play comand:", ec.message());
        return fail(ec);
    }
    lineStands();
}

/// The client has logged why.
void AudioDestination::handleClosed(const error_code& ec)
{
    fail(ec);
}

void AudioDestination::fail(const error_code& ec)
{
    lineEnded(Tavro8::Utility::translateSystemError(ec));
}

void AudioDestination::closeLine(std::function<void()> done)
{
    // The filters stay: one of them may be at work.
    const auto ending = std::exchange(client, nullptr);
    if (ending == nullptr)
        return done();
    ending->teardown([done = std::move(done)](const error_code&) { done(); });
}
}  // namespace Uniview
