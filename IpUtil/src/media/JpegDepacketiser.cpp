#include "media/JpegDepacketiser.h"

#include "wire/Bytes.h"

#include <algorithm>
#include <utility>

namespace Tavro8::media
{
namespace
{
constexpr std::size_t firstPictureBytes = 64 * 1024;  // the guess that the pictures themselves correct

constexpr std::uint8_t withRestartMarkers = 64;  // added to the type
constexpr std::uint8_t firstOwnQ = 128;          // from here on Q says nothing about the tables
constexpr std::uint8_t changingQ = 255;          // tables of this picture only
constexpr std::uint8_t highestScaledQ = 99;

// RTP header extensions of ONVIF: marker segments of the picture, alone or behind what replay needs.
constexpr std::uint16_t jpegExtension = 0xffd8;
constexpr std::uint16_t replayExtension = 0xabac;
constexpr std::size_t replayBytes = 12;

/// Takes one table less than or as long as `rest`; false when it is cut off.
bool takeTable(std::span<const std::uint8_t>& rest, bool wide, jpeg::QuantisationTables& tables)
{
    const std::size_t bytes = jpeg::QuantisationTables::values * (wide ? 2 : 1);
    if (rest.size() < bytes)
        return false;
    if (tables.count < tables.tables.size()) {  // further ones have no component that would use them
        auto& table = tables.tables[tables.count++];
        table.wide = wide;
        std::ranges::copy(rest.first(bytes), table.bytes.begin());
    }
    rest = rest.subspan(bytes);
    return true;
}

std::optional<jpeg::QuantisationTables> readTables(std::span<const std::uint8_t> bytes, unsigned precision)
{
    jpeg::QuantisationTables tables;
    while (!bytes.empty()) {
        if (!takeTable(bytes, (precision & 1U) != 0, tables))
            return std::nullopt;
        precision >>= 1;
    }
    return tables;
}

/// The marker segments that the header extension carries: directly, or behind those of replay with a header of their
/// own. Empty when there are none.
std::span<const std::uint8_t> segmentsOf(const RtpPacket& packet) noexcept
{
    if (packet.extensionProfile == jpegExtension)
        return packet.extension;
    if (packet.extensionProfile != replayExtension || packet.extension.size() < replayBytes + 4)
        return {};
    const auto second = packet.extension.subspan(replayBytes);
    const std::size_t bytes = std::size_t{wire::readBe16(second.data() + 2)} * 4;
    if (wire::readBe16(second.data()) != jpegExtension || bytes > second.size() - 4)
        return {};
    return second.subspan(4, bytes);
}

/// Devices whose picture is too large for the field send 0, in the other field as well, or its low eight bits.
std::uint32_t sideOf(std::uint8_t inHeader, std::uint32_t described) noexcept
{
    const std::uint32_t describedUnits = (described + 7) / 8;
    const bool fits = inHeader == 0 || inHeader == (describedUnits & 0xffU);
    return described != 0 && fits ? described : std::uint32_t{inHeader} * 8;
}
}  // namespace

JpegDepacketiser::JpegDepacketiser(const TrackFormat& format, FramePool& pool, AccessUnitSink& accessUnitSink,
                                   const DepacketiserOptions& depacketiserOptions)
    : options(depacketiserOptions),
      sink(accessUnitSink),
      describedSize(format.pictureSize),
      builder(pool, depacketiserOptions.maxFrameBytes),
      expectedSize(firstPictureBytes)
{
    constexpr std::uint32_t longestSide = 0xffff;
    if (describedSize.width > longestSide || describedSize.height > longestSide)
        describedSize = {};
}

void JpegDepacketiser::push(const RtpPacket& packet, bool lostBefore)
{
    if (lostBefore)
        noteLoss();
    if (frame.open && packet.timestamp != frame.timestamp)
        endFrame();
    if (!packet.payload.empty()) {
        if (!frame.open)
            open(packet.timestamp);
        if (const auto fragment = readFragment(packet.payload))
            take(*fragment, packet);
        else
            refuse();
    }
    if (packet.marker && frame.open) {
        markersSeen = true;
        endFrame();
    }
}

void JpegDepacketiser::flush()
{
    if (!frame.open)
        return;
    // Where pictures are marked, the rest of one without may be on its way.
    frame.damaged = frame.damaged || markersSeen;
    endFrame();
}

void JpegDepacketiser::reset()
{
    builder.clear();
    frame = {};
    resynchronising = true;
    lostBeforeNext = false;
    lossToTell = true;
    followsOthers = true;
}

void JpegDepacketiser::noteLoss() noexcept
{
    resynchronising = true;
    lostBeforeNext = true;
    // Packets of this picture came on both sides of the gap, or it is unmarked and its end may be missing.
    frame.damaged = frame.damaged || frame.open;
}

void JpegDepacketiser::open(std::uint32_t timestamp) noexcept
{
    frame.open = true;
    frame.timestamp = timestamp;
    frame.lostBefore = std::exchange(lostBeforeNext, false);
}

/// A packet that breaks the format.
void JpegDepacketiser::refuse() noexcept
{
    ++counters.malformed;
    ++counters.misfits;
    frame.damaged = true;
}

/// Main header (RFC 2435 section 3.1), and in types from 64 on the restart marker header (3.1.7):
///
///     | Type-specific |              Fragment Offset                  |
///     |      Type     |       Q       |     Width     |     Height    |
///     |       Restart Interval        |F|L|       Restart Count       |
std::optional<JpegDepacketiser::Fragment> JpegDepacketiser::readFragment(std::span<const std::uint8_t> payload) noexcept
{
    wire::ByteReader reader(payload);
    Fragment fragment;
    reader.u8();  // which field of interlaced video: each stands for itself here
    fragment.offset = reader.be24();
    Layout& layout = fragment.layout;
    layout.type = reader.u8();
    layout.q = reader.u8();
    layout.width = reader.u8();
    layout.height = reader.u8();
    if ((layout.type & withRestartMarkers) != 0) {
        layout.restartInterval = reader.be16();
        reader.be16();
    }
    fragment.behind = reader.bytes(reader.left());
    const bool knownType = (layout.type & ~withRestartMarkers) <= 1;
    const bool knownQ = layout.q != 0 && (layout.q <= highestScaledQ || layout.q >= firstOwnQ);
    return reader.failed() || !knownType || !knownQ ? std::nullopt : std::optional(fragment);
}

void JpegDepacketiser::take(Fragment fragment, const RtpPacket& packet)
{
    if (fragment.offset == 0) {
        if (frame.scanBytes != 0) {
            endFrame();
            open(packet.timestamp);
        }
        builder.clear();
        frame.begun = false;
        resynchronising = false;
        if (!beginPicture(fragment, packet)) {
            refuse();
            return;
        }
    }
    addData(fragment);
}

bool JpegDepacketiser::beginPicture(Fragment& fragment, const RtpPacket& packet)
{
    const auto segments = jpeg::readSegments(segmentsOf(packet));
    const jpeg::QuantisationTables* const tables = tablesFor(fragment);
    if (!segments || tables == nullptr)
        return false;
    jpeg::Header start;
    start.size = segments->frame.empty() ? sizeOf(fragment.layout) : segments->size;
    if (start.size.width == 0 || start.size.height == 0)
        return false;
    start.halfHeight = (fragment.layout.type & 1U) != 0;
    start.restartInterval = fragment.layout.restartInterval;
    start.tables = tables;
    start.segments = &*segments;
    header.clear();
    if (!jpeg::appendHeader(header, start))
        return false;
    frame.begun = true;
    frame.layout = fragment.layout;
    frame.size = start.size;
    builder.reserve(expectedSize.get());
    append(header);
    return true;
}

/// The tables of a picture; those in its first packet are taken off the front of its data. Null when they are missing
/// or broken.
///
/// Quantization Table header (RFC 2435 section 3.1.8), in the first packet of a picture with Q from 128 on:
///
///     |      MBZ      |   Precision   |             Length            |
const jpeg::QuantisationTables* JpegDepacketiser::tablesFor(Fragment& fragment)
{
    if (fragment.layout.q < firstOwnQ) {
        if (scaledQ != fragment.layout.q)
            scaled = jpeg::tablesOfQuality(fragment.layout.q);
        scaledQ = fragment.layout.q;
        return &scaled;
    }
    wire::ByteReader reader(fragment.behind);
    reader.u8();
    const unsigned precision = reader.u8();
    const std::size_t length = reader.be16();
    const auto bytes = reader.bytes(length);
    if (reader.failed())
        return nullptr;
    fragment.behind = reader.bytes(reader.left());
    if (length == 0)
        return knownTables(fragment.layout.q);
    const auto tables = readTables(bytes, precision);
    if (!tables)
        return nullptr;
    if (fragment.layout.q == changingQ) {
        ownTables = *tables;
        return &ownTables;
    }
    const auto known = std::ranges::find(cache, fragment.layout.q, &KnownTables::q);
    if (known == cache.end())
        return &cache.emplace_back(KnownTables{fragment.layout.q, *tables}).tables;
    known->tables = *tables;
    return &known->tables;
}

const jpeg::QuantisationTables* JpegDepacketiser::knownTables(std::uint8_t q) const noexcept
{
    const auto known = std::ranges::find(cache, q, &KnownTables::q);
    return known == cache.end() ? nullptr : &known->tables;
}

PictureSize JpegDepacketiser::sizeOf(const Layout& layout) const noexcept
{
    return {sideOf(layout.width, describedSize.width), sideOf(layout.height, describedSize.height)};
}

void JpegDepacketiser::addData(const Fragment& fragment)
{
    if (!frame.begun) {
        if (!resynchronising && !frame.damaged)
            ++counters.malformed;
        frame.damaged = true;
        return;
    }
    const bool same = fragment.layout == frame.layout;
    if (!same || fragment.offset != frame.scanBytes) {
        if (!frame.damaged)
            ++counters.malformed;  // no gap in the sequence tells of it, so it is the device's doing
        frame.damaged = true;
    }
    if (!same || fragment.offset < frame.scanBytes)
        return;
    append(fragment.behind);
    frame.scanBytes = fragment.offset + fragment.behind.size();
}

void JpegDepacketiser::append(std::span<const std::uint8_t> bytes)
{
    if (frame.oversized || builder.append(bytes))
        return;
    ++counters.oversizedFrames;
    builder.clear();
    frame.oversized = true;
    frame.damaged = true;
}

void JpegDepacketiser::endFrame()
{
    if (frame.begun && frame.scanBytes == 0)
        frame.damaged = true;
    if (frame.begun &&
        !std::ranges::equal(builder.bytes().last(std::min<std::size_t>(builder.size(), 2)), jpeg::endOfImage))
        append(jpeg::endOfImage);
    if (frame.damaged)
        ++counters.damagedFrames;
    else
        expectedSize.learn(builder.size());
    if (builder.empty() || (frame.damaged && options.lossPolicy == LossPolicy::dropUntilKeyFrame)) {
        ++counters.droppedFrames;
        lossToTell = true;
        builder.clear();
    } else {
        handOut();
    }
    frame = {};
}

void JpegDepacketiser::handOut()
{
    GDRV::MediaFrame out;
    out.codec = GDRV::MediaCodec::mjpeg;
    out.keyFrame = !frame.damaged;
    out.lostPacketsBefore = followsOthers && (lossToTell || frame.lostBefore);
    out.damaged = frame.damaged;
    out.width = frame.size.width;
    out.height = frame.size.height;
    out.data = builder.bytes();
    lossToTell = false;
    followsOthers = true;

    const FrameBuffer* const buffer = builder.take();
    out.buffer = buffer;
    sink.onAccessUnit(out, frame.timestamp);
    buffer->Release();
}
}  // namespace Tavro8::media
