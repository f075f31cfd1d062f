#include "wire/HttpRequestFramer.h"

#include "wire/Text.h"

#include <algorithm>

namespace Tavro8::wire
{
namespace
{
constexpr unsigned longestMethod = 20;
// An empty framer may keep memory up to this size for the next message that comes in two parts.
constexpr std::size_t modestBytes = 4096;
constexpr unsigned mostSizeDigits = 8;

/// A line without its end, taken off the front of `text`.
std::string_view takeLine(std::string_view& text)
{
    std::string_view line = cutAt(text, '\n');
    if (!line.empty() && line.back() == '\r')
        line.remove_suffix(1);
    return line;
}

/// "HTTP/1.1", behind a blank at the end of a request line.
bool endsWithVersion(std::string_view line)
{
    constexpr std::string_view name = " HTTP/";
    constexpr std::size_t numberBytes = 3;
    line = line.substr(0, line.find_last_not_of(" \t\r\n") + 1);
    if (line.size() < name.size() + numberBytes)
        return false;
    const std::string_view version = line.substr(line.size() - numberBytes);
    line.remove_suffix(numberBytes);
    return line.ends_with(name) && isDigit(version[0]) && version[1] == '.' && isDigit(version[2]);
}

/// Calls `visit` with each element of a list that is separated by commas, without the blanks around it.
template <typename Visit>
void forEachElement(std::string_view list, Visit visit)
{
    while (!list.empty())
        visit(trim(cutAt(list, ',')));
}

/// What the headers of a request say about its body.
struct BodyRules {
    std::optional<std::uint64_t> length;
    bool chunked = false;
    bool closes = false;
    const char* brokenRule = nullptr;

    void readHeader(std::string_view name, std::string_view value)
    {
        if (equalsNoCase(name, "Content-Length"))
            readLength(value);
        else if (equalsNoCase(name, "Transfer-Encoding"))
            readCoding(value);
        else if (equalsNoCase(name, "Connection"))
            forEachElement(value, [this](std::string_view option) { closes |= equalsNoCase(option, "close"); });
    }

private:
    void readLength(std::string_view value)
    {
        if (value.empty())
            brokenRule = "Content-Length is no number";
        forEachElement(value, [this](std::string_view element) {
            const auto number = parseNumber<std::uint64_t>(element);
            if (!number)
                brokenRule = "Content-Length is no number";
            else if (length && *length != *number)
                brokenRule = "two Content-Length headers contradict each other";
            else
                length = number;
        });
    }

