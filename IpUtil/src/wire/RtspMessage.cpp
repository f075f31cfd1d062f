#include "wire/RtspMessage.h"

#include "wire/Text.h"

#include <algorithm>

namespace Tavro8::wire
{
namespace
{
/// Text of a start line: no line ends, so that nothing can begin a header of its own.
void appendStartLineText(std::string& to, std::string_view text)
{
    for (const char c : text) {
        if (!isControl(c))
            to += c;
    }
}

void appendHeadersAndBody(std::string& to, const HeaderList& headers, std::string_view body)
{
    headers.appendTo(to);
    if (!body.empty() && !headers.contains("Content-Length")) {
        to += "Content-Length: ";
        appendNumber(to, body.size());
        to += "\r\n";
    }
    to += "\r\n";
    to += body;
}

std::string_view unquoted(std::string_view text)
{
    text = trim(text);
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
        text = text.substr(1, text.size() - 2);
    return text;
}

/// A number of exactly `digits` digits at the front of `text`, which is then behind it.
std::optional<unsigned> takeDigits(std::string_view& text, std::size_t digits)
{
    const std::string_view number = text.substr(0, digits);
    if (number.size() != digits || !std::ranges::all_of(number, isDigit))
        return std::nullopt;
    text.remove_prefix(digits);
    return parseNumber<unsigned>(number);
}

/// "20170426T021045Z" or "20170426T021045.25Z" in milliseconds since 1970.
std::optional<std::int64_t> parseUtcTime(std::string_view text)
{
    using namespace std::chrono;
    const auto year = takeDigits(text, 4);
    const auto month = takeDigits(text, 2);
    const auto day = takeDigits(text, 2);
    if (!day || text.empty() || toUpper(text.front()) != 'T')
        return std::nullopt;
    text.remove_prefix(1);
    const auto hour = takeDigits(text, 2);
    const auto minute = takeDigits(text, 2);
    const auto second = takeDigits(text, 2);
    if (!year || !month || !hour || !minute || !second || *hour > 23 || *minute > 59 || *second > 60)
        return std::nullopt;
    std::int64_t fractionMs = 0;
    if (text.starts_with('.')) {
        text.remove_prefix(1);
        for (std::int64_t unit = 100; !text.empty() && isDigit(text.front()); unit /= 10) {
            fractionMs += (text.front() - '0') * unit;
            text.remove_prefix(1);
        }
    }
    const year_month_day date{std::chrono::year(static_cast<int>(*year)), std::chrono::month(*month),
                              std::chrono::day(*day)};
    if (!date.ok() || !equalsNoCase(text, "Z"))
        return std::nullopt;
    const sys_seconds time = sys_days(date) + hours(*hour) + minutes(*minute) + seconds(*second);
    return time.time_since_epoch().count() * 1000 + fractionMs;
}

void appendPadded(std::string& to, unsigned number, std::size_t digits)
{
    std::string plain;
    appendNumber(plain, number);
    to.append(digits > plain.size() ? digits - plain.size() : 0, '0').append(plain);
}

void appendUtcTime(std::string& to, std::int64_t secondsSince1970)
{
    using namespace std::chrono;
    constexpr std::int64_t lastSecond = 253'402'300'799;  // of the year 9999
    const sys_seconds time{seconds(std::clamp<std::int64_t>(secondsSince1970, 0, lastSecond))};
    const auto day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};
    appendPadded(to, static_cast<unsigned>(static_cast<int>(date.year())), 4);
    appendPadded(to, static_cast<unsigned>(date.month()), 2);
    appendPadded(to, static_cast<unsigned>(date.day()), 2);
    to += 'T';
    appendPadded(to, static_cast<unsigned>(clock.hours().count()), 2);
    appendPadded(to, static_cast<unsigned>(clock.minutes().count()), 2);
    appendPadded(to, static_cast<unsigned>(clock.seconds().count()), 2);
    to += 'Z';
}

/// "5000-5001", or "5000" which stands for itself and the next number.
template <typename Number>
std::optional<NumberPair<Number>> parsePair(std::string_view text)
{
    const auto first = parseNumber<Number>(trim(cutAt(text, '-')));
    if (!first)
        return std::nullopt;
    if (text.empty())
        return NumberPair<Number>{*first, static_cast<Number>(*first + 1)};
    const auto second = parseNumber<Number>(trim(text));
    if (!second)
        return std::nullopt;
    return NumberPair<Number>{*first, *second};
}

template <typename Number>
void appendPair(std::string& to, std::string_view name, const std::optional<NumberPair<Number>>& pair)
{
    if (!pair)
        return;
    to += name;
    appendNumber(to, pair->rtp);
    to += '-';
    appendNumber(to, pair->rtcp);
}

void readTransportParameter(TransportHeader& transport, std::string_view parameter)
{
    const std::string_view name = trim(cutAt(parameter, '='));
    const std::string_view value = unquoted(parameter);
    if (equalsNoCase(name, "multicast"))
        transport.multicast = true;
    else if (equalsNoCase(name, "interleaved"))
        transport.interleaved = parsePair<std::uint8_t>(value);
    else if (equalsNoCase(name, "client_port"))
        transport.clientPort = parsePair<std::uint16_t>(value);
    else if (equalsNoCase(name, "server_port"))
        transport.serverPort = parsePair<std::uint16_t>(value);
    else if (equalsNoCase(name, "port"))
        transport.port = parsePair<std::uint16_t>(value);
    else if (equalsNoCase(name, "ssrc"))
        transport.ssrc = parseNumber<std::uint32_t>(value, 16);
    else if (equalsNoCase(name, "ttl"))
        transport.ttl = parseNumber<unsigned>(value);
    else if (equalsNoCase(name, "source"))
        transport.source = value;
    else if (equalsNoCase(name, "destination"))
        transport.destination = value;
    else if (equalsNoCase(name, "mode"))
        transport.mode = value;
}

/// Where the parameter `name` ("seq=") of an RTP-Info entry begins, npos when it is not there.
std::size_t findRtpInfoParameter(std::string_view entry, std::string_view name)
{
    std::size_t at = findNoCase(entry, name);
    while (at != std::string_view::npos && (at == 0 || (entry[at - 1] != ';' && !isBlank(entry[at - 1]))))
        at = findNoCase(entry, name, at + 1);
    return at;
}

std::string_view rtpInfoValue(std::string_view entry, std::size_t at, std::string_view name)
{
    if (at == std::string_view::npos)
        return {};
    const std::string_view value = entry.substr(at + name.size());
    return trim(value.substr(0, value.find_first_of(";,")));
}

RtpInfo parseRtpInfoEntry(std::string_view entry)
{
    RtpInfo info;
    const std::size_t sequence = findRtpInfoParameter(entry, "seq=");
    const std::size_t timestamp = findRtpInfoParameter(entry, "rtptime=");
    std::string_view url = trim(entry.substr(0, std::min(sequence, timestamp)));
    while (!url.empty() && (url.back() == ',' || url.back() == ';'))
        url = trim(url.substr(0, url.size() - 1));
    info.url = unquoted(url);
    info.sequenceNumber = parseNumber<std::uint16_t>(rtpInfoValue(entry, sequence, "seq="));
    info.rtpTimestamp = parseNumber<std::uint32_t>(rtpInfoValue(entry, timestamp, "rtptime="));
    return info;
}
}  // namespace

