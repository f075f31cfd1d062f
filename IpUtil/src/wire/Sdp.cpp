#include "wire/Sdp.h"

#include "wire/Text.h"
#include "wire/Url.h"

#include <algorithm>
#include <array>

namespace Tavro8::wire
{
namespace
{
struct StaticFormat {
    std::uint8_t payloadType;
    const char* encoding;
    std::uint32_t clockRate;
    std::uint32_t channels;
};

/// The payload types that need no rtpmap (RFC 3551 section 6).
constexpr std::array staticFormats = {
    StaticFormat{0, "PCMU", 8000, 1},  StaticFormat{3, "GSM", 8000, 1},    StaticFormat{4, "G723", 8000, 1},
    StaticFormat{5, "DVI4", 8000, 1},  StaticFormat{8, "PCMA", 8000, 1},   StaticFormat{9, "G722", 8000, 1},
    StaticFormat{10, "L16", 44100, 2}, StaticFormat{11, "L16", 44100, 1},  StaticFormat{14, "MPA", 90000, 1},
    StaticFormat{18, "G729", 8000, 1}, StaticFormat{26, "JPEG", 90000, 0}, StaticFormat{31, "H261", 90000, 0},
    StaticFormat{32, "MPV", 90000, 0}, StaticFormat{33, "MP2T", 90000, 0}, StaticFormat{34, "H263", 90000, 0},
};

constexpr std::uint8_t highestPayloadType = 127;

std::string_view takeWord(std::string_view& text)
{
    text = trim(text);
    const std::size_t end = std::min(text.find_first_of(" \t"), text.size());
    const std::string_view word = text.substr(0, end);
    text = trim(text.substr(end));
    return word;
}

std::optional<std::uint8_t> parsePayloadType(std::string_view text)
{
    const auto type = parseNumber<std::uint8_t>(text);
    return type && *type <= highestPayloadType ? type : std::nullopt;
}

SdpMediaKind kindOf(std::string_view name)
{
    if (equalsNoCase(name, "video"))
        return SdpMediaKind::video;
    if (equalsNoCase(name, "audio"))
        return SdpMediaKind::audio;
    if (equalsNoCase(name, "application"))
        return SdpMediaKind::application;
    return SdpMediaKind::other;
}

std::optional<SdpDirection> directionNamed(std::string_view name)
{
    if (equalsNoCase(name, "sendrecv"))
        return SdpDirection::sendrecv;
    if (equalsNoCase(name, "sendonly"))
        return SdpDirection::sendonly;
    if (equalsNoCase(name, "recvonly"))
        return SdpDirection::recvonly;
    if (equalsNoCase(name, "inactive"))
        return SdpDirection::inactive;
    return std::nullopt;
}

/// Reads line by line into one description.
class Reader {
public:
    /// Null when the line is in order or passed over, else the limit that broke.
    const char* line(std::string_view text);

