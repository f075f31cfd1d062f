#pragma once

#include "ReplayTimeline.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

// What clients of a replay say, as text. No sockets.
namespace simulator
{

/// `/c<channel>/b<begin>/e<end>/replay/`, with `stream=<track>` behind it for one of its tracks.
struct ReplayPath {
    unsigned channelNumber = 0;  ///< from 1
    RecordedSpan interval;       ///< as written: it may be reversed
    std::optional<unsigned> track;
};
/// From an RTSP URL or its path; nothing when it has another form.
std::optional<ReplayPath> parseReplayPath(std::string_view url);

/// Whether the first line of a connection asks for something that is recorded.
bool asksForReplay(std::string_view requestLine);

/// What a `Range` header wants, widened to whole seconds; a bound that it does not name is not there.
struct ReplayRange {
    std::optional<std::uint32_t> begin;
    std::optional<std::uint32_t> end;
};
/// Takes "clock=20170426T021045Z-20170426T021945Z" and "npt=10-20", which counts from `origin`; either end may be left
/// out. Nothing when it is neither.
std::optional<ReplayRange> parseReplayRange(std::string_view header, std::uint32_t origin);

/// "clock=20170426T021045Z-20170426T021945Z", with a fraction where there is one.
std::string writeReplayRange(RecordedTime begin, RecordedTime end);

/// The speed that is used for a `Scale` header: the fastest of 1, 2, 4 and 8 that is not above, at least 1.
unsigned usableScale(std::string_view header);

/// A request of a client.
struct RtspQuestion {
    std::string method;
    std::string url;
    std::map<std::string, std::string, std::less<>> headers;  ///< names in lower case

    /// Empty when there is none.
    std::string_view header(std::string_view name) const;
};

/// Cuts what a client sends into requests. What it sends in interleaved frames, and bodies, are passed over.
class RtspInput {
public:
    struct NeedMore {};
    struct Malformed {};
    using Result = std::variant<NeedMore, Malformed, RtspQuestion>;

    void append(std::string_view bytes) { received.append(bytes); }
    Result next();

private:
    std::string received;
    std::size_t toSkip = 0;  ///< bytes of a body or a frame that are still to come
};

}  // namespace simulator
