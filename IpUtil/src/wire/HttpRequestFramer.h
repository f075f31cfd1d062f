#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace Tavro8::wire
{
/// Cuts the bytes of one connection into HTTP requests (RFC 9112), however the network has split or joined them, and
/// leaves what they mean to others: a message comes out as its request line, headers and body in one piece, byte for
/// byte as it was sent. Only a chunked body is put together, so that its text is in one piece too: chunk lines and
/// trailers are left out, the headers stay as they were.
///
/// - Without Content-Length and chunks a request has no body, except that of a POST or PUT that ends its connection
///   (HTTP/1.0, or "Connection: close"): some firmware states no length there, and sends until it closes.
/// - Bytes that begin no request are handed on as they were read; with the next read a request may begin again.
/// - Empty lines between requests are skipped (section 2.2), line ends may be bare LF.
/// - Chunked wins over a Content-Length beside it (section 6.3).
///
/// A plain value for one thread. A message that lies in the input as a whole is not copied; what is incomplete is kept
/// here, and no byte is searched twice. After a broken message the result is `Malformed` for good.
class HttpRequestFramer {
public:
    static constexpr std::size_t maxMessageBytes = std::size_t{1024} * 1024;  ///< head and body as handed out
    static constexpr std::size_t maxHeadBytes = std::size_t{32} * 1024;       ///< request line and headers
    static constexpr std::size_t maxChunkLineBytes = 256;                     ///< size and extensions of one chunk
    static constexpr std::size_t maxTrailerBytes = std::size_t{8} * 1024;     ///< headers behind the last chunk

    /// All of the input has been taken in, and no message is complete.
    struct NeedMore {};
    struct Malformed {
        std::uint64_t offset = 0;    ///< where the message begins, in bytes from the beginning of the connection
        const char* rule = nullptr;  ///< which rule broke, as a sentence part for a log line
    };
    struct Message {
        std::string_view bytes;  ///< points into the input or into the framer, until the next call of either
        bool isRequest = true;   ///< false for bytes that are no HTTP
    };
    using Result = std::variant<NeedMore, Malformed, Message>;

    /// Takes the next message off the front of `input`, and removes from it what was consumed.
    Result next(std::string_view& input);

    /// The connection has ended: what that makes complete, if anything. Half a request is dropped.
    std::optional<Message> finish();

    /// Whether the connection would break off in the middle of something.
    bool isInsideMessage() const noexcept { return stage != Stage::start && stage != Stage::broken; }
    /// Memory taken for what is incomplete.
    std::size_t keptBytes() const noexcept { return kept.capacity(); }

private:
    enum class Stage : std::uint8_t {
        start,
        method,
        target,
        requestLine,
        headers,
        lengthBody,
        endlessBody,
        chunkLine,
        chunkData,
        chunkEnd,
        trailer,
        broken
    };
    enum class Step : std::uint8_t { goOn, needMore, complete, noRequest, fail };

    Step step(std::string_view& input, std::size_t& at);
    Step judgeMethod(std::string_view input, std::size_t& at);
    Step judgeTarget(std::string_view input, std::size_t at);
    Step readRequestLine(std::string_view& input, std::size_t& at);
    Step readHeaders(std::string_view& input, std::size_t& at);
    Step readLengthBody(std::string_view input, std::size_t& at);
    Step readEndlessBody(std::string_view input, std::size_t& at);
    Step readChunkLine(std::string_view& input);
    Step readChunkData(std::string_view& input);
    Step readChunkEnd(std::string_view& input);
    Step readTrailer(std::string_view& input);
    Step judgeHead(std::string_view head);
    Step broken(const char* brokenRule) noexcept;

    std::string_view messageSoFar(std::string_view& input, std::size_t& at);
    bool findEmptyLine(std::string_view input, std::size_t& at) noexcept;
    void keep(std::string_view& input, std::size_t count);
    void consume(std::string_view& input, std::size_t count) noexcept;
    Message handOut(std::string_view& input, std::size_t at, bool isRequest);
    void releaseHandedOut() noexcept;

    std::string kept;              ///< the front of the present message, as far as earlier input held it
    std::uint64_t consumed = 0;    ///< bytes of the connection
    std::uint64_t beginning = 0;   ///< of the present message, in bytes of the connection
    std::size_t bodyLeft = 0;      ///< of the body or of the present chunk
    std::size_t lineBytes = 0;     ///< of the unfinished header, chunk or trailer line
    std::size_t trailerBytes = 0;  ///< of the trailer so far
    const char* rule = nullptr;
    unsigned methodLength = 0;
    char lineFirst = 0;  ///< first character of the unfinished line
    Stage stage = Stage::start;
    bool sizeEnded = false;  ///< the digits of the chunk line are over
    bool handedOut = false;  ///< `kept` was handed out and goes with the next call
};
}  // namespace Tavro8::wire
