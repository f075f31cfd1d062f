#include "FuzzTarget.h"
#include "MediaChecks.h"

#include "media/TrackReceiver.h"

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Tavro8::fuzz
{
namespace
{
using GDRV::MediaCodec;
using std::chrono::milliseconds;

constexpr std::uint8_t payloadType = 96;

/// Bit of the input's first byte: the clock rate follows the choices, as 32 bits.
constexpr unsigned freeClock = 0x80;

/// Bits of the input's second byte.
enum Choice : unsigned {
    flagLosses = 1,
    overUdp = 2,
    tightLimit = 4,
    setsInDescription = 8,
    severalChannels = 16,
    oddClock = 32,
};

/// What a record of the input does; see `Player::step`.
enum Op : unsigned {
    markerBit = 1,
    newTimestamp = 2,
    lossBefore = 4,
    duplicate = 8,
    control = 0x80,
};

const std::vector<Bytes> h264Sets = {
    {0x67, 0x42, 0xc0, 0x0d, 0xd9, 0x01, 0x60, 0x96, 0xc0, 0x44, 0x00, 0x00,
     0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xc8, 0x3c, 0x50, 0xa9, 0x20},
    {0x68, 0xcb, 0x83, 0xcb, 0x20},
};
const std::vector<Bytes> h265Sets = {
    {0x40, 0x01, 0x0c, 0x01, 0xff, 0xff, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00,
     0x90, 0x00, 0x00, 0x03, 0x00, 0x00, 0x03, 0x00, 0x78, 0x95, 0x98, 0x09},
    {0x42, 0x01, 0x01, 0x01, 0x60, 0x00, 0x00, 0x03, 0x00, 0x90, 0x00, 0x00, 0x03, 0x00,
     0x00, 0x03, 0x00, 0x78, 0xa0, 0x03, 0xc0, 0x80, 0x10, 0xe5, 0x96, 0x56, 0x69, 0x24,
     0xca, 0xf0, 0x16, 0x80, 0x80, 0x00, 0x00, 0x03, 0x00, 0x80, 0x00, 0x00, 0x0c, 0x84},
    {0x44, 0x01, 0xc1, 0x72, 0xb4, 0x62, 0x40},
};

using Parameters = std::vector<std::pair<std::string, std::string>>;

/// Chosen by the two highest bits: as cameras do it, units of one size, everything a header can have, no header.
const std::array<Parameters, 4> aacPackings = {{
    {{"mode", "AAC-hbr"}, {"sizelength", "13"}, {"indexlength", "3"}, {"indexdeltalength", "3"}},
    {{"mode", "generic"}, {"constantsize", "40"}},
    {{"mode", "generic"},
     {"sizelength", "13"},
     {"indexlength", "3"},
     {"indexdeltalength", "3"},
     {"ctsdeltalength", "7"},
     {"dtsdeltalength", "32"},
     {"randomaccessindication", "1"},
     {"streamstateindication", "5"},
     {"auxiliarydatasizelength", "9"}},
    {{"mode", "AAC-lbr"}, {"sizelength", "6"}, {"indexlength", "2"}, {"indexdeltalength", "2"}},
}};

media::TrackFormat formatOf(MediaCodec codec, unsigned choices)
{
    media::TrackFormat format;
    format.codec = codec;
    format.payloadTypes = {payloadType, 0, 26};
    format.clockRate = (choices & oddClock) != 0 ? 11025 : 0;
    format.channelCount = (choices & severalChannels) != 0 ? 2 : 0;
    if (codec == MediaCodec::aac)
        format.formatParameters = aacPackings[choices >> 6];
    if (codec == MediaCodec::aac && (choices & setsInDescription) != 0)
        format.parameterSets = {{0x14, 0x08}};  // 16 kHz mono
    else if ((choices & setsInDescription) != 0)
        format.parameterSets = codec == MediaCodec::h265 ? h265Sets : h264Sets;
    if (codec == MediaCodec::h265 && (choices & severalChannels) != 0)
        format.formatParameters = {{"sprop-max-don-diff", "1"}};  // packets with decoding order numbers
    return format;
}

/// A frame of G.711 is a packet, whose size is limit enough.
std::size_t frameLimit(MediaCodec codec, unsigned choices)
{
    if (codec == MediaCodec::g711U || codec == MediaCodec::g711A)
        return 0xffff;
    return (choices & tightLimit) != 0 ? 600 : 64 * 1024;
}

media::TrackReceiver::Options optionsOf(unsigned choices, std::size_t limit)
{
    media::TrackReceiver::Options options;
    options.depacketiser.lossPolicy =
        (choices & flagLosses) != 0 ? media::LossPolicy::flag : media::LossPolicy::dropUntilKeyFrame;
    options.depacketiser.maxFrameBytes = limit;
    return options;
}

/// A track, and the sender and network that the input describes.
class Player {
public:
    Player(const media::TrackFormat& format, unsigned choices)
        : limit(frameLimit(format.codec, choices)),
          judge({limit, (choices & flagLosses) != 0}),
          receiver(media::TrackReceiver::make(format, pool, judge, optionsOf(choices, limit)))
    {
        now.utc = std::chrono::system_clock::time_point(std::chrono::hours(450'000));
        now.monotonic = std::chrono::steady_clock::time_point(std::chrono::hours(1));
        if ((choices & overUdp) != 0)
            receiver->expectDatagrams((choices & severalChannels) != 0 ? std::optional(source) : std::nullopt);
    }

    /// One record: a packet with its payload, or with `control` something that happens between two.
    void step(Script& script)
    {
        const unsigned op = script.u8();
        if ((op & control) != 0) {
            event(op, script);
        } else {
            if ((op & newTimestamp) != 0)
                timestamp += 3600;
            if ((op & lossBefore) != 0)
                ++sequence;
            if ((op & duplicate) == 0)
                ++sequence;
            receive(packet((op & markerBit) != 0, script.block()));
        }
        checkMemory();
    }

    void finish()
    {
        receiver->flush();
        checkMemory();
        const auto statistics = receiver->statistics();
        require(statistics.frames == judge.count() && statistics.keyFrames == judge.keyCount(),
                "the statistics count what was handed out");
    }

private:
    void event(unsigned op, Script& script);
    void report(Script& script);
    void receive(const Bytes& bytes) { receiver->onRtp(bytes, now); }
    Bytes packet(bool marker, const Bytes& payload) const;
    void checkMemory() const;

    std::size_t limit;
    std::shared_ptr<media::FramePool> pool = std::make_shared<media::FramePool>();
    FrameJudge judge;
    std::unique_ptr<media::TrackReceiver> receiver;
    media::ArrivalTime now;
    std::uint8_t type = payloadType;
    std::uint16_t sequence = 65'530;
    std::uint32_t timestamp = 4'294'960'000;
    std::uint32_t source = 0x11223344;
    Bytes extension;  // of the packets from now on
    bool reported = false;
};

void Player::event(unsigned op, Script& script)
{
    switch (op & 0x0fU) {
    case 0:
        return report(script);
    case 1:
        now.monotonic += milliseconds(script.u16());
        now.utc += milliseconds(script.u16());
        return;
    case 2:
        now.utc += milliseconds(static_cast<std::int32_t>(script.u32()));  // somebody sets our clock
        return;
    case 3:
        source ^= script.u8();
        return;
    case 4:
        timestamp = script.u32();
        return;
    case 5:
        sequence = static_cast<std::uint16_t>(sequence + script.u16());
        return;
    case 6:
        type = script.u8() & 0x7fU;
        return;
    case 7:
        return receive(script.block());  // no matter what it is
    case 8:
        return receiver->flush();
    case 9:
        extension = script.bytes(script.u8() * std::size_t{4});
        return;
    case 10:
        return receiver->onTick(now.monotonic);
    case 11:  // an older packet arrives behind newer ones
        sequence = static_cast<std::uint16_t>(sequence - script.u8() % 8U);
        return;
    default:
        if (const auto block = receiver->makeReport(now.monotonic)) {
            require(block->cumulativeLost >= -0x800000 && block->cumulativeLost <= 0x7fffff, "24 bits of losses");
            require(block->lastSenderReport != 0 || block->delaySinceLastSenderReport == 0 || reported,
                    "no delay without a report");
        }
        return;
    }
}

void Player::report(Script& script)
{
    const std::uint64_t ntp = script.u64();
    receiver->onSenderReport({source, ntp, script.u32()}, now);
    reported = true;
}

Bytes Player::packet(bool marker, const Bytes& payload) const
{
    const unsigned extended = extension.empty() ? 0 : 0x10;
    Bytes bytes{static_cast<std::uint8_t>(0x80U | extended), static_cast<std::uint8_t>((marker ? 0x80U : 0U) | type),
                static_cast<std::uint8_t>(sequence >> 8), static_cast<std::uint8_t>(sequence)};
    for (const std::uint32_t word : {timestamp, source}) {
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(static_cast<std::uint8_t>(word >> shift));
    }
    if (extended != 0) {
        // 16 bits for the profile to use, then the length in words
        const Bytes head{0xff, 0xd8, 0, static_cast<std::uint8_t>(extension.size() / 4)};
        bytes.insert(bytes.end(), head.begin(), head.end());
        bytes.insert(bytes.end(), extension.begin(), extension.end());
    }
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    return bytes;
}

/// Capacities are at most a quarter larger than asked for, or two classes up when recycled.
void Player::checkMemory() const
{
    const auto usage = pool->usage();
    require(usage.buffersOut <= judge.heldCount() + 2, "a track holds the frame in progress and no other");
    require(usage.bytesOut <= (judge.heldCount() + 2) * (limit * 2 + 128 * 1024), "a track's memory is bounded");
}

/// The packets of one track: the codec, choices (see `Choice`), a clock rate if the codec's byte says so, then records
/// (see `Player::step`), each payload behind a length of 16 bits. A codec that cannot be received makes an empty run.
///
/// Promises: frames keep to the rules of their codec (start codes, SOI and EOI, parameter sets in key frames), to the
/// limit and to the loss policy; their times never run backwards, whatever the sender's reports and clocks do; memory
/// stays bounded while a frame does not end; frames that somebody holds stay as they are.
void feed(ByteView input)
{
    constexpr std::array codecs = {MediaCodec::h264,  MediaCodec::h265, MediaCodec::g711U, MediaCodec::g711A,
                                   MediaCodec::mjpeg, MediaCodec::aac,  MediaCodec::pcm16};
    Script script(input);
    const unsigned first = script.u8();
    const MediaCodec codec = codecs[(first & ~freeClock) % codecs.size()];
    const unsigned choices = script.u8();
    media::TrackFormat format = formatOf(codec, choices);
    if ((first & freeClock) != 0)
        format.clockRate = script.u32();
    if (media::refusalOf(format) != nullptr)
        return;
    Player player(format, choices);
    while (!script.atEnd())
        player.step(script);
    player.finish();
}

const Target track("track", feed);
}  // namespace
}  // namespace Tavro8::fuzz
