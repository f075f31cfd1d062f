#pragma once

#include "wire/Bytes.h"
#include "wire/RtspMessage.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>

namespace Tavro8::wire
{
/// A binary frame between the messages of an RTSP connection (RFC 2326 section 10.12):
///
///     0        1         2                4
///     +--------+---------+--------+-------+------------------+
///     |  '$'   | channel | length, 16 bit | length bytes     |
///     +--------+---------+--------+-------+------------------+
struct InterleavedFrame {
    std::uint8_t channel = 0;
    ByteView payload;  ///< points into the caller's buffer, until the caller moves or refills it
};

/// A complete message. It belongs to the parser and is valid until the next call of `next`.
class ReceivedMessage {
public:
    explicit ReceivedMessage(RtspMessage& received) noexcept : message(&received) {}

    RtspMessage& operator*() const noexcept { return *message; }
    RtspMessage* operator->() const noexcept { return message; }
    RtspRequest* request() const noexcept { return std::get_if<RtspRequest>(message); }
    RtspResponse* response() const noexcept { return std::get_if<RtspResponse>(message); }

private:
    RtspMessage* message;
};

/// Cuts the bytes of one RTSP connection into messages and interleaved ('$') frames.
///
/// A plain value for one thread. A frame costs a few comparisons and no allocation; a message owns its
/// text. Stray bytes between two units (some devices send a few, others lose count of a frame) are
/// skipped up to `maxSkippedBytes` in a row; after that, or after a broken message, the result is
/// `Malformed` for good and the connection has to be made anew.
class InterleavedParser {
public:
    static constexpr std::size_t maxHeadBytes = std::size_t{32} * 1024;    ///< start line and headers of one message
    static constexpr std::size_t maxHeaderCount = 128;                     ///< header lines of one message
    static constexpr std::size_t maxBodyBytes = std::size_t{1024} * 1024;  ///< Content-Length
    static constexpr std::size_t maxSkippedBytes =
        std::size_t{64} * 1024;  ///< stray bytes in a row; a frame is never longer

    struct NeedMore {
        std::size_t atLeast = 0;  ///< bytes still missing, 0 when unknown
    };
    struct Malformed {
        std::uint64_t offset = 0;    ///< where in the stream, in bytes from its beginning
        const char* rule = nullptr;  ///< which rule broke, as a sentence part for a log line
    };
    using Result = std::variant<NeedMore, Malformed, InterleavedFrame, ReceivedMessage>;

    /// Takes the next unit off the front of `input` and removes what it consumed. With `NeedMore` the
    /// caller keeps what is left in `input` and calls again with the same bytes and more behind them; no
    /// byte is searched twice.
    Result next(ByteView& input)
    {
        if (inSync && input.size() >= frameHeaderBytes && input[0] == frameMark) {
            const std::size_t frameBytes = frameHeaderBytes + readBe16(input.data() + 2);
            if (input.size() < frameBytes)
                return NeedMore{frameBytes - input.size()};
            const InterleavedFrame frame{input[1], input.subspan(frameHeaderBytes, frameBytes - frameHeaderBytes)};
            consume(input, frameBytes);
            return frame;
        }
        return nextSlow(input);
    }

    /// Bytes consumed since the beginning of the connection.
    std::uint64_t position() const noexcept { return consumed; }
    /// Stray bytes dropped so far, line ends between messages not counted. A shell that sees it grow says so once.
    std::uint64_t skippedBytes() const noexcept { return skippedTotal; }

    /// Ready for the first byte of another connection.
    void reset();

private:
    static constexpr std::uint8_t frameMark = '$';
    static constexpr std::size_t frameHeaderBytes = 4;

    enum class Stage : std::uint8_t { unitStart, head, body, broken };
    enum class UnitStart : std::uint8_t { frame, message, stray, undecided };

    Result nextSlow(ByteView& input);
    Result fail(const char* rule) noexcept;
    UnitStart judgeStart(ByteView input, NeedMore& wanted) const noexcept;
    bool findHeadEnd(ByteView input, std::size_t& headBytes) noexcept;
    const char* parseHead(std::string_view head);
    bool skipStray(ByteView& input) noexcept;
    void endUnit() noexcept;
    void consume(ByteView& input, std::size_t count) noexcept
    {
        input = input.subspan(count);
        consumed += count;
    }

    RtspMessage message;
    Malformed failure;
    std::size_t scanned = 0;    ///< bytes at the front of the input already searched for the end of the head
    std::size_t lineStart = 0;  ///< where the head's last, unfinished line begins, from the front of the input
    std::size_t bodyBytes = 0;  ///< of the message whose head has been read
    std::uint64_t skippedTotal = 0;
    std::size_t skippedInARow = 0;
    Stage stage = Stage::unitStart;
    bool inSync = true;  ///< the next byte begins a unit; false inside a message and among stray bytes
    std::uint64_t consumed = 0;
};
}  // namespace Tavro8::wire
