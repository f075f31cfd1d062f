#include "Lapi.h"

#include <IpUtil/Wide.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <charconv>
#include <exception>
#include <json/reader.h>
#include <json/writer.h>
#include <locale>
#include <memory>
#include <optional>
#include <sstream>

namespace Uniview::lapi
{
namespace
{
using Tavro8::ResultCode;
using Tavro8::toResult;

/// The control character that stands in front of a fraction that was made a text for the reader: one that is nowhere in
/// the document, plain or escaped. Nothing when there is none, which no device does by accident.
std::optional<char> unusedMark(std::string_view text)
{
    for (char digit = '1'; digit <= '8'; ++digit) {
        const char mark = static_cast<char>(digit - '0');
        if (text.find(mark) == std::string_view::npos &&
            text.find(std::string("\\u000") + digit) == std::string_view::npos)
            return mark;
    }
    return {};
}

bool isNumberCharacter(char c) noexcept
{
    return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

/// Makes each number with a fraction or exponent a marked text, because JsonCpp reads fractions through a stream
/// that takes over the host's global locale. Gives nothing when there is no such number, which is the usual case.
std::optional<std::string> quoteFractions(std::string_view text, char mark)
{
    std::string quoted;
    bool inString = false;
    std::size_t copied = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char c = text[at];
        if (inString) {
            if (c == '\\')
                ++at;
            else if (c == '"')
                inString = false;
            continue;
        }
        if (c == '"') {
            inString = true;
        } else if (c == '-' || (c >= '0' && c <= '9')) {
            std::size_t end = at;
            while (end < text.size() && isNumberCharacter(text[end]))
                ++end;
            const std::string_view number = text.substr(at, end - at);
            if (number.find_first_of(".eE") != std::string_view::npos) {
                quoted.append(text.substr(copied, at - copied));
                quoted.append(1, '"').append(1, mark).append(number).append(1, '"');
                copied = end;
            }
            at = end - 1;
        }
    }
    if (copied == 0)
        return {};
    return quoted.append(text.substr(copied));
}

/// Turns the marked texts back into numbers; false when one is none.
bool restoreFractions(Json::Value& value, char mark)
{
    if (value.isString()) {
        const char* begin = nullptr;
        const char* end = nullptr;
        value.getString(&begin, &end);
        if (begin == end || *begin != mark)
            return true;
        double number = 0;
        const auto read = std::from_chars(begin + 1, end, number);
        if (read.ec != std::errc{} || read.ptr != end)
            return false;
        value = number;
        return true;
    }
    for (Json::Value& member : value) {
        if (!restoreFractions(member, mark))
            return false;
    }
    return true;
}

bool readDocument(std::string_view text, Json::Value& document, std::string& error)
{
    const Json::CharReaderBuilder builder;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &document, &error);
}

Reply failed(Failure failure, std::int32_t result, int code, std::string message)
{
    Reply reply;
    reply.failure = failure;
    reply.result = result;
    reply.code = code;
    reply.message = std::move(message);
    return reply;
}

Reply malformed(std::string message)
{
    return failed(Failure::malformed, toResult(ResultCode::malformedReply), 0, std::move(message));
}

/// Where a text of more than `most` bytes may be cut without tearing a character of UTF-8 apart.
std::size_t characterBoundary(std::string_view text, std::size_t most)
{
    constexpr std::size_t mostFollowing = 3;  // bytes behind the first of a character
    std::size_t at = most;
    while (at > most - mostFollowing && (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U)
        --at;
    return at;
}

/// A member as text, whatever a broken device made of it.
std::string textOf(const Json::Value& object, const char* name)
{
    const Json::Value& member = object[name];
    return member.isConvertibleTo(Json::stringValue) ? printable(member.asString()) : std::string();
}

Reply judgeEnvelope(Json::Value& document, Expect expect)
{
    if (!document.isObject())
        return malformed("the reply is not a JSON object");
    Json::Value& envelope = document["Response"];
    if (!envelope.isNull() && !envelope.isObject())
        return malformed("\"Response\" is not an object");
    Reply reply;
    if (expect == Expect::success) {
        const Json::Value& code = envelope["ResponseCode"];
        if (!code.isInt())
            return malformed("\"ResponseCode\" is missing or not an integer");
        if (code.asInt() != 0) {
            reply =
                failed(Failure::api, toResult(ResultCode::apiError), code.asInt(), textOf(envelope, "ResponseString"));
            reply.statusString = textOf(envelope, "StatusString");
            return reply;
        }
    }
    if (envelope.isObject())
        reply.data.swap(envelope["Data"]);
    return reply;
}

/// How one family of calls words the failures.
struct WordingTable {
    const char* transport;  ///< in front of the transport failure
    bool transportHasCode;  ///< value and message, or the message alone
    const char* status;     ///< in front of the HTTP failure
    bool statusHasCode;     ///< status and reason phrase, or the reason phrase alone
    const char* message;
    const char* reason;
    const char* request;
    const char* empty;
};

constexpr WordingTable wordings[] = {
    {" HTTP request is finished with error:", true, " HTTP response has error code:", true,
     ", message:", ", reason:", ", request:", " HTTP responce is empty, request:"},
    {" HTTP request is finished with error: ", true, " HTTP response has error code: ", true,
     ", message: ", ", reason: ", ", request: ", " HTTP responce is empty, request: "},
    {"HTTP request is finished with error:", true, "HTTP response has error code:", true,
     ", message:", ", reason:", ", request:", "HTTP responce is empty, request:"},
    {" HTTP request is finished with error: ", false, " HTTP response has error: ", false,
     ", message: ", ", reason: ", ", request: ", "HTTP responce is empty, request: "},
};

void describeApi(std::ostream& text, const Reply& reply, Wording wording, const WordingTable& words)
{
    if (wording == Wording::telemetry) {
        text << "HTTP response has error code: " << reply.code << words.reason << reply.message << words.message
             << reply.statusString;
        return;
    }
    text << " Internal API error :" << reply.message << ", status :" << reply.statusString;
}
}  // namespace

std::string printable(std::string_view text, std::size_t mostBytes)
{
    const bool isLong = text.size() > mostBytes;
    std::wstring wide = Tavro8::Utility::toWide(isLong ? text.substr(0, characterBoundary(text, mostBytes)) : text);
    const auto controls = [](wchar_t c) { return c < 0x20 || (c >= 0x7F && c < 0xA0); };
    std::replace_if(wide.begin(), wide.end(), controls, L' ');
    return Tavro8::Utility::toNarrow(wide) + (isLong ? "..." : "");
}

bool parseJson(std::string_view text, Json::Value& document, std::string& error)
{
    try {
        const auto mark = unusedMark(text);
        const auto quoted = mark ? quoteFractions(text, *mark) : std::nullopt;
        if (!readDocument(quoted ? *quoted : text, document, error)) {
            error = printable(error);  // the reader gives an account of several lines, with parts of the document
            return false;
        }
        if (!quoted || restoreFractions(document, *mark))
            return true;
        error = "a number cannot be read";
    } catch (const std::exception& e) {  // nesting beyond the reader's limit
        error = e.what();
    }
    return false;
}

std::string writeJson(const Json::Value& document)
{
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    builder["precision"] = 15;
    return Json::writeString(builder, document);
}

Reply judge(const Tavro8::error_code& transportError, const Tavro8::http::HttpResponse& response,
            const std::vector<char>& body, Expect expect)
{
    if (transportError) {
        return failed(Failure::transport, Tavro8::Utility::translateSystemError(transportError), transportError.value(),
                      transportError.message());
    }
    if (!Tavro8::http::isAccepted(response.status)) {
        return failed(Failure::status, Tavro8::http::translateResponseError(response),
                      static_cast<int>(response.status), printable(response.reason));
    }
    if (expect == Expect::status)
        return {};
    if (body.empty())
        return failed(Failure::empty, toResult(ResultCode::emptyReply), 0, {});
    if (expect == Expect::body)
        return {};
    Json::Value document;
    std::string error;
    if (!parseJson({body.data(), body.size()}, document, error))
        return malformed(std::move(error));
    return judgeEnvelope(document, expect);
}

Reply judge(const Tavro8::http::HttpResponse& response, const std::vector<char>& body, Expect expect)
{
    return judge(response.transportError, response, body, expect);
}

std::string describe(const Reply& reply, std::string_view path, Wording wording)
{
    const WordingTable& words = wordings[static_cast<std::size_t>(wording)];
    std::ostringstream text;
    text.imbue(std::locale::classic());
    switch (reply.failure) {
    case Failure::none:
    case Failure::malformed:
        return {};
    case Failure::transport:
        text << words.transport;
        if (words.transportHasCode)
            text << reply.code << words.message;
        text << reply.message << words.request << path;
        break;
    case Failure::status:
        text << words.status;
        if (words.statusHasCode)
            text << reply.code << words.reason;
        text << reply.message << words.request << path;
        break;
    case Failure::empty:
        text << words.empty << path;
        break;
    case Failure::api:
        describeApi(text, reply, wording, words);
        break;
    }
    return text.str();
}
}  // namespace Uniview::lapi