    SessionDescription description;
    bool anyLine = false;

private:
    const char* startMedia(std::string_view value);
    void attribute(std::string_view value);
    void mediaAttribute(SdpMedia& section, std::string_view name, std::string_view value);
    static void dimensions(SdpMedia& section, std::string_view value, char separator);
    void rtpmap(SdpMedia& section, std::string_view value);
    void fmtp(SdpMedia& section, std::string_view value);
    SdpFormat* formatFor(SdpMedia& section, std::string_view payloadType);
};

const char* Reader::line(std::string_view text)
{
    text = trim(text);  // Some recorders end each line with a blank.
    if (text.size() < 2 || text[1] != '=')
        return nullptr;
    anyLine = true;
    const std::string_view value = trim(text.substr(2));
    switch (text[0]) {
    case 'm':
        return startMedia(value);
    case 'a':
        attribute(value);
        return nullptr;
    case 's':
        if (description.media.empty())
            description.sessionName = value;
        return nullptr;
    default:  // o=, c=, t= and the rest say nothing that is used, so it does not matter when they are broken
        return nullptr;
    }
}

const char* Reader::startMedia(std::string_view value)
{
    if (description.media.size() >= maxSdpMedia)
        return "the description has too many media sections";
    SdpMedia section;
    section.kindName = takeWord(value);
    section.kind = kindOf(section.kindName);
    std::string_view port = takeWord(value);  // "port/count" for layered streams
    section.port = parseNumber<std::uint16_t>(cutAt(port, '/')).value_or(0);
    section.protocol = takeWord(value);
    while (!value.empty() && section.formats.size() < maxSdpFormats)
        formatFor(section, takeWord(value));
    description.media.push_back(std::move(section));
    return nullptr;
}

void Reader::attribute(std::string_view value)
{
    const std::string_view name = trim(cutAt(value, ':'));
    value = trim(value);
    if (!description.media.empty()) {
        mediaAttribute(description.media.back(), name, value);
    } else if (equalsNoCase(name, "control")) {
        description.control = value;
    } else if (equalsNoCase(name, "range")) {
        description.range = value;
    } else if (const auto direction = directionNamed(name)) {
        description.direction = direction;
    }
}

void Reader::mediaAttribute(SdpMedia& section, std::string_view name, std::string_view value)
{
    if (equalsNoCase(name, "control")) {
        section.control = value;
    } else if (equalsNoCase(name, "rtpmap")) {
        rtpmap(section, value);
    } else if (equalsNoCase(name, "fmtp")) {
        fmtp(section, value);
    } else if (equalsNoCase(name, "framerate")) {
        const auto rate = parseFraction(value);
        section.framerate = rate && *rate > 0 ? rate : std::nullopt;
    } else if (equalsNoCase(name, "x-dimensions")) {
        dimensions(section, value, ',');
    } else if (equalsNoCase(name, "framesize")) {
        takeWord(value);  // the payload type
        dimensions(section, value, '-');
    } else if (equalsNoCase(name, "range")) {
        if (description.range.empty())  // Some devices state the range with the first track only.
            description.range = value;
    } else if (const auto direction = directionNamed(name)) {
        section.direction = direction;
    }
}

/// `1920,1080` or `1920-1080`
void Reader::dimensions(SdpMedia& section, std::string_view value, char separator)
{
    section.width = parseNumber<std::uint32_t>(trim(cutAt(value, separator))).value_or(0);
    section.height = parseNumber<std::uint32_t>(trim(value)).value_or(0);
}

/// `96 MPEG4-GENERIC/16000/2`
void Reader::rtpmap(SdpMedia& section, std::string_view value)
{
    SdpFormat* format = formatFor(section, takeWord(value));
    const std::string_view encoding = trim(cutAt(value, '/'));
    if (format == nullptr || encoding.empty())
        return;
    const auto clockRate = parseNumber<std::uint32_t>(trim(cutAt(value, '/')));
    const auto channels = parseNumber<std::uint32_t>(trim(value));
    const bool renamed = format->encoding != upperCase(encoding);
    format->encoding = upperCase(encoding);
    if (clockRate || renamed)
        format->clockRate = clockRate.value_or(0);
    format->channels = channels.value_or(section.kind == SdpMediaKind::audio ? 1 : 0);
}

/// `96 profile-level-id=420029; packetization-mode=1`
void Reader::fmtp(SdpMedia& section, std::string_view value)
{
    SdpFormat* format = formatFor(section, takeWord(value));
    if (format == nullptr)
        return;
    while (!value.empty() && format->parameters.size() < maxSdpParameters) {
        std::string_view text = cutAt(value, ';');
        const std::string_view name = trim(cutAt(text, '='));
        if (!name.empty())
            format->parameters.push_back({std::string(name), std::string(trim(text))});
    }
}

/// The entry of a payload type, added when the section has none: some devices describe another type than
/// they list. Null when the text is no payload type or there are too many.
SdpFormat* Reader::formatFor(SdpMedia& section, std::string_view payloadType)
{
    const auto type = parsePayloadType(payloadType);
    if (!type)
        return nullptr;
    const auto known = std::find_if(section.formats.begin(), section.formats.end(),
                                    [&](const SdpFormat& format) { return format.payloadType == *type; });
    if (known != section.formats.end())
        return &*known;
    if (section.formats.size() >= maxSdpFormats)
        return nullptr;
    SdpFormat format;
    format.payloadType = *type;
    for (const StaticFormat& fixed : staticFormats) {
        if (fixed.payloadType == *type) {
            format.encoding = fixed.encoding;
            format.clockRate = fixed.clockRate;
            format.channels = fixed.channels;
        }
    }
    return &section.formats.emplace_back(std::move(format));
}

bool isAbsolute(std::string_view url)
{
    return startsWithNoCase(url, "rtsp://") || startsWithNoCase(url, "rtsps://") || startsWithNoCase(url, "rtspu://");
}

/// Position behind the authority of an absolute URL: where its path or query begins.
std::size_t endOfAuthority(std::string_view url)
{
    const std::size_t begin = url.find("://") + 3;
    return std::min(url.find_first_of("/?", begin), url.size());
}

/// Scheme, host and port of the request, then path and query of `url`.
std::string readdressed(std::string_view requestUrl, std::string_view url)
{
    return std::string(requestUrl.substr(0, endOfAuthority(requestUrl))) + percentSafe(url.substr(endOfAuthority(url)));
}

std::string onHostOf(std::string_view requestUrl, std::string_view path)
{
    return std::string(requestUrl.substr(0, endOfAuthority(requestUrl))) + percentSafe(path);
}

/// The base that a header names: an absolute URL, or a path on the host of the request. Empty for other text.
std::string baseUrl(std::string_view requestUrl, std::string_view candidate)
{
    if (isAbsolute(candidate))
        return readdressed(requestUrl, candidate);
    if (candidate.starts_with('/') && candidate.size() > 1)
        return onHostOf(requestUrl, candidate);
    return {};
}
}  // namespace

std::optional<std::string_view> SdpFormat::parameter(std::string_view name) const
{
    for (const SdpParameter& candidate : parameters) {
        if (equalsNoCase(candidate.name, name))
            return candidate.value;
    }
    return std::nullopt;
}

const SdpFormat* SdpMedia::format(std::uint8_t payloadType) const
{
    for (const SdpFormat& candidate : formats) {
        if (candidate.payloadType == payloadType)
            return &candidate;
    }
    return nullptr;
}

SdpDirection SessionDescription::directionOf(const SdpMedia& section) const
{
    return section.direction.value_or(direction.value_or(SdpDirection::sendrecv));
}

SdpResult parseSdp(std::string_view text)
{
    if (trim(text).empty())
        return {std::nullopt, "the description is empty"};
    if (text.size() > maxSdpBytes)
        return {std::nullopt, "the description is beyond the size limit"};
    Reader reader;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find_first_of("\r\n"), text.size());
        if (const char* rule = reader.line(text.substr(0, end)))
            return {std::nullopt, rule};
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (!reader.anyLine)
        return {std::nullopt, "the text is no session description"};
    return {std::move(reader.description), nullptr};
}

std::string resolveControl(std::string_view requestUrl, std::string_view contentBase, std::string_view contentLocation,
                           std::string_view control)
{
    requestUrl = trim(requestUrl);
    control = trim(control);
    if (!isAbsolute(requestUrl))
        return percentSafe(isAbsolute(control) ? control : requestUrl);
    if (isAbsolute(control))
        return readdressed(requestUrl, control);
    if (control.starts_with('/'))
        return onHostOf(requestUrl, control);

    std::string base = baseUrl(requestUrl, trim(contentBase));
    if (base.empty())
        base = baseUrl(requestUrl, trim(contentLocation));
    if (base.empty())
        base = percentSafe(requestUrl);
    if (control.empty() || control == "*")
        return base;
    // Appended to the text as it stands, a query included: cameras whose stream is chosen by a query
    // ("/stream?channel=1") expect "/stream?channel=1/trackID=0".
    if (!base.ends_with('/') && !control.starts_with('?'))
        base += '/';
    return base + percentSafe(control);
}
}  // namespace Tavro8::wire
