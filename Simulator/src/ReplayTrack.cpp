#include "ReplayTrack.h"

namespace simulator
{
namespace
{

constexpr std::size_t rtpHeaderBytes = 12;

template <typename Integer>
void writeBe(Integer value, std::uint8_t* to)
{
    for (std::size_t i = 0; i < sizeof(Integer); ++i)
        to[i] = static_cast<std::uint8_t>(value >> 8 * (sizeof(Integer) - 1 - i));
}

void appendBe32(std::uint32_t value, std::string& out)
{
    for (const unsigned shift : {24u, 16u, 8u, 0u})
        out += static_cast<char>(value >> shift);
}

/// Version 2, a count, the type and the length in words without the first.
void appendRtcpHead(unsigned count, unsigned type, unsigned words, std::string& out)
{
    appendBe32((0x80u | count) << 24 | type << 16 | words, out);
}

}  // namespace

ReplayTrack::ReplayTrack(unsigned rate, std::uint8_t rtpChannel)
    : clockRate(rate),
      channel(rtpChannel),
      source(static_cast<std::uint32_t>(random())),
      sequence(static_cast<std::uint16_t>(random())),
      origin(static_cast<std::uint32_t>(random())),
      latest(origin)
{}

void ReplayTrack::begin()
{
    // A tenth of a second behind what was sent last.
    origin = latest + clockRate / 10;
}

void ReplayTrack::becomeAnother()
{
    source = static_cast<std::uint32_t>(random());
    packets = 0;
    octets = 0;
}

std::uint32_t ReplayTrack::rtpTime(std::chrono::nanoseconds position) const
{
    constexpr std::int64_t second = 1'000'000'000;
    const std::int64_t whole = position.count() / second * clockRate;
    const std::int64_t rest = (position.count() % second * clockRate + second / 2) / second;
    return origin + static_cast<std::uint32_t>(whole + rest);
}

void ReplayTrack::appendFrame(std::uint8_t frameChannel, std::string_view bytes, std::string& out) const
{
    out += '$';
    out += static_cast<char>(frameChannel);
    out += static_cast<char>(bytes.size() >> 8);
    out += static_cast<char>(bytes.size());
    out += bytes;
}

void ReplayTrack::appendPacket(ReplayPacket packet, std::string& out)
{
    if (packet.bytes.size() < rtpHeaderBytes)
        return;
    latest = rtpTime(packet.position);
    writeBe(sequence++, &packet.bytes[2]);
    writeBe(latest, &packet.bytes[4]);
    writeBe(source, &packet.bytes[8]);
    ++packets;
    octets += static_cast<std::uint32_t>(packet.bytes.size() - rtpHeaderBytes);
    appendFrame(channel, {reinterpret_cast<const char*>(packet.bytes.data()), packet.bytes.size()}, out);
}

/// A sender report without report blocks (6.4.1) and the name of the source (6.5), which every compound packet has.
std::string ReplayTrack::report(std::chrono::nanoseconds position, RecordedTime time) const
{
    constexpr unsigned senderReport = 200, sourceDescription = 202;
    constexpr std::uint32_t secondsFrom1900To1970 = 2'208'988'800u;
    const std::uint64_t nanoseconds = static_cast<std::uint64_t>(time.count());
    constexpr std::uint64_t second = 1'000'000'000;
    std::string out;
    appendRtcpHead(0, senderReport, 6, out);
    appendBe32(source, out);
    appendBe32(static_cast<std::uint32_t>(nanoseconds / second + secondsFrom1900To1970), out);
    appendBe32(static_cast<std::uint32_t>(((nanoseconds % second << 32) + second - 1) / second), out);
    appendBe32(rtpTime(position), out);
    appendBe32(packets, out);
    appendBe32(octets, out);

    appendRtcpHead(1, sourceDescription, 4, out);
    appendBe32(source, out);
    out += "\x01\x08recorder";
    out += std::string(2, '\0');  // the list's end, to a multiple of four
    return out;
}

void ReplayTrack::appendReport(std::chrono::nanoseconds position, RecordedTime time, std::string& out) const
{
    appendFrame(static_cast<std::uint8_t>(channel + 1), report(position, time), out);
}

void ReplayTrack::appendFarewell(std::chrono::nanoseconds position, RecordedTime time, std::string& out) const
{
    constexpr unsigned bye = 203;
    std::string bytes = report(position, time);
    appendRtcpHead(1, bye, 1, bytes);
    appendBe32(source, bytes);
    appendFrame(static_cast<std::uint8_t>(channel + 1), bytes, out);
}

}  // namespace simulator