std::string write(const RtspRequest& request)
{
    std::string text;
    text.reserve(512 + request.body.size());
    appendStartLineText(text, request.method);
    text += ' ';
    appendStartLineText(text, request.uri);
    text += " RTSP/1.0\r\n";
    appendHeadersAndBody(text, request.headers, request.body);
    return text;
}

std::string write(const RtspResponse& response)
{
    std::string text = "RTSP/1.0 ";
    appendNumber(text, response.status);
    text += ' ';
    appendStartLineText(text, response.reason);
    text += "\r\n";
    appendHeadersAndBody(text, response.headers, response.body);
    return text;
}

std::optional<std::uint32_t> cseqOf(const HeaderList& headers)
{
    return parseNumber<std::uint32_t>(trim(headers.get("CSeq")));
}

std::optional<SessionHeader> parseSession(std::string_view value)
{
    SessionHeader session;
    session.id = trim(cutAt(value, ';'));
    if (session.id.empty())
        return std::nullopt;
    while (!value.empty()) {
        std::string_view parameter = cutAt(value, ';');
        if (!equalsNoCase(trim(cutAt(parameter, '=')), "timeout"))
            continue;
        const auto seconds = parseNumber<std::uint32_t>(unquoted(parameter));
        if (seconds && *seconds > 0) {
            session.timeout = std::chrono::seconds(*seconds);
            session.timeoutStated = true;
        }
    }
    return session;
}

