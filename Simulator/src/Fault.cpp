#include "Fault.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <sstream>

namespace simulator
{
namespace
{

enum class Argument { none, optional, status, rtspStatus, code, count, number, milliseconds, seconds };

struct FaultName {
    const char* name;
    FaultKind kind;
    Argument argument;
    bool takesPattern;  ///< false where the fault strikes before any request is known
    const char* meaning;
};

constexpr FaultName faultNames[] = {
    {"refuse", FaultKind::refuse, Argument::none, false, "reset each HTTP connection when it is accepted"},
    {"hang", FaultKind::hang, Argument::none, true, "read the request, never answer"},
    {"close", FaultKind::close, Argument::none, true, "close the connection after reading the request"},
    {"garbage", FaultKind::garbage, Argument::none, true, "answer with bytes that are no HTTP"},
    {"status", FaultKind::status, Argument::status, true, "answer with this HTTP status"},
    {"apierror", FaultKind::apiError, Argument::code, true, "answer 200 with this \"ResponseCode\""},
    {"brokenjson", FaultKind::brokenJson, Argument::none, true, "break the document off in the middle"},
    {"emptybody", FaultKind::emptyBody, Argument::none, true, "answer 200 without a body"},
    {"nodata", FaultKind::noData, Argument::none, true, "leave \"Data\" out of the envelope"},
    {"emptydata", FaultKind::emptyData, Argument::none, true, "leave every member out of \"Data\""},
    {"slow", FaultKind::slow, Argument::milliseconds, true, "answer this many milliseconds late"},
    {"drip", FaultKind::drip, Argument::milliseconds, true, "send a byte in this many milliseconds"},
    {"truncate", FaultKind::truncate, Argument::optional, true,
     "break a chunked body off; an argument replaces the HTTP status"},
    {"rtsp-refuse", FaultKind::rtspRefuse, Argument::none, false, "reset each RTSP connection when it is accepted"},
    {"rtsp-hang", FaultKind::rtspHang, Argument::none, false, "accept RTSP connections, never answer"},
    {"rtsp-status", FaultKind::rtspStatus, Argument::rtspStatus, true, "answer RTSP requests with this status"},
    {"rtsp-drop", FaultKind::rtspDrop, Argument::seconds, false, "close each RTSP connection after so many seconds"},
    {"rtsp-notracks", FaultKind::rtspNoTracks, Argument::none, true, "describe the media without a track"},
    {"talk-drop", FaultKind::talkDrop, Argument::count, true,
     "close the RTSP connection after so many packets to the device"},
    {"records-total", FaultKind::recordsTotal, Argument::number, true, "say this \"Total\" in record lists"},
    {"records-stall", FaultKind::recordsStall, Argument::number, true,
     "send empty record pages from this offset on, \"Total\" unchanged"},
    {"records-nolist", FaultKind::recordsNoList, Argument::none, true, "leave \"RecordInfos\" out of record pages"},
    {"records-noarray", FaultKind::recordsNoArray, Argument::none, true, "make \"RecordInfos\" an object"},
    {"records-reversed", FaultKind::recordsReversed, Argument::none, true, "swap \"Begin\" and \"End\" of each record"},
};

struct Range {
    unsigned least;
    unsigned most;
};

Range rangeOf(Argument argument)
{
    switch (argument) {
    case Argument::optional:
    case Argument::status:
        return {200, 999};
    case Argument::rtspStatus:
        return {400, 599};
    case Argument::code:
    case Argument::count:
        return {1, 1'000'000};
    case Argument::number:
        return {0, UINT32_MAX};
    case Argument::milliseconds:
        return {1, 600'000};
    case Argument::seconds:  // has a fraction
    case Argument::none:
        break;
    }
    return {0, 0};
}

/// "200..999"
std::string describeRange(Argument argument)
{
    if (argument == Argument::seconds)
        return "0.001..86400";
    const Range range = rangeOf(argument);
    return std::to_string(range.least) + ".." + std::to_string(range.most);
}

std::optional<unsigned> readNumber(std::string_view text)
{
    unsigned number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size())
        return std::nullopt;
    return number;
}

/// Seconds may have a fraction ("0.5"): tests do not want to wait for whole ones.
std::optional<unsigned> readSecondsAsMilliseconds(std::string_view text)
{
    std::istringstream in{std::string(text)};
    in.imbue(std::locale::classic());
    double seconds = 0;
    if (!(in >> seconds) || !in.eof() || !(seconds >= 0.001 && seconds <= 86'400))
        return std::nullopt;
    return static_cast<unsigned>(std::lround(seconds * 1000));
}

std::optional<unsigned> readArgument(Argument argument, std::string_view text)
{
    if (argument == Argument::seconds)
        return readSecondsAsMilliseconds(text);
    const auto number = readNumber(text);
    const Range range = rangeOf(argument);
    if (!number || *number < range.least || *number > range.most)
        return std::nullopt;
    return number;
}

std::string quoted(std::string_view text)
{
    return "'" + std::string(text) + "'";
}

}  // namespace

std::variant<Fault, std::string> parseFault(std::string_view text)
{
    Fault fault;
    fault.text = text;
    std::string_view rest = text;
    const auto at = rest.find('@');
    if (at != rest.npos) {
        fault.pattern = rest.substr(at + 1);
        rest = rest.substr(0, at);
    }
    const auto colon = rest.find(':');
    const std::string_view name = rest.substr(0, colon);

    const auto known = std::ranges::find(faultNames, name, &FaultName::name);
    if (known == std::end(faultNames))
        return "There is no fault " + quoted(name) + "; --help lists them.";
    fault.kind = known->kind;

    if (at != text.npos && fault.pattern.empty())
        return "The fault " + quoted(text) + " has nothing after '@'.";
    if (!fault.pattern.empty() && !known->takesPattern)
        return "The fault " + quoted(name) + " strikes before a request is known and takes no '@' pattern.";

    if (colon == rest.npos) {
        if (known->argument != Argument::none && known->argument != Argument::optional)
            return "The fault " + quoted(name) + " needs a number: " + std::string(name) + ":NUMBER.";
        return fault;
    }
    if (known->argument == Argument::none)
        return "The fault " + quoted(name) + " takes no number.";
    const auto argument = readArgument(known->argument, rest.substr(colon + 1));
    if (!argument)
        return "The fault " + quoted(name) + " cannot take " + quoted(rest.substr(colon + 1)) + ", only " +
               describeRange(known->argument) + '.';
    fault.argument = *argument;
    return fault;
}

std::string describeFaults()
{
    std::ostringstream out;
    for (const FaultName& fault : faultNames) {
        std::string form = fault.name;
        if (fault.argument == Argument::optional)
            form += "[:N]";
        else if (fault.argument != Argument::none)
            form += ":N";
        if (fault.takesPattern)
            form += "[@TEXT]";
        out << "  " << form << std::string(form.size() < 24 ? 24 - form.size() : 1, ' ') << fault.meaning;
        if (fault.argument != Argument::none)
            out << " (" << describeRange(fault.argument) << ')';
        out << '\n';
    }
    return out.str();
}

FaultTable::FaultTable(std::vector<Fault> initial) : faults(std::move(initial)) {}

void FaultTable::add(Fault fault)
{
    const std::lock_guard lock(mutex);
    faults.push_back(std::move(fault));
}

void FaultTable::clear()
{
    const std::lock_guard lock(mutex);
    faults.clear();
}

std::size_t FaultTable::remove(std::string_view text)
{
    const std::lock_guard lock(mutex);
    return std::erase_if(faults, [text](const Fault& fault) { return fault.text == text; });
}

std::vector<Fault> FaultTable::list() const
{
    const std::lock_guard lock(mutex);
    return faults;
}

std::optional<Fault> FaultTable::find(FaultKind kind, std::string_view request) const
{
    const std::lock_guard lock(mutex);
    const auto found = std::find_if(faults.rbegin(), faults.rend(), [&](const Fault& fault) {
        return fault.kind == kind && request.find(fault.pattern) != request.npos;
    });
    if (found == faults.rend())
        return std::nullopt;
    return *found;
}

}  // namespace simulator
