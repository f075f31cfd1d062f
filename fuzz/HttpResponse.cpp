#include "FuzzTarget.h"

#include "http/ResponseReader.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
using http::ResponseReader;
using Progress = ResponseReader::Progress;

http::HttpLimits limitsOf(unsigned choices)
{
    http::HttpLimits limits;
    limits.headerBytes = (choices & 1U) != 0 ? 256 : 4096;
    limits.bodyBytes = (choices & 2U) != 0 ? 64 : 8192;
    return limits;
}

/// What became of one response.
struct Outcome {
    Progress progress = Progress::needMore;
    std::string head;
    std::string body;
    bool operator==(const Outcome&) const = default;
};

Outcome outcomeOf(ResponseReader& reader, Progress progress)
{
    Outcome outcome;
    outcome.progress = progress;
    require((progress == Progress::failed) == static_cast<bool>(reader.getError()), "a failure has an error");
    if (progress == Progress::failed)
        return outcome;
    const http::HttpResponse& response = reader.getResponse();
    outcome.head = std::to_string(response.status) + ' ' + response.reason + '\n';
    for (const auto& [name, value] : response.headers.all())
        outcome.head += name + ": " + value + '\n';
    outcome.body.assign(reader.getBody().begin(), reader.getBody().end());
    return outcome;
}

/// Reads to the end of the response or of the connection.
template <typename PieceBytes>
Outcome read(ByteView stream, const http::HttpLimits& limits, PieceBytes pieceBytes)
{
    ResponseReader reader(limits);
    Progress progress = Progress::needMore;
    while (!stream.empty() && progress == Progress::needMore) {
        const auto room = reader.prepare();
        const std::size_t count = std::min({room.size(), stream.size(), pieceBytes()});
        require(count > 0, "there is room for more");
        std::memcpy(room.data(), stream.data(), count);
        stream = stream.subspan(count);
        progress = reader.commit(count);
        require(reader.hasStarted(), "a byte has come");
        require(reader.getBody().size() <= limits.bodyBytes, "the body is bounded");
    }
    if (progress == Progress::needMore) {
        progress = reader.finish();
        require(progress != Progress::needMore, "the end of the connection ends the response");
    } else if (progress == Progress::done) {
        reader.leavesConnectionOpen();
    }
    const Outcome outcome = outcomeOf(reader, progress);
    require(progress != Progress::done || reader.getResponse().status >= 200, "a response has a final status");
    require(outcome.head.size() <= 2 * limits.headerBytes + 64, "the head is bounded");
    return outcome;
}

/// A byte of choices, one that seeds the places where the bytes are cut, and all that a server sends on one
/// connection.
///
/// Promises: head and body keep to their limits; what comes out does not depend on how the bytes arrive; a failure
/// has an error, and only a failure.
void feed(ByteView input)
{
    Script script(input);
    const http::HttpLimits limits = limitsOf(script.u8());
    CutPoints cuts(script.u8());
    const Bytes stream = script.remaining();
    const Outcome whole = read(stream, limits, [&] { return stream.size(); });
    const Outcome pieces = read(stream, limits, [&] { return cuts.next(60); });
    // Which rule a broken response is seen to break first, and how far a response can go beyond a limit before it is
    // noticed, may depend on the pieces.
    if (whole.progress == Progress::failed || pieces.progress == Progress::failed)
        require(whole.progress == pieces.progress || stream.size() > 64,
                "a short response fails in pieces as it does whole");
    else
        require(whole == pieces, "a response in pieces is what the whole response is");
}

const Target httpResponse("http_response", feed);
}  // namespace
}  // namespace Tavro8::fuzz
