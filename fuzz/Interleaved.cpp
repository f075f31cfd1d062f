#include "FuzzTarget.h"

#include "wire/InterleavedParser.h"

#include <optional>
#include <string>
#include <utility>

namespace Tavro8::fuzz
{
namespace
{
using wire::HeaderField;
using wire::InterleavedFrame;
using wire::InterleavedParser;
using wire::ReceivedMessage;
using wire::RtspMessage;
using wire::RtspRequest;
using wire::RtspResponse;

/// A message as text, for comparisons.
std::string describe(const RtspMessage& message)
{
    std::string text;
    const auto add = [&text](const std::string& part) { text.append(part).append(1, '\0'); };
    if (const auto* request = std::get_if<RtspRequest>(&message)) {
        add(request->method);
        add(request->uri);
    } else {
        const auto& response = std::get<RtspResponse>(message);
        add(std::to_string(response.status));
        add(response.reason);
    }
    std::visit(
        [&](const auto& kind) {
            for (const HeaderField& field : kind.headers) {
                add(field.name);
                add(field.value);
            }
            add(kind.body);
        },
        message);
    return text;
}

/// All that came out of a stream, and how it ended.
struct Outcome {
    std::vector<std::string> units;
    std::optional<std::pair<std::uint64_t, std::string>> malformed;
    std::uint64_t position = 0;
    std::uint64_t skipped = 0;
    bool operator==(const Outcome&) const = default;
};

void checkFrame(const InterleavedFrame& frame, ByteView before)
{
    require(before.size() >= 4 + frame.payload.size(), "a frame is made of bytes that have come");
    require(frame.payload.data() >= before.data() &&
                frame.payload.data() + frame.payload.size() <= before.data() + before.size(),
            "a frame points into the caller's buffer");
}

void checkMessage(const RtspMessage& message)
{
    std::visit(
        [](const auto& kind) {
            require(kind.headers.size() <= InterleavedParser::maxHeaderCount, "the headers are bounded");
            require(kind.body.size() <= InterleavedParser::maxBodyBytes, "the body is bounded");
        },
        message);
}

/// What was written can be read and stays as it is; a message of the wire may change once, since control
/// characters are not written.
void checkRoundTrip(const RtspMessage& message)
{
    std::string before;
    RtspMessage current = message;
    for (int turn = 0; turn < 2; ++turn) {
        const std::string text = std::visit([](const auto& kind) { return wire::write(kind); }, current);
        InterleavedParser parser;
        wire::ByteView input = wire::asBytes(text);
        const auto result = parser.next(input);
        const auto* again = std::get_if<ReceivedMessage>(&result);
        // Without its control characters a start line, a method or a length may have lost its form.
        if (again == nullptr || !input.empty()) {
            require(turn == 0, "a message that was written and read is written so that it can be read");
            return;
        }
        current = **again;
        require(turn == 0 || describe(current) == before, "a message that was written and read does not change");
        before = describe(current);
    }
}

/// Feeds the stream in pieces: each read appends to what the parser has left over, as a connection does.
template <typename PieceBytes>
Outcome parse(ByteView stream, PieceBytes pieceBytes, bool roundTrips)
{
    InterleavedParser parser;
    Outcome outcome;
    Bytes kept;
    std::size_t wanted = 0;  // what the parser said is missing
    while (!stream.empty() && !outcome.malformed) {
        const std::size_t count = std::min(pieceBytes(), stream.size());
        kept.insert(kept.end(), stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(count));
        stream = stream.subspan(count);
        const bool enough = count >= wanted;

        const Bytes exact(kept);  // no spare room behind it, so that the sanitiser sees a read beyond the end
        wire::ByteView input(exact);
        for (bool more = true; more;) {
            const ByteView before = input;
            const std::uint64_t from = parser.position();
            const auto result = parser.next(input);
            require(parser.position() - from == before.size() - input.size(), "the position counts what is consumed");
            require(parser.skippedBytes() <= parser.position(), "only consumed bytes count as skipped");
            if (const auto* frame = std::get_if<InterleavedFrame>(&result)) {
                checkFrame(*frame, before);
                outcome.units.push_back(std::string("$") + static_cast<char>(frame->channel) +
                                        std::string(textOf(frame->payload)));
            } else if (const auto* message = std::get_if<ReceivedMessage>(&result)) {
                checkMessage(**message);
                if (roundTrips)
                    checkRoundTrip(**message);
                outcome.units.push_back(describe(**message));
            } else if (const auto* broken = std::get_if<InterleavedParser::Malformed>(&result)) {
                outcome.malformed = {broken->offset, broken->rule};
                more = false;
            } else {
                wanted = std::get<InterleavedParser::NeedMore>(result).atLeast;
                more = false;
            }
            require(!more || enough, "no unit is complete before the bytes that were said to be missing");
            require(!more || input.size() < before.size(), "a unit consumes something");
        }
        kept.assign(input.begin(), input.end());
        require(outcome.malformed || kept.size() <= InterleavedParser::maxBodyBytes + InterleavedParser::maxHeadBytes,
                "what waits for more is bounded");
    }
    if (outcome.malformed) {
        wire::ByteView input(stream);
        const auto again = parser.next(input);
        require(std::holds_alternative<InterleavedParser::Malformed>(again), "a broken stream stays broken");
    }
    outcome.position = parser.position();
    outcome.skipped = parser.skippedBytes();
    return outcome;
}

/// The bytes of an RTSP connection; the first one seeds the places where the stream is cut.
///
/// Promises: however the bytes arrive, the same messages and frames come out and the same rule breaks at the same
/// offset; frames lie in the caller's buffer; what is kept is bounded; messages survive being written.
void feed(ByteView input)
{
    Script script(input);
    CutPoints cuts(script.u8());
    const Bytes stream = script.remaining();

    const Outcome whole = parse(
        stream, [&] { return stream.size(); }, true);
    const Outcome pieces = parse(
        stream, [&] { return cuts.next(80); }, false);
    require(whole == pieces, "a stream in pieces gives what the whole stream gives");
    if (stream.size() <= 300) {
        const Outcome singles = parse(
            stream, [] { return std::size_t{1}; }, false);
        require(whole == singles, "a stream in single bytes gives what the whole stream gives");
    }
}

const Target interleaved("interleaved", feed);
}  // namespace
}  // namespace Tavro8::fuzz
