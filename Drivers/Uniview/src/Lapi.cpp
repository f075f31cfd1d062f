#include "Lapi.h"

#include <IpUtil/Wide.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <array>
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

/// The control character that stands in front of a number that was made a text for the reader: one that is nowhere in
/// the document, plain or escaped. Nothing when there is none, which no device does by accident.
std::optional<char> unusedMark(std::string_view text)
{
    constexpr std::string_view escape = "\\u000";
    constexpr char mostMark = 7;  // those from 8 on have escapes of their own
    std::array<bool, mostMark + 1> used{};
    for (std::size_t at = 0; at < text.size(); ++at) {
        const bool escaped =
            text[at] == '\\' && text.substr(at).starts_with(escape) && at + escape.size() < text.size();
        const char c = escaped ? static_cast<char>(text[at + escape.size()] - '0') : text[at];
        if (c > 0 && c <= mostMark)
            used[static_cast<std::size_t>(c)] = true;
    }
    for (char mark = 1; mark <= mostMark; ++mark) {
        if (!used[static_cast<std::size_t>(mark)])
            return mark;
    }
    return {};
}

constexpr bool isDigit(char c) noexcept
{
    return c >= '0' && c <= '9';
}

constexpr bool isNumberCharacter(char c) noexcept
{
    return isDigit(c) || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

/// Whether the text is a number, RFC 8259, section 6. The reader takes a 0 in front of other digits, too.
bool isNumber(std::string_view text)
{
    const auto skip = [&](std::string_view characters) {
        const bool found = !text.empty() && characters.find(text.front()) != std::string_view::npos;
        text.remove_prefix(found ? 1 : 0);
        return found;
    };
    const auto skipDigits = [&] {
        const auto digits =
            static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isDigit) - text.begin());
        text.remove_prefix(digits);
        return digits > 0;
    };
    skip("-");
    if (!skip("0") && !skipDigits())
        return false;
    if (skip(".") && !skipDigits())
        return false;
    if (skip("eE")) {
        skip("+-");
        if (!skipDigits())
            return false;
    }
    return text.empty();
}

template <typename Number>
std::optional<Number> numberOf(std::string_view text)
{
    Number number{};
    const auto read = std::from_chars(text.data(), text.data() + text.size(), number);
    return read.ec == std::errc{} && read.ptr == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

/// Whether the reader makes of a number what it is. It reads fractions through a stream that takes over the host's
/// global locale, makes fractions of long integers, and does not look at what stands in front of a number.
bool isReadAsItIs(std::string_view number)
{
    return isNumber(number) && number != "-0" && (numberOf<std::int64_t>(number) || numberOf<std::uint64_t>(number));
}

/// A document whose numbers are marked texts where the reader would change them.
struct Quoted {
    std::string text;
    char mark = 0;
};

/// Gives nothing when there is no such number, which is the usual case, or no mark is left for it.
std::optional<Quoted> quoteNumbers(std::string_view text)
{
    std::string quoted;
    std::optional<char> mark;  // looked for when the first is found
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
        } else if (c == '-' || c == '+' || isDigit(c)) {  // the reader takes a plus, too
            std::size_t end = at;
            while (end < text.size() && isNumberCharacter(text[end]))
                ++end;
            const std::string_view number = text.substr(at, end - at);
            if (!isReadAsItIs(number)) {
                if (!mark)
                    mark = unusedMark(text);
                if (!mark)
                    return {};
                quoted.append(text.substr(copied, at - copied));
                quoted.append(1, '"').append(1, *mark).append(number).append(1, '"');
                copied = end;
            }
            at = end - 1;
        }
    }
    if (!mark)
        return {};
    quoted.append(text.substr(copied));
    return Quoted{std::move(quoted), *mark};
}

// An integer that JsonCpp cannot hold is carried beside its value, as a comment of it. What replaces the value replaces
// the comment; comments of devices are not read.
constexpr auto literalPlace = Json::commentBefore;
constexpr std::string_view literalSign = "//";  // a comment has to begin so

