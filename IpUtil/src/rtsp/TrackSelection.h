#pragma once

#include "media/Depacketiser.h"
#include "wire/Sdp.h"

#include <IpUtil/RTSPClient.h>
#include <string_view>

/// From the wire's view of a session description to the driver's and to the depacketisers'.
namespace Tavro8::Utility
{
/// The codec that an encoding name of an rtpmap line stands for.
GDRV::MediaCodec codecOf(std::string_view encoding) noexcept;

/// Each section becomes one track, described by the best of its formats: the first that can be received and is
/// expected, else the first that can be received, else the first.
SessionDescription describeTracks(const wire::SessionDescription& description, const AudioSinkParams& expectedAudio);

/// What the depacketiser of a track needs: all payload types of the track's codec, and its parameter sets.
media::TrackFormat trackFormatOf(const wire::SdpMedia& section, const SdpTrack& track);

/// A video track that the device sends and whose codec is known here.
bool isWantedVideo(const SdpTrack& track) noexcept;
/// The same for audio, and of the expected codec and rate.
bool isWantedAudio(const SdpTrack& track, const AudioSinkParams& params) noexcept;
}  // namespace Tavro8::Utility
