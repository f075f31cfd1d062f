#include "FuzzTarget.h"

#include "media/Depacketiser.h"
#include "media/FramePool.h"
#include "rtsp/TrackSelection.h"
#include "wire/Sdp.h"
#include "wire/Text.h"

#include <algorithm>
#include <memory>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
using wire::SdpFormat;
using wire::SdpMedia;
using wire::SdpResult;
using wire::SessionDescription;

const std::string url = "rtsp://192.0.2.1:8554/media/video1";

class NoFrames final : public media::AccessUnitSink {
    void onAccessUnit(GDRV::MediaFrame&, std::uint32_t) override { require(false, "no frame comes before a packet"); }
};

/// All that a description says, for comparisons.
std::string summaryOf(const SessionDescription& description)
{
    std::string text = description.sessionName + '\n' + description.control + '\n' + description.range + '\n';
    for (const SdpMedia& section : description.media) {
        text += section.kindName + ' ' + section.protocol + ' ' + section.control + ' ' + std::to_string(section.port) +
                ' ' + std::to_string(section.width) + 'x' + std::to_string(section.height) + ' ' +
                std::to_string(static_cast<int>(description.directionOf(section))) + '\n';
        for (const SdpFormat& format : section.formats) {
            text += std::to_string(format.payloadType) + format.encoding + std::to_string(format.clockRate) + '/' +
                    std::to_string(format.channels);
            for (const auto& parameter : format.parameters)
                text += ';' + parameter.name + '=' + parameter.value;
            text += '\n';
        }
    }
    return text;
}

std::size_t bytesOf(const std::vector<Bytes>& sets)
{
    std::size_t bytes = 0;
    for (const Bytes& set : sets)
        bytes += set.size();
    return bytes;
}

void checkFormat(const SdpMedia& section, const SdpFormat& format, std::size_t textBytes)
{
    require(format.payloadType <= 127, "a payload type has seven bits");
    require(format.parameters.size() <= wire::maxSdpParameters, "the parameters are bounded");
    require(std::ranges::none_of(format.encoding, [](char c) { return c >= 'a' && c <= 'z'; }),
            "encodings are in upper case");
    const SdpFormat* found = section.format(format.payloadType);
    require(found != nullptr && found->payloadType == format.payloadType, "a format is found by its payload type");
    require(bytesOf(wire::h264Format(format).parameterSets) <= textBytes, "parameter sets come from the text");
    const wire::H265Format h265 = wire::h265Format(format);
    require(bytesOf(h265.vps) + bytesOf(h265.sps) + bytesOf(h265.pps) <= textBytes,
            "parameter sets come from the text");
    require(wire::aacConfig(format).size() <= textBytes, "the configuration comes from the text");
}

void checkTracks(const SessionDescription& description)
{
    for (const auto expected : {GDRV::MediaCodec::unknown, GDRV::MediaCodec::g711A, GDRV::MediaCodec::aac}) {
        const auto described = Utility::describeTracks(description, {expected, 0});
        require(described.tracks.size() == description.media.size(), "each section is a track");
        for (const auto& track : described.tracks) {
            const SdpMedia& section = description.media[track.index];
            require(track.channels >= 1, "there is a channel");
            Utility::isWantedVideo(track);
            Utility::isWantedAudio(track, {});
            const media::TrackFormat format = Utility::trackFormatOf(section, track);
            NoFrames sink;
            media::FramePool pool;
            const auto depacketiser = media::makeDepacketiser(format, pool, sink);
            require((media::refusalOf(format) == nullptr) == (depacketiser != nullptr),
                    "what is not refused can be received");
            require(format.payloadTypes.empty() || track.payloadType >= 0, "a format has a payload type");
            if (depacketiser)
                depacketiser->flush();
        }
    }
}

void checkControl(std::string_view control, std::string_view base)
{
    const std::string resolved = wire::resolveControl(url, base, {}, control);
    require(resolved.starts_with("rtsp://192.0.2.1:8554"), "requests go to the device that we are connected to");
    require(std::ranges::none_of(resolved, [](char c) { return c == ' ' || wire::isControl(c); }),
            "a URL fits into a request line");
}

/// A session description.
///
/// Promises: everything is bounded and comes from the text; what can be described can be given to a depacketiser or
/// is refused with a reason; line ends and blanks at the ends of lines make no difference; whatever a control names,
/// requests go to the device that we are connected to.
void feed(ByteView input)
{
    const Bytes bytes(input.begin(), input.end());
    const std::string_view text = textOf(bytes);
    const SdpResult result = wire::parseSdp(text);
    require(result || result.rule != nullptr, "a refusal has a reason");
    checkControl(text.substr(0, text.find('\n')), text.substr(std::min(text.size(), text.find('\n'))));
    if (!result)
        return;
    const SessionDescription& description = *result.description;
    require(description.media.size() <= wire::maxSdpMedia, "the sections are bounded");
    for (const SdpMedia& section : description.media) {
        require(section.formats.size() <= wire::maxSdpFormats, "the formats are bounded");
        for (const SdpFormat& format : section.formats)
            checkFormat(section, format, text.size());
        checkControl(section.control, description.control);
    }
    checkTracks(description);

    std::string blanks;
    for (const char c : text)
        blanks += c == '\n' ? std::string(" \r\n") : std::string(1, c);
    if (blanks.size() > wire::maxSdpBytes)
        return;
    const SdpResult again = wire::parseSdp(blanks);
    require(again && summaryOf(*again.description) == summaryOf(description),
            "line ends and blanks before them make no difference");
}

const Target sdp("sdp", feed);
}  // namespace
}  // namespace Tavro8::fuzz
