#include "Notification.h"

#include "HttpExchange.h"
#include "LapiEnvelope.h"

#include <algorithm>
#include <cstdio>
#include <utility>
#include <vector>

namespace simulator
{
namespace
{

constexpr int videoChannelSource = 8;  // "AlarmSrcType"
constexpr int alarmInputSource = 3;

constexpr std::size_t oversizedBody = std::size_t{1024} * 1024 + 65'536;
constexpr std::size_t wrongLengthLacks = 16;
constexpr std::size_t endlessChunk = 4096;

using Members = std::vector<std::pair<std::string, Json::Value>>;

/// JsonCpp would sort the members; devices send them in a fixed order.
std::string print(const Members& members)
{
    std::string out = "{";
    for (const auto& [name, value] : members) {
        out += out.size() == 1 ? "" : ", ";
        out += compactPrint(name) + ": " + compactPrint(value);
    }
    return out + '}';
}

Members alarmInfo(const Alarm& alarm, std::uint32_t sequence, std::int64_t now)
{
    Members members{
        {"AlarmType", alarm.type},
        {"AlarmLevel", alarm.level},
        {"TimeStamp", static_cast<Json::Int64>(alarm.time.value_or(now))},
        {"AlarmSeq", sequence},
        {"AlarmSrcID", alarm.source},
        {"AlarmSrcType", alarm.fromInput ? alarmInputSource : videoChannelSource},
        {"AlarmSrcName", (alarm.fromInput ? "Input" : "Camera") + std::to_string(alarm.source)},
    };
    for (const std::string& name : alarm.fields.getMemberNames()) {
        const Json::Value& value = alarm.fields[name];
        const auto found = std::ranges::find(members, name, &Members::value_type::first);
        if (value.isNull())
            std::erase_if(members, [&](const auto& member) { return member.first == name; });
        else if (found != members.end())
            found->second = value;
        else
            members.emplace_back(name, value);
    }
    return members;
}

std::string reference(const Envelope& envelope)
{
    return "{\"Reference\": " + compactPrint(envelope.reference) + ", ";
}

struct BodyMaker {
    const Envelope& envelope;
    std::uint32_t sequence;
    std::int64_t now;

    std::string operator()(const Alarm& alarm) const
    {
        return reference(envelope) + "\"AlarmInfo\": " + print(alarmInfo(alarm, sequence, now)) + '}';
    }
    std::string operator()(const Picture& picture) const
    {
        // Text that looks like a JPEG file in Base64, at its beginning at least.
        std::string data = "/9j/4AAQSkZJRgABAQEA";
        data.resize(picture.bytes, 'A');
        return reference(envelope) + "\"Seq\": " + std::to_string(sequence) +
               ", \"TimeStamp\": " + std::to_string(now) +
               R"(, "StructureInfo": {"ImageNum": 1, "ImageInfoList": [{"Index": 1, "Type": 1, "Size": )" +
               std::to_string(picture.bytes) + ", \"Data\": \"" + data + "\"}]}}";
    }
    std::string operator()(const Text& text) const { return text.body; }
};

std::string makeHead(const EventCommand& command, const Envelope& envelope, const std::string& framing)
{
    return "POST " + command.path + " HTTP/1.1\r\nHost: " + envelope.host +
           "\r\nContent-Type: application/json\r\nConnection: keep-alive\r\n" + framing + "\r\n\r\n";
}

std::string contentLength(std::size_t length)
{
    return "Content-Length: " + std::to_string(length);
}

std::string chunk(std::string_view data)
{
    char length[20];
    std::snprintf(length, sizeof length, "%zx\r\n", data.size());
    return length + std::string(data) + "\r\n";
}

std::string inThreeChunks(std::string_view body)
{
    const std::size_t piece = body.size() / 3 + 1;
    std::string out;
    for (; !body.empty(); body.remove_prefix(std::min(piece, body.size())))
        out += chunk(body.substr(0, piece));
    return out + chunk({});
}

/// One notification as its form has it, without the closing or the endless end.
std::string makeMessage(const EventCommand& command, const Envelope& envelope, std::string body)
{
    const auto withLength = [&](std::size_t length) {
        return makeHead(command, envelope, contentLength(length)) + body;
    };
    const std::size_t whole = body.size();
    switch (command.form) {
    case Form::whole:
    case Form::split:
    case Form::bytes:
    case Form::slow:
        return withLength(whole);
    case Form::chunked:
        return makeHead(command, envelope, "Transfer-Encoding: chunked") + inThreeChunks(body);
    case Form::headOnly:
        return makeHead(command, envelope, contentLength(0));
    case Form::cut:
        body.resize(whole / 2);
        return withLength(whole);
    case Form::brokenJson:
        body.resize(whole / 2);
        return withLength(body.size());
    case Form::wrongLength:
        return withLength(whole - std::min(whole, wrongLengthLacks));
    case Form::oversized:
        body.resize(std::max(whole, oversizedBody), ' ');
        return withLength(body.size());
    case Form::garbage:
        return std::string(garbageBytes);
    case Form::endless:
        // A chunk without data would be the end.
        return makeHead(command, envelope, "Transfer-Encoding: chunked") + (body.empty() ? body : chunk(body));
    }
    return {};
}

}  // namespace

Transmission makeTransmission(const EventCommand& command, const Envelope& envelope, std::uint32_t sequence,
                              std::int64_t now)
{
    Transmission out;
    for (unsigned i = 0; i < command.count; ++i)
        out.bytes +=
            makeMessage(command, envelope, std::visit(BodyMaker{envelope, sequence + i, now}, command.content));
    out.pause = command.interval;
    out.closes = command.form == Form::cut || command.form == Form::garbage;
    if (command.form == Form::split)
        out.firstPiece = out.bytes.find("\r\n\r\n") + 4;
    if (command.form == Form::bytes || command.form == Form::slow)
        out.firstPiece = out.furtherPieces = 1;
    if (command.form == Form::endless) {
        out.firstPiece = out.repeatFrom = out.bytes.size();
        out.bytes += chunk(std::string(endlessChunk, ' '));
    }
    return out;
}

std::string hostAndPort(const std::string& address, unsigned port)
{
    const bool bare = address.find(':') == std::string::npos;
    return (bare ? address : '[' + address + ']') + ':' + std::to_string(port);
}

}  // namespace simulator
