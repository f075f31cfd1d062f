#include "media/AacDepacketiser.h"

#include "wire/Bytes.h"
#include "wire/Text.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace Tavro8::media
{
namespace
{
constexpr std::uint32_t widestField = 32;

std::uint32_t numberOf(const TrackFormat& format, std::string_view name, std::uint32_t missing = 0) noexcept
{
    std::string_view text = wire::trim(formatParameter(format, name));
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
        text = text.substr(1, text.size() - 2);
    return wire::parseNumber<std::uint32_t>(text).value_or(missing);
}

std::vector<std::uint8_t> configOf(const TrackFormat& format)
{
    if (!format.parameterSets.empty() && readAacConfig(format.parameterSets.front()))
        return format.parameterSets.front();
    return makeAacConfig(clockRateOf(format), std::max(format.channelCount, 1U));
}
}  // namespace

AacPacking readAacPacking(const TrackFormat& format)
{
    AacPacking packing;
    const std::string_view mode = wire::trim(formatParameter(format, "mode"));
    const bool highRate = wire::equalsNoCase(mode, "AAC-hbr");
    const bool lowRate = wire::equalsNoCase(mode, "AAC-lbr");
    // What each mode prescribes, for devices that only name it (RFC 3640 sections 3.3.5 and 3.3.6).
    const std::uint32_t usualSize = highRate ? 13 : (lowRate ? 6 : 0);
    const std::uint32_t usualIndex = highRate ? 3 : (lowRate ? 2 : 0);
    packing.constantSize = numberOf(format, "constantsize");
    packing.sizeLength = numberOf(format, "sizelength", packing.constantSize == 0 ? usualSize : 0);
    packing.indexLength = numberOf(format, "indexlength", usualIndex);
    packing.indexDeltaLength = numberOf(format, "indexdeltalength", usualIndex);
    packing.ctsDeltaLength = numberOf(format, "ctsdeltalength");
    packing.dtsDeltaLength = numberOf(format, "dtsdeltalength");
    packing.streamStateLength = numberOf(format, "streamstateindication");
    packing.auxiliarySizeLength = numberOf(format, "auxiliarydatasizelength");
    packing.randomAccessFlag = numberOf(format, "randomaccessindication") != 0;
    const auto widest =
        std::max({packing.sizeLength, packing.indexLength, packing.indexDeltaLength, packing.ctsDeltaLength,
                  packing.dtsDeltaLength, packing.streamStateLength, packing.auxiliarySizeLength});
    if (!mode.empty() && !highRate && !lowRate && !wire::equalsNoCase(mode, "generic"))
        packing.refusal = "the mode of the mpeg4-generic track is not one of AAC";
    else if (widest > widestField)
        packing.refusal = "the AAC track describes header fields of more than 32 bits";
    else if (numberOf(format, "maxdisplacement") != 0)
        packing.refusal = "AAC in interleaved packets (maxDisplacement) is not supported";
    else if (configOf(format).empty())
        packing.refusal = "the AAC track names neither a configuration nor a usable rate and number of channels";
    return packing;
}

AacDepacketiser::AacDepacketiser(const TrackFormat& format, FramePool& pool, AccessUnitSink& accessUnitSink,
                                 const DepacketiserOptions& depacketiserOptions)
    : packing(readAacPacking(format)),
      config(configOf(format)),
      decoded(readAacConfig(config).value_or(AacConfig{})),
      ticksPerUnit(static_cast<std::uint32_t>(std::uint64_t{decoded.samplesPerUnit} * clockRateOf(format) /
                                              std::max(decoded.sampleRate, 1U))),
      maxUnitBytes(depacketiserOptions.maxFrameBytes),
      sink(accessUnitSink),
      builder(pool, depacketiserOptions.maxFrameBytes + config.size())
{}

void AacDepacketiser::push(const RtpPacket& packet, bool lostBefore)
{
    if (lostBefore) {
        breakOff();
        lossToTell = true;
    }
    if (started && packet.timestamp != timestamp) {
        flush();
        startUncertain = false;
    }
    startUncertain = startUncertain || lostBefore;
    started = true;
    timestamp = packet.timestamp;
    if (!packet.payload.empty())
        takePacket(packet);
}

void AacDepacketiser::flush()
{
    if (!builder.empty() && unitBytes == 0)
        handOut(timestamp);
    breakOff();
}

void AacDepacketiser::reset()
{
    builder.clear();
    started = false;
    startUncertain = true;
    lossToTell = true;
    followsOthers = true;
}

/// The rest of the access unit in progress does not come.
void AacDepacketiser::breakOff() noexcept
{
    if (builder.empty())
        return;
    ++counters.damagedFrames;
    ++counters.droppedFrames;
    builder.clear();
    lossToTell = true;
}

/// A packet that breaks the format.
void AacDepacketiser::refuse() noexcept
{
    breakOff();
    ++counters.malformed;
    ++counters.misfits;
    lossToTell = true;
}

/// A packet has three sections (RFC 3640 section 3.2), the first two of whole bytes, and absent when nothing is in
/// them:
///
///     | AU-headers-length (16 bits) | AU-header ... | padding |
///     | auxiliary-data-size | auxiliary data | padding |
///     | access units, or one fragment |
void AacDepacketiser::takePacket(const RtpPacket& packet)
{
    auto rest = packet.payload;
    std::span<const std::uint8_t> headers;
    std::size_t headerBits = 0;
    if (packing.hasHeaders()) {
        wire::ByteReader reader(rest);
        headerBits = reader.be16();
        headers = reader.bytes((headerBits + 7) / 8);
        if (reader.failed() || headerBits == 0)
            return refuse();
        rest = reader.bytes(reader.left());
    }
    if (packing.auxiliarySizeLength != 0) {
        BitReader auxiliary(rest, BitReader::Bytes::plain);
        const std::uint64_t bits =
            auxiliary.bits(packing.auxiliarySizeLength) + std::uint64_t{packing.auxiliarySizeLength};
        if (auxiliary.failed() || (bits + 7) / 8 > rest.size())
            return refuse();
        rest = rest.subspan(static_cast<std::size_t>((bits + 7) / 8));
    }
    if (packing.sizeLength != 0)
        takeUnits(headers, headerBits, rest);
    else if (packing.constantSize != 0)
        takeUnitsOfConstantSize(rest);
    else
        takeUnsized(rest, packet.marker);
}

/// An AU-header (RFC 3640 section 3.2.1.1); a field is there when its width was described, the deltas also behind a
/// flag of one bit, which says so.
///
///     | AU-size | AU-Index / AU-Index-delta | CTS-flag | CTS-delta | DTS-flag | DTS-delta | RAP-flag | Stream-state |
void AacDepacketiser::takeUnits(std::span<const std::uint8_t> headers, std::size_t headerBits,
                                std::span<const std::uint8_t> data)
{
    BitReader reader(headers, BitReader::Bytes::plain);
    const std::size_t paddingBits = headers.size() * 8 - headerBits;
    for (std::uint32_t number = 0; reader.left() > paddingBits; ++number) {
        const std::size_t size = reader.bits(packing.sizeLength);
        // Units come in order when no displacement was described, so that their indexes tell nothing.
        reader.skip(number == 0 ? packing.indexLength : packing.indexDeltaLength);
        for (const std::uint32_t width : {packing.ctsDeltaLength, packing.dtsDeltaLength}) {
            if (width != 0 && reader.flag())
                reader.skip(width);
        }
        reader.skip(packing.randomAccessFlag ? 1 : 0);
        reader.skip(packing.streamStateLength);
        if (reader.failed() || reader.left() < paddingBits || (size > data.size() && number != 0) ||
            number == maxUnitsPerPacket)
            return refuse();
        if (size > data.size())
            return takeFragment(size, data);
        if (size != 0)
            takeUnit(data.first(size), number);
        data = data.subspan(size);
    }
    if (!data.empty())
        ++counters.malformed;
}

void AacDepacketiser::takeUnitsOfConstantSize(std::span<const std::uint8_t> data)
{
    const std::size_t size = packing.constantSize;
    if (data.size() < size)
        return takeFragment(size, data);
    if (data.size() / size > maxUnitsPerPacket)
        return refuse();
    for (std::uint32_t number = 0; data.size() >= size; ++number) {
        takeUnit(data.first(size), number);
        data = data.subspan(size);
    }
    if (!data.empty())
        ++counters.malformed;
}

/// Nothing tells the size: a packet is an access unit, or a fragment of one that the marker ends.
void AacDepacketiser::takeUnsized(std::span<const std::uint8_t> data, bool marker)
{
    if (startUncertain) {
        startUncertain = !marker;
        return;
    }
    unitBytes = 0;
    if (data.size() > maxUnitBytes - builder.size() || !builder.append(data)) {
        ++counters.oversizedFrames;
        return refuse();
    }
    if (marker && !builder.empty())
        handOut(timestamp);
}

/// A whole access unit, the `number`th of its packet.
void AacDepacketiser::takeUnit(std::span<const std::uint8_t> unit, std::uint32_t number)
{
    breakOff();
    builder.reserve(unit.size() + config.size());
    if (unit.size() <= maxUnitBytes && builder.append(unit)) {
        handOut(timestamp + number * ticksPerUnit);
    } else {
        ++counters.oversizedFrames;
        ++counters.droppedFrames;
        lossToTell = true;
    }
}

/// Every fragment states the size of the whole access unit.
void AacDepacketiser::takeFragment(std::size_t bytes, std::span<const std::uint8_t> data)
{
    if (bytes > maxUnitBytes) {
        ++counters.oversizedFrames;
        return refuse();
    }
    if (builder.empty()) {
        unitBytes = bytes;
        builder.reserve(bytes + config.size());
    }
    if (bytes != unitBytes || data.size() > unitBytes - builder.size() || !builder.append(data))
        return refuse();
    if (builder.size() == unitBytes)
        handOut(timestamp);
}

/// Hands out what the builder holds, and behind it, the first time, the configuration.
void AacDepacketiser::handOut(std::uint32_t unitTimestamp)
{
    const std::size_t bytes = builder.size();
    const bool tells = !configTold && builder.append(config);
    configTold = configTold || tells;

    GDRV::MediaFrame frame;
    frame.codec = GDRV::MediaCodec::aac;
    frame.keyFrame = true;
    frame.lostPacketsBefore = std::exchange(lossToTell, false) && followsOthers;
    frame.sampleRate = decoded.sampleRate;
    frame.channelCount = decoded.channelCount;
    frame.sampleCount = decoded.samplesPerUnit;
    frame.durationMs =
        static_cast<std::uint32_t>((std::uint64_t{frame.sampleCount} * 1000 + frame.sampleRate / 2) / frame.sampleRate);
    frame.data = builder.bytes().first(bytes);
    if (tells)
        frame.parameterSets = builder.bytes().subspan(bytes);
    followsOthers = true;

    const FrameBuffer* const buffer = builder.take();
    frame.buffer = buffer;
    sink.onAccessUnit(frame, unitTimestamp);
    buffer->Release();
}
}  // namespace Tavro8::media
