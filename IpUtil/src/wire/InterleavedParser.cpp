#include "wire/InterleavedParser.h"

#include "wire/Text.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace Tavro8::wire
{
namespace
{
constexpr std::string_view responseStart = "RTSP/1.";
constexpr std::array<std::string_view, 11> requestStarts = {
    "OPTIONS ", "ANNOUNCE ", "SET_PARAMETER ", "GET_PARAMETER ", "REDIRECT ", "DESCRIBE ",
    "SETUP ",   "PLAY ",     "PAUSE ",         "RECORD ",        "TEARDOWN ",
};
constexpr std::size_t longestMethod = 20;

constexpr std::size_t bytesToJudgeFrame = 5;   ///< '$', channel, length, first byte of the payload
constexpr std::size_t shortestRtcpPacket = 8;  ///< an empty receiver report; RTP is longer
constexpr std::uint8_t highestLikelyChannel = 63;

enum class Match : std::uint8_t { no, partly, yes };

Match matches(std::string_view text, std::string_view prefix)
{
    const std::size_t common = std::min(text.size(), prefix.size());
    if (text.substr(0, common) != prefix.substr(0, common))
        return Match::no;
    return common == prefix.size() ? Match::yes : Match::partly;
}

Match matchesKnownMessage(std::string_view text)
{
    Match best = matches(text, responseStart);
    for (const std::string_view start : requestStarts)
        best = std::max(best, matches(text, start));
    return best;
}

/// Capital letters and a blank: a method we need not know to read the message.
Match matchesAnyMethod(std::string_view text)
{
    for (std::size_t i = 0; i < text.size() && i <= longestMethod; ++i) {
        if (text[i] == ' ')
            return i > 0 ? Match::yes : Match::no;
        if (text[i] != '_' && (text[i] < 'A' || text[i] > 'Z'))
            return Match::no;
    }
    return text.size() > longestMethod ? Match::no : Match::partly;
}

/// Among stray bytes a '$' alone says little: RTP and RTCP begin with version 2.
Match matchesLikelyFrame(ByteView input)
{
    if (input[0] != '$')
        return Match::no;
    if (input.size() > 1 && input[1] > highestLikelyChannel)
        return Match::no;
    if (input.size() < bytesToJudgeFrame)
        return Match::partly;
    const bool likely = readBe16(input.data() + 2) >= shortestRtcpPacket && (input[4] >> 6) == 2;
    return likely ? Match::yes : Match::no;
}

/// Whether what follows a likely frame begins a unit as well.
Match matchesUnitAfter(ByteView input)
{
    if (input.empty())
        return Match::partly;
    return std::max(matchesLikelyFrame(input), matchesKnownMessage(asText(input)));
}

/// A line without its end, taken off the front of `text`.
std::string_view takeLine(std::string_view& text)
{
    std::string_view line = cutAt(text, '\n');
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

bool parseStatusLine(std::string_view line, RtspResponse& response)
{
    cutAt(line, ' ');
    line = trim(line);
    const auto status = parseNumber<unsigned>(cutAt(line, ' '));
    if (!status || *status < 100 || *status > 999)
        return false;
    response.status = *status;
    response.reason = trim(line);
    return true;
}

bool parseRequestLine(std::string_view line, RtspRequest& request)
{
    request.method = cutAt(line, ' ');
    line = trim(line);
    const std::size_t version = line.rfind(' ');
    if (version == std::string_view::npos || !line.substr(version + 1).starts_with(responseStart))
        return false;
    request.uri = trim(line.substr(0, version));
    return !request.uri.empty();
}

/// A header's value has no blanks around it, whichever of its lines is empty.
void appendFolded(std::string& value, std::string_view more)
{
    if (!value.empty() && !more.empty())
        value += ' ';
    value += more;
}

/// Null when the lines are in order, else the rule that broke.
const char* parseHeaderLines(std::string_view lines, HeaderList& headers)
{
    std::string name;
    std::string value;
    const auto finishField = [&] {
        if (!name.empty())
            headers.add(name, value);
        name.clear();
    };
    while (!lines.empty()) {
        std::string_view line = takeLine(lines);
        if (line.empty())
            break;
        if (isBlank(line.front())) {  // a folded line goes on with the value before it
            appendFolded(value, trim(line));
            continue;
        }
        finishField();
        if (headers.size() >= InterleavedParser::maxHeaderCount)
            return "a message has too many header lines";
        if (line.find(':') == std::string_view::npos)
            continue;  // Some firmware prints a stray word among its headers.
        name = trim(cutAt(line, ':'));
        value = trim(line);
    }
    finishField();
    return nullptr;
}

/// Null when there is none or it is in order, else the rule that broke.
const char* readContentLength(const HeaderList& headers, std::size_t& bodyBytes)
{
    bodyBytes = 0;
    const auto values = headers.all("Content-Length");
    if (values.empty())
        return nullptr;
    const auto length = parseNumber<std::uint64_t>(values.front());
    if (!length)
        return "Content-Length is no number";
    if (std::any_of(values.begin(), values.end(), [&](std::string_view value) { return value != values.front(); }))
        return "two Content-Length headers contradict each other";
    if (*length > InterleavedParser::maxBodyBytes)
        return "Content-Length is beyond the limit";
    bodyBytes = static_cast<std::size_t>(*length);
    return nullptr;
}

HeaderList& headersOf(RtspMessage& message)
{
    return std::visit([](auto& kind) -> HeaderList& { return kind.headers; }, message);
}
}  // namespace

void InterleavedParser::reset()
{
    *this = InterleavedParser{};
}

InterleavedParser::Result InterleavedParser::nextSlow(ByteView& input)
{
    if (stage == Stage::broken)
        return failure;
    for (;;) {
        if (stage == Stage::unitStart) {
            if (input.empty())
                return NeedMore{};
            NeedMore wanted;
            switch (judgeStart(input, wanted)) {
            case UnitStart::undecided:
                return wanted;
            case UnitStart::stray:
                if (!skipStray(input))
                    return fail("too many bytes that belong to no message and no frame");
                continue;
            case UnitStart::frame:
                inSync = true;
                endUnit();
                return next(input);
            case UnitStart::message:
                break;
            }
            if (inSync && asText(input).starts_with("HTTP/"))
                return fail("the device answers in HTTP, not in RTSP");
            inSync = false;
            stage = Stage::head;
            scanned = lineStart = 0;
        }
        if (stage == Stage::head) {
            std::size_t headBytes = 0;
            if (!findHeadEnd(input, headBytes)) {
                if (scanned >= maxHeadBytes)
                    return fail("the head of a message is beyond the limit");
                return NeedMore{};
            }
            const std::string_view head = asText(input.first(headBytes));
            if (const char* rule = parseHead(head))
                return fail(rule);
            consume(input, headBytes);
            stage = Stage::body;
        }
        if (input.size() < bodyBytes)
            return NeedMore{bodyBytes - input.size()};
        std::visit([&](auto& kind) { kind.body = asText(input.first(bodyBytes)); }, message);
        consume(input, bodyBytes);
        endUnit();
        return ReceivedMessage(message);
    }
}

InterleavedParser::Result InterleavedParser::fail(const char* rule) noexcept
{
    stage = Stage::broken;
    inSync = false;
    failure = Malformed{consumed, rule};
    return failure;
}

/// What the first bytes of the input begin. `wanted` is set when they are too few to tell.
InterleavedParser::UnitStart InterleavedParser::judgeStart(ByteView input, NeedMore& wanted) const noexcept
{
    const auto asUnit = [](Match match, UnitStart unit) {
        return match == Match::yes ? unit : match == Match::partly ? UnitStart::undecided : UnitStart::stray;
    };
    if (input[0] == frameMark && inSync) {
        if (input.size() >= frameHeaderBytes)
            return UnitStart::frame;
        wanted.atLeast = frameHeaderBytes - input.size();
        return UnitStart::undecided;
    }
    if (input[0] == frameMark) {
        const Match header = matchesLikelyFrame(input);
        if (header != Match::yes) {
            wanted.atLeast = bytesToJudgeFrame - std::min(input.size(), bytesToJudgeFrame);
            return asUnit(header, UnitStart::frame);
        }
        // Compressed video holds many a '$', so the frame counts only when another unit follows it.
        const std::size_t frameBytes = frameHeaderBytes + readBe16(input.data() + 2);
        const std::size_t have = std::min(input.size(), frameBytes);
        wanted.atLeast = frameBytes + 1 - have;
        return asUnit(matchesUnitAfter(input.subspan(have)), UnitStart::frame);
    }
    const std::string_view text = asText(input);
    Match match = matchesKnownMessage(text);
    if (inSync)
        match = std::max({match, matchesAnyMethod(text), matches(text, "HTTP/")});
    return asUnit(match, UnitStart::message);
}

bool InterleavedParser::skipStray(ByteView& input) noexcept
{
    // Some servers put an empty line behind a body: allowed for, and not worth a word in a log.
    const bool emptyLine = inSync && (input[0] == '\r' || input[0] == '\n');
    if (!emptyLine) {
        inSync = false;
        ++skippedTotal;
    }
    consume(input, 1);
    return ++skippedInARow <= maxSkippedBytes;
}

void InterleavedParser::endUnit() noexcept
{
    stage = Stage::unitStart;
    inSync = true;
    skippedInARow = 0;
}

/// The head ends with the first empty line; bare LF line ends count as well.
bool InterleavedParser::findHeadEnd(ByteView input, std::size_t& headBytes) noexcept
{
    const std::size_t limit = std::min(input.size(), maxHeadBytes);
    while (scanned < limit) {
        const void* found = std::memchr(input.data() + scanned, '\n', limit - scanned);
        if (found == nullptr) {
            scanned = limit;
            break;
        }
        const auto lineEnd = static_cast<std::size_t>(static_cast<const std::uint8_t*>(found) - input.data());
        const std::size_t lineBytes = lineEnd - lineStart;
        scanned = lineEnd + 1;
        if (lineBytes == 0 || (lineBytes == 1 && input[lineStart] == '\r')) {
            headBytes = lineEnd + 1;
            return true;
        }
        lineStart = lineEnd + 1;
    }
    return false;
}

/// Null when the head is in order, else the rule that broke.
const char* InterleavedParser::parseHead(std::string_view head)
{
    const std::string_view startLine = takeLine(head);
    bool valid = false;
    if (startLine.starts_with(responseStart)) {
        valid = parseStatusLine(startLine, message.emplace<RtspResponse>());
    } else {
        valid = parseRequestLine(startLine, message.emplace<RtspRequest>());
    }
    if (!valid)
        return "a message has no proper start line";
    HeaderList& headers = headersOf(message);
    if (const char* rule = parseHeaderLines(head, headers))
        return rule;
    return readContentLength(headers, bodyBytes);
}
}  // namespace Tavro8::wire
