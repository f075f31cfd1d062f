#pragma once

#include "wire/HeaderList.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// RTSP messages as values (RFC 2326), and the headers of which more than the text is wanted.
namespace Tavro8::wire
{
struct RtspRequest {
    std::string method;
    std::string uri;  ///< written as it stands; see `percentSafe` in Url.h for untrusted text
    HeaderList headers;
    std::string body;
};

struct RtspResponse {
    unsigned status = 0;
    std::string reason;
    HeaderList headers;
    std::string body;
};

using RtspMessage = std::variant<RtspRequest, RtspResponse>;

/// The bytes of a message. Content-Length is added when there is a body and the header is missing.
std::string write(const RtspRequest& request);
std::string write(const RtspResponse& response);

/// The sequence number by which a response finds its request; nothing when missing or no number.
std::optional<std::uint32_t> cseqOf(const HeaderList& headers);

/// `Session: 88;timeout=20` (RFC 2326 section 12.37).
struct SessionHeader {
    std::string id;
    std::chrono::seconds timeout{60};  ///< 60 when none is stated, or one that is no positive number
    bool timeoutStated = false;
};
/// Nothing when the identifier is empty.
std::optional<SessionHeader> parseSession(std::string_view value);

/// A pair such as `interleaved=0-1` or `client_port=5000-5001`: the RTP side and the RTCP side.
template <typename Number>
struct NumberPair {
    Number rtp{};
    Number rtcp{};
    friend bool operator==(const NumberPair&, const NumberPair&) = default;
};
using ChannelPair = NumberPair<std::uint8_t>;
using PortPair = NumberPair<std::uint16_t>;

/// One transport alternative (RFC 2326 section 12.39). Parameters that are unknown or unreadable are
/// left out. A pair with one number stands for that number and the next.
struct TransportHeader {
    std::string profile = "RTP/AVP";  ///< without the lower transport
    bool tcp = false;                 ///< lower transport TCP: interleaved in the RTSP connection
    bool multicast = false;
    std::optional<ChannelPair> interleaved;
    std::optional<PortPair> clientPort;
    std::optional<PortPair> serverPort;
    std::optional<PortPair> port;  ///< multicast
    std::optional<std::uint32_t> ssrc;
    std::optional<unsigned> ttl;
    std::string source;
    std::string destination;
    std::string mode;  ///< without quotes, for example PLAY
};
/// The first alternative of the header; nothing when it does not begin with an RTP profile.
std::optional<TransportHeader> parseTransport(std::string_view value);
std::string write(const TransportHeader& transport);

/// One track of `RTP-Info` (RFC 2326 section 12.33).
struct RtpInfo {
    std::string url;
    std::optional<std::uint16_t> sequenceNumber;  ///< of the first packet that belongs to the PLAY answered
    std::optional<std::uint32_t> rtpTimestamp;    ///< that corresponds to the start of the range played
};
std::vector<RtpInfo> parseRtpInfo(std::string_view value);

/// A `Range` in absolute time (RFC 2326 section 3.7), in UTC milliseconds since 1970: "clock=20170426T021045Z-", also
/// with a fraction of a second. What stands behind a semicolon (`;time=`) is passed over.
struct ClockRange {
    std::int64_t beginMs = 0;
    std::optional<std::int64_t> endMs;  ///< nothing when the range is open

    friend bool operator==(const ClockRange&, const ClockRange&) = default;
};
/// Nothing for a range in other units, and for one without a begin.
std::optional<ClockRange> parseClockRange(std::string_view value);
/// In whole seconds, since not all devices read fractions: the begin is cut off, the end rounded up. Times from 1970 to
/// 9999, others are written as these.
std::string write(const ClockRange& range);

/// `Scale` (RFC 2326 section 12.34): nothing when it is no positive number that is at most 1000.
std::optional<double> parseScale(std::string_view value);

/// Method names of `Public` or `Allow`.
class MethodList {
public:
    MethodList() = default;
    /// Reads every `Public` line, or every `Allow` line where there is no `Public`.
    explicit MethodList(const HeaderList& headers);

    bool contains(std::string_view method) const;
    bool empty() const noexcept { return methods.empty(); }

private:
    std::vector<std::string> methods;  ///< upper case
};
}  // namespace Tavro8::wire
