#pragma once

#include <IpUtil/Http.h>
#include <cstddef>
#include <cstdint>
#include <json/value.h>
#include <string>
#include <string_view>
#include <vector>

/// The devices' management interface: HTTP requests to paths under "/LAPI/V1.0/" with JSON bodies and replies.
namespace Uniview::lapi
{
/// Which check a reply did not pass, in the order in which they are made.
enum class Failure {
    none,
    transport,  ///< the exchange failed; status and body mean nothing
    status,     ///< the HTTP status is not accepted
    empty,      ///< no body where data are expected
    malformed,  ///< the body is not JSON, not of the shape of a reply, or longer than a document may be
    api,        ///< the device reports a failure of its own in "ResponseCode"
};

/// How far a caller wants its reply judged.
enum class Expect {
    status,   ///< transport and HTTP status
    body,     ///< also that there is a body
    json,     ///< also that the body is a JSON object
    success,  ///< also that "ResponseCode" is 0
};

/// A judged reply. Converts to true when every check that was asked for has passed. Its texts are a device's words made
/// fit for the log: one line each, without control characters, clipped to a few hundred bytes.
struct Reply {
    Failure failure = Failure::none;
    std::int32_t result = 0;   ///< for the host; never 0 when a check failed
    int code = 0;              ///< value of the transport error, HTTP status, or "ResponseCode"
    std::string message;       ///< transport message, reason phrase, reader's error, or "ResponseString"
    std::string statusString;  ///< "StatusString" of a failure that the device reports
    Json::Value data;          ///< "Response"."Data"; null when it is missing

    explicit operator bool() const noexcept { return failure == Failure::none; }
};

/// The one place that judges replies. Checks transport, status, body, JSON and envelope in this order, as far as
/// `expect` says, and stops at the first that fails. Does not throw for anything that a device may send.
Reply judge(const Tavro8::error_code& transportError, const Tavro8::http::HttpResponse& response,
            const std::vector<char>& body, Expect expect = Expect::success);

/// For blocking requests, whose transport error is part of the response.
Reply judge(const Tavro8::http::HttpResponse& response, const std::vector<char>& body, Expect expect = Expect::success);

/// The families of calls differ in the wording of the same failures.
enum class Wording {
    standard,      ///< " HTTP response has error code:404, reason:Not Found, request:/LAPI/..."
    subscription,  ///< a blank behind each colon
    io,            ///< no leading blank
    telemetry,     ///< " HTTP response has error: Not Found, request: /LAPI/..."
};

/// The log line for a reply that failed. Empty for a malformed one: each caller has its own words for that.
std::string describe(const Reply& reply, std::string_view path, Wording wording = Wording::standard);
/// The same for callers that have none: " HTTP response cannot be read, request:/LAPI/..., reason:* Line 1, ..."
std::string explain(const Reply& reply, std::string_view path);

/// What a device says, fit for a log line and for telling it from other words: one line, UTF-8 and of about `mostBytes`
/// (at least 3; three times as many when none of them is UTF-8), whatever the device sends. Characters that control a
/// terminal or end a line become blanks.
std::string printable(std::string_view text, std::size_t mostBytes = 256);

/// What is read of a device at most: its documents are a few KiB, but a text of many small values costs a hundred times
/// its size and the time of the thread that serves all devices.
inline constexpr std::size_t maxDocumentBytes = 1U << 20U;

/// Reads one JSON document; gives false and the reader's words, in one line, instead of throwing. Numbers are read
/// alike under every global locale; size and nesting are limited. An integer beyond 64 bits is a fraction for who asks,
/// but written back by `writeJson` as it came.
bool parseJson(std::string_view text, Json::Value& document, std::string& error);

/// A document that was read and edited, as the device gets it back: on one line, with 15 significant digits, texts as
/// they came. What was an integer stays one, of any length, and what had a fraction keeps it, also one of 0.
std::string writeJson(const Json::Value& document);
}  // namespace Uniview::lapi