std::optional<TransportHeader> parseTransport(std::string_view value)
{
    std::string_view alternative = trim(cutAt(value, ','));
    const std::string_view protocol = trim(cutAt(alternative, ';'));
    if (!startsWithNoCase(protocol, "RTP/"))
        return std::nullopt;

    TransportHeader transport;
    const std::size_t lower = protocol.find('/', 4);
    const std::string_view lowerTransport = lower == std::string_view::npos ? "UDP" : protocol.substr(lower + 1);
    transport.profile = trim(protocol.substr(0, lower));
    transport.tcp = equalsNoCase(trim(lowerTransport), "TCP");
    while (!alternative.empty())
        readTransportParameter(transport, cutAt(alternative, ';'));
    return transport;
}

std::string write(const TransportHeader& transport)
{
    std::string text = transport.profile;
    if (transport.tcp)
        text += "/TCP";
    text += transport.multicast ? ";multicast" : ";unicast";
    if (!transport.destination.empty())
        text += ";destination=" + transport.destination;
    if (!transport.source.empty())
        text += ";source=" + transport.source;
    appendPair(text, ";interleaved=", transport.interleaved);
    appendPair(text, ";client_port=", transport.clientPort);
    appendPair(text, ";server_port=", transport.serverPort);
    appendPair(text, ";port=", transport.port);
    if (transport.ttl) {
        text += ";ttl=";
        appendNumber(text, *transport.ttl);
    }
    if (transport.ssrc) {
        std::string digits;
        appendNumber(digits, *transport.ssrc, 16);
        text += ";ssrc=" + std::string(8 - digits.size(), '0') + upperCase(digits);
    }
    if (!transport.mode.empty())
        text += ";mode=\"" + transport.mode + '"';
    return text;
}

std::vector<RtpInfo> parseRtpInfo(std::string_view value)
{
    // Entries are told apart by "url=", not by the comma, which may stand in a URL.
    constexpr std::string_view entryStart = "url=";
    std::vector<RtpInfo> entries;
    std::size_t at = findNoCase(value, entryStart);
    while (at != std::string_view::npos) {
        const std::size_t begin = at + entryStart.size();
        std::size_t next = findNoCase(value, entryStart, begin);
        // "url=" inside a query ("?url=") begins no entry.
        while (next != std::string_view::npos && value[next - 1] != ',' && !isBlank(value[next - 1]))
            next = findNoCase(value, entryStart, next + 1);
        const std::size_t end = next == std::string_view::npos ? value.size() : next;
        entries.push_back(parseRtpInfoEntry(value.substr(begin, end - begin)));
        at = next;
    }
    return entries;
}

std::optional<ClockRange> parseClockRange(std::string_view value)
{
    std::string_view range = trim(cutAt(value, ';'));
    constexpr std::string_view unit = "clock";
    if (!startsWithNoCase(range, unit))
        return std::nullopt;
    range = trim(range.substr(unit.size()));
    if (!range.starts_with('='))
        return std::nullopt;
    range.remove_prefix(1);
    const auto begin = parseUtcTime(trim(cutAt(range, '-')));
    if (!begin)
        return std::nullopt;
    return ClockRange{*begin, parseUtcTime(trim(range))};
}

std::string write(const ClockRange& range)
{
    constexpr std::int64_t millisecondsPerSecond = 1000;
    std::string text = "clock=";
    appendUtcTime(text, range.beginMs / millisecondsPerSecond);
    text += '-';
    if (range.endMs)
        appendUtcTime(text, *range.endMs / millisecondsPerSecond + (*range.endMs % millisecondsPerSecond > 0 ? 1 : 0));
    return text;
}

std::optional<double> parseScale(std::string_view value)
{
    constexpr double limit = 1000;
    const auto scale = parseFraction(trim(value));
    return scale && *scale > 0 && *scale <= limit ? scale : std::nullopt;
}

MethodList::MethodList(const HeaderList& headers)
{
    const std::string_view name = headers.contains("Public") ? "Public" : "Allow";
    for (std::string_view line : headers.all(name)) {
        while (!line.empty()) {
            const std::string_view method = trim(cutAt(line, ','));
            if (!method.empty())
                methods.push_back(upperCase(method));
        }
    }
}

bool MethodList::contains(std::string_view method) const
{
    return std::find(methods.begin(), methods.end(), upperCase(method)) != methods.end();
}
}  // namespace Tavro8::wire
