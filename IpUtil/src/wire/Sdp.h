#pragma once

#include "wire/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Session descriptions (RFC 4566) as cameras write them: what strict readers refuse is read here as far
/// as it makes sense, and lines that make none are passed over.
namespace Tavro8::wire
{
enum class SdpDirection : std::uint8_t { sendrecv, sendonly, recvonly, inactive };

enum class SdpMediaKind : std::uint8_t { video, audio, application, other };

/// One `name=value` of an fmtp line; a name without a value has an empty one.
struct SdpParameter {
    std::string name;
    std::string value;
};

/// One payload type of a media section with all that the description says of it.
struct SdpFormat {
    std::uint8_t payloadType = 0;
    std::string encoding;         ///< upper case, for example "H264", "PCMU", "MPEG4-GENERIC"; empty when unknown
    std::uint32_t clockRate = 0;  ///< in Hz, 0 when unknown
    std::uint32_t channels = 0;   ///< audio channels, 1 when not stated; 0 for other media
    std::vector<SdpParameter> parameters;

    /// Value of an fmtp parameter, its name compared without case.
    std::optional<std::string_view> parameter(std::string_view name) const;
};

struct SdpMedia {
    SdpMediaKind kind = SdpMediaKind::other;
    std::string kindName;  ///< as written
    std::uint16_t port = 0;
    std::string protocol;            ///< for example "RTP/AVP"
    std::vector<SdpFormat> formats;  ///< in the order of preference of the device
    std::string control;             ///< empty when not stated
    std::optional<SdpDirection> direction;
    std::optional<double> framerate;  ///< frames a second
    std::uint32_t width = 0;          ///< of `a=x-dimensions` or `a=framesize`, in pixels, 0 when not stated
    std::uint32_t height = 0;

    const SdpFormat* format(std::uint8_t payloadType) const;
};

struct SessionDescription {
    std::string sessionName;
    std::string control;  ///< session level, empty when not stated
    std::optional<SdpDirection> direction;
    std::string range;  ///< text of `a=range`, for example "npt=0-"
    std::vector<SdpMedia> media;

    /// The direction that holds for a section: its own, else the session's, else sendrecv (RFC 4566 section 6).
    SdpDirection directionOf(const SdpMedia& section) const;
};

inline constexpr std::size_t maxSdpBytes = std::size_t{256} * 1024;
inline constexpr std::size_t maxSdpMedia = 32;
inline constexpr std::size_t maxSdpFormats = 64;     ///< payload types of one section
inline constexpr std::size_t maxSdpParameters = 64;  ///< fmtp parameters of one payload type

struct SdpResult {
    std::optional<SessionDescription> description;
    const char* rule = nullptr;  ///< without a description: what was wrong, as a sentence part

    explicit operator bool() const noexcept { return description.has_value(); }
};

/// Fails only when the text is no description at all: empty, too large, with too many sections, or
/// without one line of the form `letter=`.
SdpResult parseSdp(std::string_view text);

/// The format parameters of H.264 (RFC 6184 section 8.1). What is not stated has the RFC's default.
struct H264Format {
    unsigned packetizationMode = 0;
    std::optional<std::uint32_t> profileLevelId;
    std::vector<Bytes> parameterSets;  ///< NAL units without start code: SPS and PPS as they were listed
};
H264Format h264Format(const SdpFormat& format);

/// The format parameters of H.265 (RFC 7798 section 7.1). Each list may be empty.
struct H265Format {
    std::vector<Bytes> vps;
    std::vector<Bytes> sps;
    std::vector<Bytes> pps;
    bool donFields = false;  ///< sprop-max-don-diff above 0: packets carry decoding order numbers
};
H265Format h265Format(const SdpFormat& format);

/// The AudioSpecificConfig of `mpeg4-generic` (RFC 3640 section 4.1), empty when missing or unreadable.
Bytes aacConfig(const SdpFormat& format);

/// The URL for the SETUP of a track, or for PLAY where `control` is the session's ("*" or empty: the base).
///
/// The base is `contentBase`, else `contentLocation`, else `requestUrl`; a missing slash between base and
/// control is put in. Whatever address a control or base names, the result is addressed to the host and
/// port of `requestUrl`, to which we are connected: devices behind a router, and those with a stale
/// setting, name another. Path and query are kept.
std::string resolveControl(std::string_view requestUrl, std::string_view contentBase, std::string_view contentLocation,
                           std::string_view control);
}  // namespace Tavro8::wire