bool restoreNumber(Json::Value& value, std::string_view literal)
{
    const auto number = numberOf<double>(literal);
    if (!isNumber(literal) || !number)
        return false;
    if (literal.find_first_of(".eE") != std::string_view::npos) {
        value = *number;
        return true;
    }
    value = literal == "-0" ? Json::Value(0) : Json::Value(*number);
    value.setComment(std::string(literalSign).append(literal), literalPlace);
    return true;
}

bool beginsWith(char mark, const char* begin, const char* end)
{
    return begin != end && *begin == mark;
}

/// Turns the marked texts back into numbers; false when one is none, or stands where a name has to be.
bool restoreNumbers(Json::Value& value, char mark)
{
    if (value.isString()) {
        const char* begin = nullptr;
        const char* end = nullptr;
        value.getString(&begin, &end);
        return !beginsWith(mark, begin, end) ||
               restoreNumber(value, std::string(begin + 1, end));  // a copy: the value is replaced
    }
    for (auto member = value.begin(); member != value.end(); ++member) {
        const char* end = nullptr;
        const char* const name = member.memberName(&end);
        if (beginsWith(mark, name, end) || !restoreNumbers(*member, mark))
            return false;
    }
    return true;
}

/// Makes each number that is carried as a literal a marked text; tells whether there is one.
bool markLiterals(Json::Value& value, char mark)
{
    if (value.hasComment(literalPlace)) {
        value = Json::Value(mark + value.getComment(literalPlace).substr(literalSign.size()));
        return true;
    }
    bool any = false;
    for (Json::Value& member : value)
        any |= markLiterals(member, mark);
    return any;
}

/// Takes the marked texts of a written document, in which the mark is escaped, out of their quotes.
std::string unquoteLiterals(std::string_view text, char mark)
{
    const std::string begin = std::string("\"\\u000") + static_cast<char>('0' + mark);
    std::string unquoted;
    for (std::size_t at = text.find(begin); at != std::string_view::npos; at = text.find(begin)) {
        unquoted.append(text.substr(0, at));
        text.remove_prefix(at + begin.size());
        const std::size_t length = text.find('"');
        unquoted.append(text.substr(0, length));
        text.remove_prefix(length + 1);
    }
    return unquoted.append(text);
}

bool readDocument(std::string_view text, Json::Value& document, std::string& error)
{
    Json::CharReaderBuilder builder;
    builder["allowComments"] = false;  // JSON has none, and a quote in one would not be that of a text
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &document, &error);
}

std::string writeDocument(const Json::Value& document)
{
    Json::StreamWriterBuilder builder;
    builder["commentStyle"] = "None";
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    builder["precision"] = 15;
    return Json::writeString(builder, document);
}

std::string tooLong(std::size_t size)
{
    return std::to_string(size) + " bytes are more than the " + std::to_string(maxDocumentBytes) + " of a document";
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
    if (text.size() > maxDocumentBytes) {
        error = tooLong(text.size());
        return false;
    }
    try {
        const auto quoted = quoteNumbers(text);
        if (!readDocument(quoted ? quoted->text : text, document, error)) {
            error = printable(error);  // the reader gives an account of several lines, with parts of the document
            return false;
        }
        if (!quoted || restoreNumbers(document, quoted->mark))
            return true;
        error = "a number cannot be read";
    } catch (const std::exception& e) {  // nesting beyond the reader's limit
        error = e.what();
    }
    return false;
}

std::string writeJson(const Json::Value& document)
{
    std::string text = writeDocument(document);
    const auto mark = unusedMark(text);
    Json::Value marked = document;
    if (!mark || !markLiterals(marked, *mark))
        return text;
    return unquoteLiterals(writeDocument(marked), *mark);
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
    if (body.size() > maxDocumentBytes)
        return failed(Failure::malformed, toResult(ResultCode::responseTooLarge), 0, tooLong(body.size()));
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

std::string explain(const Reply& reply, std::string_view path)
{
    if (reply.failure != Failure::malformed)
        return describe(reply, path);
    return std::string(" HTTP response cannot be read, request:").append(path) + ", reason:" + reply.message;
}
}  // namespace Uniview::lapi
