#include "FuzzTarget.h"

#include "Lapi.h"

#include <algorithm>
#include <locale>
#include <string>
#include <vector>

namespace Tavro8::fuzz
{
namespace
{
namespace lapi = Uniview::lapi;
using lapi::Expect;
using lapi::Failure;

/// What a host may have set: numbers with groups and a comma.
class Grouping final : public std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

class GlobalLocale {
public:
    explicit GlobalLocale(const std::locale& locale) : before(std::locale::global(locale)) {}
    ~GlobalLocale() { std::locale::global(before); }
    GlobalLocale(const GlobalLocale&) = delete;
    GlobalLocale& operator=(const GlobalLocale&) = delete;

private:
    std::locale before;
};

/// Two texts of a device, each of 256 bytes that are no UTF-8, and our own words.
constexpr std::size_t longestLine = 2048;

bool isControl(char c)
{
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// The reader needs one of eight control characters for itself.
bool holdsEveryMark(std::string_view text)
{
    for (char digit = '1'; digit <= '8'; ++digit) {
        if (text.find(static_cast<char>(digit - '0')) == std::string_view::npos &&
            text.find(std::string("\\u000") + digit) == std::string_view::npos)
            return false;
    }
    return true;
}

/// Every number of a document, the way it was written.
std::vector<std::string> integersOf(std::string_view text)
{
    std::vector<std::string> integers;
    bool inString = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (inString && text[at] == '\\')
            ++at;
        else if (text[at] == '"')
            inString = !inString;
        else if (!inString && (text[at] == '-' || (text[at] >= '0' && text[at] <= '9'))) {
            const std::size_t end = std::min(text.find_first_not_of("0123456789+-.eE", at), text.size());
            const std::string number(text.substr(at, end - at));
            if (number.find_first_of(".eE") == std::string::npos)
                integers.push_back(number);
            at = end - 1;
        }
    }
    std::ranges::sort(integers);
    return integers;
}

/// What was read from `text` and is written back is JSON with the same integers, and says the same when it is read
/// again.
void checkWriting(std::string_view text, const Json::Value& document)
{
    const std::string written = lapi::writeJson(document);
    if (holdsEveryMark(written))
        return;  // numbers are the reader's then
    Json::Value again;
    std::string error;
    const bool isRead = lapi::parseJson(written, again, error);
    // The greatest number there is would be read as one beyond, when it is rounded to fifteen digits.
    require(isRead || written.find("e+308") != std::string::npos, "what is written can be read");
    require(!isRead || lapi::writeJson(again) == written, "and says the same");
    // The text may have more of them: behind the document, or under a name that comes twice.
    require(std::ranges::includes(integersOf(text), integersOf(written)), "integers are written as they came");
    for (const std::string& integer : integersOf(written))
        require(integer == "0" || integer == "-0" || integer[integer[0] == '-' ? 1 : 0] != '0', "no 0 stands in front");
}

void checkJson(std::string_view text)
{
    Json::Value document;
    std::string error;
    const bool read = lapi::parseJson(text, document, error);
    require(read || !error.empty(), "what is no JSON has a reason");
    require(error.size() < longestLine && std::ranges::none_of(error, isControl), "the reason is one short line");
    if (holdsEveryMark(text))
        return;  // known to be read by the host's locale
    if (read)
        checkWriting(text, document);

    static const std::locale grouping(std::locale::classic(), new Grouping);
    const GlobalLocale hosts(grouping);
    Json::Value same;
    require(lapi::parseJson(text, same, error) == read, "the host's locale makes no difference");
    require(!read || same == document, "the host's locale makes no difference");
}

void checkJudgement(const http::HttpResponse& response, const std::vector<char>& body)
{
    bool passed = true;
    for (const Expect expect : {Expect::status, Expect::body, Expect::json, Expect::success}) {
        const lapi::Reply reply = lapi::judge(response, body, expect);
        require(static_cast<bool>(reply) == (reply.result == 0), "only success is 0");
        require(passed || !reply, "what fails a check fails those behind it");
        passed = static_cast<bool>(reply);
        require(reply.failure != Failure::empty || body.empty(), "only an empty body is empty");
        for (const auto wording :
             {lapi::Wording::standard, lapi::Wording::subscription, lapi::Wording::io, lapi::Wording::telemetry}) {
            const std::string line = lapi::describe(reply, "/LAPI/V1.0/x", wording);
            require(line.empty() == (reply.failure == Failure::none || reply.failure == Failure::malformed),
                    "each failure but a malformed one has its words");
            require(line.size() < longestLine && std::ranges::none_of(line, isControl),
                    "a device neither floods nor controls the log");
        }
    }
}

/// A status of 16 bits, then the body of a reply.
///
/// Promises: no reply throws; a failed check gives a result that is not 0 and the words for it; each check implies
/// those before it; the words are one short line; a global locale that groups digits changes nothing; a document is
/// written back as JSON with its integers.
void feed(ByteView input)
{
    Script script(input);
    http::HttpResponse response;
    response.status = script.u16();
    const Bytes bytes = script.remaining();
    if (response.status % 3 == 0)
        response.status = 200;  // most of the checks lie behind this one
    response.reason.assign(bytes.begin(), bytes.end());
    checkJson(textOf(bytes));
    checkJudgement(response, {bytes.begin(), bytes.end()});
}

const Target lapiTarget("lapi", feed);
}  // namespace
}  // namespace Tavro8::fuzz
