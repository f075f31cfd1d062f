#include "rtsp/TrackSelection.h"

#include "wire/Text.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Tavro8::Utility
{
namespace
{
using GDRV::MediaCodec;

SdpTrack::Direction directionOf(const wire::SessionDescription& description, const wire::SdpMedia& section)
{
    if (!section.direction && !description.direction)
        return SdpTrack::Direction::unspecified;
    switch (description.directionOf(section)) {
    case wire::SdpDirection::sendrecv:
        return SdpTrack::Direction::sendReceive;
    case wire::SdpDirection::sendonly:
        return SdpTrack::Direction::sendOnly;
    case wire::SdpDirection::recvonly:
        return SdpTrack::Direction::receiveOnly;
    case wire::SdpDirection::inactive:
        return SdpTrack::Direction::inactive;
    }
    return SdpTrack::Direction::unspecified;
}

std::vector<std::vector<std::uint8_t>> parameterSetsOf(const wire::SdpFormat& format, MediaCodec codec)
{
    if (codec == MediaCodec::h264)
        return wire::h264Format(format).parameterSets;
    std::vector<std::vector<std::uint8_t>> sets;
    if (codec == MediaCodec::h265) {
        wire::H265Format h265 = wire::h265Format(format);
        for (auto* list : {&h265.vps, &h265.sps, &h265.pps})
            std::move(list->begin(), list->end(), std::back_inserter(sets));
    } else if (codec == MediaCodec::aac) {
        sets.push_back(wire::aacConfig(format));
    }
    return sets;
}

media::TrackFormat formatOf(const wire::SdpMedia& section, const wire::SdpFormat& chosen)
{
    media::TrackFormat result;
    result.codec = codecOf(chosen.encoding);
    result.clockRate = chosen.clockRate;
    result.channelCount = chosen.channels;
    result.pictureSize = {section.width, section.height};
    for (const wire::SdpFormat& format : section.formats) {
        if (format.encoding == chosen.encoding && format.clockRate == chosen.clockRate)
            result.payloadTypes.push_back(format.payloadType);
    }
    result.parameterSets = parameterSetsOf(chosen, result.codec);
    for (const wire::SdpParameter& parameter : chosen.parameters)
        result.formatParameters.emplace_back(wire::lowerCase(parameter.name), parameter.value);
    return result;
}

const wire::SdpFormat* bestFormat(const wire::SdpMedia& section, const AudioSinkParams& expected)
{
    const auto& formats = section.formats;
    const auto canBeReceived = [&](const wire::SdpFormat& format) {
        return media::refusalOf(formatOf(section, format)) == nullptr;
    };
    auto best = std::ranges::find_if(formats, [&](const wire::SdpFormat& format) {
        return expected.accepts(codecOf(format.encoding), format.clockRate) && canBeReceived(format);
    });
    if (best == formats.end())
        best = std::ranges::find_if(formats, canBeReceived);
    if (best == formats.end())
        best = formats.begin();
    return best == formats.end() ? nullptr : &*best;
}

bool isSentByDevice(const SdpTrack& track) noexcept
{
    // The device's point of view (RFC 4566 section 6) is turned round for back channels: a track marked `sendonly`
    // is the one that we only send to.
    return track.direction != SdpTrack::Direction::sendOnly && track.direction != SdpTrack::Direction::inactive;
}
}  // namespace

MediaCodec codecOf(std::string_view encoding) noexcept
{
    constexpr std::pair<std::string_view, MediaCodec> names[] = {
        {"H264", MediaCodec::h264},  {"H265", MediaCodec::h265},         {"HEVC", MediaCodec::h265},
        {"JPEG", MediaCodec::mjpeg}, {"PCMU", MediaCodec::g711U},        {"PCMA", MediaCodec::g711A},
        {"L16", MediaCodec::pcm16},  {"MPEG4-GENERIC", MediaCodec::aac},
    };
    for (const auto& [name, codec] : names) {
        if (wire::equalsNoCase(name, encoding))
            return codec;
    }
    return MediaCodec::unknown;
}

SessionDescription describeTracks(const wire::SessionDescription& description, const AudioSinkParams& expectedAudio)
{
    SessionDescription result;
    for (std::size_t i = 0; i < description.media.size(); ++i) {
        const wire::SdpMedia& section = description.media[i];
        SdpTrack track;
        track.kind = wire::lowerCase(section.kindName);
        track.control = section.control;
        track.direction = directionOf(description, section);
        track.index = i;
        const bool audio = section.kind == wire::SdpMediaKind::audio;
        for (const wire::SdpFormat& format : section.formats)
            track.formats.push_back(
                {format.encoding, format.payloadType, format.clockRate, std::max(format.channels, 1U)});
        if (const auto* format = bestFormat(section, audio ? expectedAudio : AudioSinkParams{}))
            track.use(track.formats[static_cast<std::size_t>(format - section.formats.data())]);
        result.tracks.push_back(std::move(track));
    }
    return result;
}

media::TrackFormat trackFormatOf(const wire::SdpMedia& section, const SdpTrack& track)
{
    const auto chosen = std::ranges::find(section.formats, track.payloadType,
                                          [](const wire::SdpFormat& format) { return int{format.payloadType}; });
    return chosen == section.formats.end() ? media::TrackFormat{} : formatOf(section, *chosen);
}

bool isWantedVideo(const SdpTrack& track) noexcept
{
    return track.kind == "video" && isSentByDevice(track) && GDRV::isVideo(codecOf(track.encoding));
}

bool isWantedAudio(const SdpTrack& track, const AudioSinkParams& params) noexcept
{
    const MediaCodec codec = codecOf(track.encoding);
    return track.kind == "audio" && isSentByDevice(track) &&
           (codec == MediaCodec::g711U || codec == MediaCodec::g711A || codec == MediaCodec::aac) &&
           params.accepts(codec, track.clockRate);
}
}  // namespace Tavro8::Utility