    void readCoding(std::string_view value)
    {
        forEachElement(value, [this](std::string_view coding) {
            if (equalsNoCase(coding, "chunked"))
                chunked = true;
            else if (!equalsNoCase(coding, "identity"))
                brokenRule = "the body has a transfer coding other than chunked";
        });
    }
};
}  // namespace

HttpRequestFramer::Result HttpRequestFramer::next(std::string_view& input)
{
    releaseHandedOut();
    if (stage == Stage::start) {
        consume(input, std::min(input.find_first_not_of("\r\n"), input.size()));
        beginning = consumed;
        methodLength = 0;
    }
    std::size_t at = 0;  // how much of the input belongs to the present message, as far as is known
    for (;;) {
        if (stage != Stage::broken && at == input.size()) {
            keep(input, at);
            return NeedMore{};
        }
        switch (step(input, at)) {
        case Step::goOn:
            break;
        case Step::needMore:
            keep(input, at);
            return NeedMore{};
        case Step::complete:
            return handOut(input, at, true);
        case Step::noRequest:
            return handOut(input, input.size(), false);
        case Step::fail:
            return Malformed{beginning, rule};
        }
    }
}

std::optional<HttpRequestFramer::Message> HttpRequestFramer::finish()
{
    releaseHandedOut();
    std::string_view nothing;
    switch (stage) {
    case Stage::method:
    case Stage::target:
        return handOut(nothing, 0, false);
    case Stage::endlessBody:
        return handOut(nothing, 0, true);
    default:
        return std::nullopt;
    }
}

HttpRequestFramer::Step HttpRequestFramer::step(std::string_view& input, std::size_t& at)
{
    switch (stage) {
    case Stage::start:
        stage = Stage::method;
        return Step::goOn;
    case Stage::method:
        return judgeMethod(input, at);
    case Stage::target:
        return judgeTarget(input, at);
    case Stage::requestLine:
        return readRequestLine(input, at);
    case Stage::headers:
        return readHeaders(input, at);
    case Stage::lengthBody:
        return readLengthBody(input, at);
    case Stage::endlessBody:
        return readEndlessBody(input, at);
    case Stage::chunkLine:
        return readChunkLine(input);
    case Stage::chunkData:
        return readChunkData(input);
    case Stage::chunkEnd:
        return readChunkEnd(input);
    case Stage::trailer:
        return readTrailer(input);
    case Stage::broken:
        break;
    }
    return Step::fail;
}

/// Capital letters and a blank: a method that we need not know.
HttpRequestFramer::Step HttpRequestFramer::judgeMethod(std::string_view input, std::size_t& at)
{
    for (; at < input.size(); ++at) {
        const char c = input[at];
        if (c == ' ' && methodLength > 0) {
            ++at;
            stage = Stage::target;
            return Step::goOn;
        }
        const bool letter = (c >= 'A' && c <= 'Z') || c == '-' || c == '_';
        if (!letter || ++methodLength > longestMethod)
            return Step::noRequest;
    }
    return Step::goOn;
}

/// The path, "*", or an absolute address.
HttpRequestFramer::Step HttpRequestFramer::judgeTarget(std::string_view input, std::size_t at)
{
    const char c = toLower(input[at]);
    if (c != '/' && c != '*' && c != 'h')
        return Step::noRequest;
    stage = Stage::requestLine;
    return Step::goOn;
}

HttpRequestFramer::Step HttpRequestFramer::readRequestLine(std::string_view& input, std::size_t& at)
{
    const std::size_t lineEnd = input.find('\n', at);
    at = lineEnd == std::string_view::npos ? input.size() : lineEnd + 1;
    if (kept.size() + at > maxHeadBytes)
        return broken("the head of a request is beyond the limit");
    if (lineEnd == std::string_view::npos)
        return Step::needMore;
    if (!endsWithVersion(messageSoFar(input, at)))
        return Step::noRequest;
    lineBytes = 0;
    stage = Stage::headers;
    return Step::goOn;
}

HttpRequestFramer::Step HttpRequestFramer::readHeaders(std::string_view& input, std::size_t& at)
{
    const bool found = findEmptyLine(input, at);
    if (kept.size() + at > maxHeadBytes)
        return broken("the head of a request is beyond the limit");
    if (!found)
        return Step::needMore;
    const Step judged = judgeHead(messageSoFar(input, at));
    if (stage == Stage::chunkLine) {  // the body is put together behind the head
        keep(input, at);
        at = 0;
    }
    return judged;
}

HttpRequestFramer::Step HttpRequestFramer::judgeHead(std::string_view head)
{
    const std::string_view requestLine = takeLine(head);
    const std::size_t headBytes = static_cast<std::size_t>(head.data() + head.size() - requestLine.data());
    const std::string_view method = requestLine.substr(0, methodLength);
    BodyRules rules;
    rules.closes = requestLine.ends_with("HTTP/1.0");
    while (!head.empty()) {
        std::string_view line = takeLine(head);
        // Some firmware prints a stray word among its headers; a folded line belongs to none that counts here.
        if (line.empty() || isBlank(line.front()) || line.find(':') == std::string_view::npos)
            continue;
        const std::string_view name = trim(cutAt(line, ':'));
        rules.readHeader(name, trim(line));
    }
    if (rules.brokenRule != nullptr)
        return broken(rules.brokenRule);
    if (rules.chunked) {
        lineBytes = bodyLeft = 0;
        sizeEnded = false;
        stage = Stage::chunkLine;
        return Step::goOn;
    }
    if (!rules.length && rules.closes && (method == "POST" || method == "PUT")) {
        stage = Stage::endlessBody;
        return Step::goOn;
    }
    const std::uint64_t length = rules.length.value_or(0);
    if (length > maxMessageBytes - headBytes)
        return broken("Content-Length is beyond the limit");
    bodyLeft = static_cast<std::size_t>(length);
    stage = Stage::lengthBody;
    return bodyLeft == 0 ? Step::complete : Step::goOn;
}

HttpRequestFramer::Step HttpRequestFramer::readLengthBody(std::string_view input, std::size_t& at)
{
    const std::size_t count = std::min(bodyLeft, input.size() - at);
    at += count;
    bodyLeft -= count;
    return bodyLeft == 0 ? Step::complete : Step::needMore;
}

HttpRequestFramer::Step HttpRequestFramer::readEndlessBody(std::string_view input, std::size_t& at)
{
    at = input.size();
    if (kept.size() + at > maxMessageBytes)
        return broken("a body without a length is beyond the limit");
    return Step::needMore;
}

/// The size in hexadecimal, and extensions behind it that mean nothing to us (section 7.1).
HttpRequestFramer::Step HttpRequestFramer::readChunkLine(std::string_view& input)
{
    while (!input.empty()) {
        const char c = input.front();
        consume(input, 1);
        if (++lineBytes > maxChunkLineBytes)
            return broken("the line before a chunk is beyond the limit");
        if (const int digit = sizeEnded ? -1 : hexDigit(c); digit >= 0) {
            if (lineBytes > mostSizeDigits)
                return broken("a chunk is beyond the limit");
            bodyLeft = bodyLeft * 16 + static_cast<std::size_t>(digit);
            continue;
        }
        if (lineBytes == 1 || (!sizeEnded && !isBlank(c) && c != ';'))
            return broken("a chunk does not begin with its size");
        sizeEnded = true;
        if (c != '\n')
            continue;
        if (bodyLeft > maxMessageBytes - kept.size())
            return broken("the chunks of a message are beyond the limit");
        stage = bodyLeft == 0 ? Stage::trailer : Stage::chunkData;
        lineBytes = trailerBytes = 0;
        return Step::goOn;
    }
    return Step::goOn;
}

HttpRequestFramer::Step HttpRequestFramer::readChunkData(std::string_view& input)
{
    const std::size_t count = std::min(bodyLeft, input.size());
    keep(input, count);
    bodyLeft -= count;
    if (bodyLeft == 0)
        stage = Stage::chunkEnd;
    return Step::goOn;
}

HttpRequestFramer::Step HttpRequestFramer::readChunkEnd(std::string_view& input)
{
    const char c = input.front();
    if (c != '\n' && (c != '\r' || lineBytes != 0))
        return broken("a chunk is longer than its size");
    consume(input, 1);
    ++lineBytes;
    if (c == '\n') {
        lineBytes = 0;
        sizeEnded = false;
        stage = Stage::chunkLine;
    }
    return Step::goOn;
}

HttpRequestFramer::Step HttpRequestFramer::readTrailer(std::string_view& input)
{
    std::size_t at = 0;
    const bool found = findEmptyLine(input, at);
    consume(input, at);
    trailerBytes += at;
    if (trailerBytes > maxTrailerBytes)
        return broken("the trailer of a message is beyond the limit");
    return found ? Step::complete : Step::goOn;
}

HttpRequestFramer::Step HttpRequestFramer::broken(const char* brokenRule) noexcept
{
    rule = brokenRule;
    stage = Stage::broken;
    std::string().swap(kept);
    return Step::fail;
}

/// Looks on from `at`, where a line begins or goes on, for one without content, and sets `at` behind it or to the end.
bool HttpRequestFramer::findEmptyLine(std::string_view input, std::size_t& at) noexcept
{
    while (at < input.size()) {
        const std::size_t lineEnd = std::min(input.find('\n', at), input.size());
        if (lineBytes == 0)
            lineFirst = input[at];
        lineBytes += lineEnd - at;
        at = lineEnd;
        if (lineEnd == input.size())
            return false;
        ++at;
        const bool empty = lineBytes == 0 || (lineBytes == 1 && lineFirst == '\r');
        lineBytes = 0;
        if (empty)
            return true;
    }
    return false;
}

/// The present message up to `at` in one piece. When a part of it is kept, the rest joins that, and `at` becomes 0.
std::string_view HttpRequestFramer::messageSoFar(std::string_view& input, std::size_t& at)
{
    if (kept.empty())
        return input.substr(0, at);
    keep(input, at);
    at = 0;
    return kept;
}

void HttpRequestFramer::keep(std::string_view& input, std::size_t count)
{
    kept.append(input.data(), count);
    consume(input, count);
}

void HttpRequestFramer::consume(std::string_view& input, std::size_t count) noexcept
{
    input.remove_prefix(count);
    consumed += count;
}

HttpRequestFramer::Message HttpRequestFramer::handOut(std::string_view& input, std::size_t at, bool isRequest)
{
    stage = Stage::start;
    if (!kept.empty()) {
        keep(input, at);
        handedOut = true;
        return {kept, isRequest};
    }
    const std::string_view bytes = input.substr(0, at);
    consume(input, at);
    return {bytes, isRequest};
}

void HttpRequestFramer::releaseHandedOut() noexcept
{
    if (!handedOut)
        return;
    handedOut = false;
    if (kept.capacity() > modestBytes)
        std::string().swap(kept);
    else
        kept.clear();
}
}  // namespace Tavro8::wire
