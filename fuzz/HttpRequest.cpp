#include "FuzzTarget.h"

#include "wire/HttpRequestFramer.h"
#include "wire/Text.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tavro8::fuzz
{
namespace
{
using Framer = wire::HttpRequestFramer;

/// What a connection gave.
struct Outcome {
    std::vector<std::string> messages;
    std::optional<std::size_t> firstOther;  ///< which of them is no HTTP: what follows depends on the reads
    std::optional<std::pair<std::uint64_t, std::string>> malformed;

    /// The part that must not depend on how the bytes arrived.
    Outcome firm() const
    {
        if (!firstOther)
            return *this;
        Outcome part;
        part.messages.assign(messages.begin(), messages.begin() + static_cast<std::ptrdiff_t>(*firstOther));
        part.firstOther = firstOther;
        return part;
    }
    bool operator==(const Outcome&) const = default;
};

void take(const Framer::Message& message, Outcome& outcome)
{
    require(!message.bytes.empty(), "a message holds something");
    if (message.isRequest) {
        require(message.bytes.size() <= Framer::maxMessageBytes, "a request is bounded");
        const std::string_view line = message.bytes.substr(0, message.bytes.find('\n'));
        require(line.find(" HTTP/") != std::string_view::npos, "a request has a request line");
    } else if (!outcome.firstOther) {
        outcome.firstOther = outcome.messages.size();
    }
    outcome.messages.emplace_back(message.bytes);
}

template <typename PieceBytes>
Outcome read(ByteView stream, PieceBytes pieceBytes)
{
    Framer framer;
    Outcome outcome;
    while (!stream.empty()) {
        const std::size_t count = std::min(pieceBytes(), stream.size());
        const Bytes piece(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(count));
        stream = stream.subspan(count);
        std::string_view input = textOf(piece);
        for (;;) {
            const std::size_t before = input.size();
            const auto result = framer.next(input);
            if (const auto* malformed = std::get_if<Framer::Malformed>(&result)) {
                outcome.malformed = {malformed->offset, malformed->rule};
                require(std::holds_alternative<Framer::Malformed>(framer.next(input)), "what is broken stays broken");
                require(!framer.finish(), "a broken connection completes nothing");
                return outcome;
            }
            if (std::holds_alternative<Framer::NeedMore>(result)) {
                require(input.empty(), "all of the input is taken in");
                break;
            }
            require(input.size() < before, "a message takes something off the input");
            take(std::get<Framer::Message>(result), outcome);
        }
        require(framer.keptBytes() <= 2 * (Framer::maxMessageBytes + Framer::maxHeadBytes), "what is kept is bounded");
    }
    if (const auto last = framer.finish())
        take(*last, outcome);
    return outcome;
}

/// A request that was handed out with its length is a request again.
void checkAgain(const std::string& message)
{
    if (wire::findNoCase(message, "chunked") != std::string_view::npos)
        return;
    Framer framer;
    std::string_view input = message;
    const auto result = framer.next(input);
    const auto* again = std::get_if<Framer::Message>(&result);
    const auto last = again == nullptr ? framer.finish() : std::optional(*again);
    require(last && last->isRequest && last->bytes == message, "a request alone is what it was among others");
}

void checkStream(const Bytes& stream, std::uint8_t seed)
{
    CutPoints cuts(seed);
    const Outcome whole = read(stream, [&] { return stream.size(); });
    for (std::size_t i = 0; i < whole.firstOther.value_or(whole.messages.size()); ++i)
        checkAgain(whole.messages[i]);
    const Outcome pieces = read(stream, [&] { return cuts.next(80); });
    require(whole.firm() == pieces.firm(), "a stream in pieces gives what the whole stream gives");
    if (stream.size() <= 300) {
        const Outcome singles = read(stream, [] { return std::size_t{1}; });
        require(whole.firm() == singles.firm(), "a stream in single bytes gives what the whole stream gives");
    }
}

std::string chunked(const std::string& body, std::size_t chunkBytes)
{
    std::string text;
    for (std::size_t at = 0; at < body.size(); at += chunkBytes) {
        const std::string chunk = body.substr(at, chunkBytes);
        wire::appendNumber(text, chunk.size(), 16);
        text += ";ext=1\r\n" + chunk + "\r\n";
    }
    return text + "0\r\n\r\n";
}

/// Well-formed requests come out as they were meant.
void checkWritten(Script& script, std::uint8_t seed)
{
    std::string stream;
    std::vector<std::string> expected;
    while (!script.atEnd() && expected.size() < 20) {
        const std::uint8_t form = script.u8();
        const Bytes block = script.bytes(script.u8());
        const std::string body(textOf(block));
        std::string head = "POST /Alarm HTTP/1.1\r\nHost: a\r\n";
        if ((form & 1U) == 0) {
            head += "content-length: " + std::to_string(body.size()) + "\r\n\r\n";
            stream += head + body;
        } else {
            head += "Transfer-Encoding: chunked\r\n\r\n";
            stream += head + chunked(body, 1U + (form >> 1));
        }
        expected.push_back(head + body);
    }
    CutPoints cuts(seed);
    const Bytes bytes(stream.begin(), stream.end());
    const Outcome outcome = read(bytes, [&] { return cuts.next(50); });
    require(outcome.messages == expected && !outcome.firstOther && !outcome.malformed,
            "well-formed requests come out as they were written");
}

/// A byte of choices, one that seeds the places where the bytes are cut, and all that a device sends on one connection;
/// or, by choice, the forms and bodies of requests that are written here.
///
/// Promises: however the bytes arrive, the same requests come out and the same rule breaks, up to the first bytes that
/// are no HTTP; what is kept and handed out is bounded; a request alone is what it was among others.
void feed(ByteView input)
{
    Script script(input);
    const std::uint8_t choices = script.u8();
    const std::uint8_t seed = script.u8();
    if ((choices & 1U) != 0)
        return checkWritten(script, seed);
    checkStream(script.remaining(), seed);
}

const Target httpRequest("http_request", feed);
}  // namespace
}  // namespace Tavro8::fuzz
