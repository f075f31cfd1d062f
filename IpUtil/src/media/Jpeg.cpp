#include "media/Jpeg.h"

#include "wire/Bytes.h"

#include <algorithm>

namespace Tavro8::media::jpeg
{
namespace
{
using wire::appendBe16;
using wire::readBe16;

enum Marker : std::uint8_t {
    sof0 = 0xc0,
    sof1 = 0xc1,
    dht = 0xc4,
    soi = 0xd8,
    sos = 0xda,
    dqt = 0xdb,
    dri = 0xdd,
    app0 = 0xe0,
};

constexpr std::size_t maxComponents = 4;
constexpr std::size_t sofBytes = 8;  // length to component count; three more for each component

// T.81 tables K.1 and K.2 in zigzag order.
constexpr std::array<std::uint8_t, QuantisationTables::values> lumaTable{
    16, 11,  12, 14, 12, 10, 16,  14,  13,  14, 18, 17,  16,  19,  24,  40,  26, 24,  22,  22, 24, 49,
    35, 37,  29, 40, 58, 51, 61,  60,  57,  51, 56, 55,  64,  72,  92,  78,  64, 68,  87,  69, 55, 56,
    80, 109, 81, 87, 95, 98, 103, 104, 103, 62, 77, 113, 121, 112, 100, 120, 92, 101, 103, 99};
constexpr std::array<std::uint8_t, QuantisationTables::values> chromaTable{
    17, 18, 18, 24, 21, 24, 47, 26, 26, 47, 99, 66, 56, 66, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

// T.81 tables K.3 to K.6: how many codes there are of each length from 1 to 16, then their values.
constexpr std::array<std::uint8_t, 28> lumaDc{0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0,  0,
                                              0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr std::array<std::uint8_t, 28> chromaDc{0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0,  0,
                                                0, 0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr std::array<std::uint8_t, 178> lumaAc{
    0x00, 0x02, 0x01, 0x03, 0x03, 0x02, 0x04, 0x03, 0x05, 0x05, 0x04, 0x04, 0x00, 0x00, 0x01, 0x7d, 0x01, 0x02,
    0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07, 0x22, 0x71, 0x14, 0x32,
    0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52, 0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72, 0x82, 0x09,
    0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39,
    0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a, 0x63,
    0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83, 0x84, 0x85,
    0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3, 0xa4, 0xa5,
    0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3, 0xc4, 0xc5,
    0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2, 0xe3, 0xe4,
    0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};
constexpr std::array<std::uint8_t, 178> chromaAc{
    0x00, 0x02, 0x01, 0x02, 0x04, 0x04, 0x03, 0x04, 0x07, 0x05, 0x04, 0x04, 0x00, 0x01, 0x02, 0x77, 0x00, 0x01,
    0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71, 0x13, 0x22, 0x32, 0x81,
    0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33, 0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1, 0x0a, 0x16,
    0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18, 0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36, 0x37, 0x38,
    0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5a,
    0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x82, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3,
    0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3,
    0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe2, 0xe3,
    0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

void appendMarker(std::vector<std::uint8_t>& to, Marker marker)
{
    to.push_back(0xff);
    to.push_back(marker);
}

void append(std::vector<std::uint8_t>& to, std::span<const std::uint8_t> bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
}

/// `lengthAndBody` begins with the 16-bit length of the segment.
struct Segment {
    std::uint8_t marker = 0;
    std::span<const std::uint8_t> lengthAndBody;
    std::span<const std::uint8_t> withMarker;
    std::span<const std::uint8_t> body() const noexcept { return lengthAndBody.subspan(2); }
};

/// Takes the next segment off the front; nothing where none follows: at the end, and at whatever a device fills up the
/// last word with.
std::optional<Segment> takeSegment(std::span<const std::uint8_t>& rest) noexcept
{
    while (rest.size() > 1 && rest[0] == 0xff && (rest[1] == 0xff || rest[1] == soi))  // fill; a repeated SOI
        rest = rest.subspan(rest[1] == soi ? 2 : 1);
    if (rest.size() < 4 || rest[0] != 0xff)
        return std::nullopt;
    const std::size_t length = readBe16(rest.data() + 2);
    if (length < 2 || length > rest.size() - 2)
        return std::nullopt;
    Segment segment{rest[1], rest.subspan(2, length), rest.first(2 + length)};
    rest = rest.subspan(2 + length);
    return segment;
}

/// One bit for each table of a DQT segment, or nothing when it is broken.
std::optional<unsigned> tableIdsOf(std::span<const std::uint8_t> body) noexcept
{
    unsigned ids = 0;
    while (!body.empty()) {
        const unsigned precision = body[0] >> 4U;
        const unsigned id = body[0] & 0x0fU;
        const std::size_t bytes = 1 + QuantisationTables::values * (precision + 1);
        if (precision > 1 || id > 3 || body.size() < bytes)
            return std::nullopt;
        ids |= 1U << id;
        body = body.subspan(bytes);
    }
    return ids;
}

bool readFrame(const Segment& segment, Segments& result) noexcept
{
    const auto bytes = segment.lengthAndBody;
    if (bytes.size() < sofBytes || !result.frame.empty())
        return false;
    const std::size_t components = bytes[7];
    result.size = {readBe16(bytes.data() + 5), readBe16(bytes.data() + 3)};
    result.frame = segment.withMarker;
    for (std::size_t at = sofBytes + 1; at < bytes.size(); at += 3) {
        const unsigned across = bytes[at] >> 4U;
        const unsigned down = bytes[at] & 0x0fU;
        if (across == 0 || across > 4 || down == 0 || down > 4)
            return false;
    }
    return bytes[2] == 8 && result.size.width != 0 && result.size.height != 0 && components >= 1 &&
           components <= maxComponents && bytes.size() == sofBytes + 3 * components;
}

bool read(const Segment& segment, Segments& result) noexcept
{
    switch (segment.marker) {
    case sof0:
    case sof1:
        return readFrame(segment, result);
    case dqt: {
        const auto ids = tableIdsOf(segment.body());
        result.tableIds |= ids.value_or(0);
        return ids.has_value();
    }
    case dri:
        if (segment.body().size() != 2)
            return false;
        result.restartInterval = readBe16(segment.body().data());
        return true;
    default:  // other codings (SOF2 and up), arithmetic coding, and markers that have no place in front of a scan
        return segment.marker == dht || segment.marker >= app0;
    }
}

/// The components of a SOF segment with its marker, three bytes each: id, sampling, quantisation table.
std::span<const std::uint8_t> componentsOf(std::span<const std::uint8_t> frame) noexcept
{
    return frame.subspan(2 + sofBytes);
}

void appendQuantisation(std::vector<std::uint8_t>& to, const QuantisationTables& tables)
{
    for (std::size_t i = 0; i < tables.count; ++i) {
        const auto bytes = tables.tables[i].used();
        appendMarker(to, dqt);
        appendBe16(to, static_cast<std::uint16_t>(3 + bytes.size()));
        to.push_back(static_cast<std::uint8_t>((tables.tables[i].wide ? 0x10U : 0U) | i));
        append(to, bytes);
    }
}

void appendHuffman(std::vector<std::uint8_t>& to)
{
    const struct {
        std::uint8_t classAndId;
        std::span<const std::uint8_t> table;
    } tables[] = {{0x00, lumaDc}, {0x10, lumaAc}, {0x01, chromaDc}, {0x11, chromaAc}};
    std::size_t length = 2;
    for (const auto& [classAndId, table] : tables)
        length += 1 + table.size();
    appendMarker(to, dht);
    appendBe16(to, static_cast<std::uint16_t>(length));
    for (const auto& [classAndId, table] : tables) {
        to.push_back(classAndId);
        append(to, table);
    }
}

void appendFrame(std::vector<std::uint8_t>& to, const Header& header)
{
    const auto& tables = *header.tables;
    const bool wide = std::ranges::any_of(tables.tables, [](const auto& table) { return table.wide; });
    const auto chroma = static_cast<std::uint8_t>(tables.count - 1);
    appendMarker(to, wide ? sof1 : sof0);  // wide tables have no place in the baseline
    appendBe16(to, sofBytes + 3 * 3);
    to.push_back(8);
    appendBe16(to, static_cast<std::uint16_t>(header.size.height));
    appendBe16(to, static_cast<std::uint16_t>(header.size.width));
    to.push_back(3);
    const std::uint8_t components[] = {
        1, static_cast<std::uint8_t>(header.halfHeight ? 0x22 : 0x21), 0, 2, 0x11, chroma, 3, 0x11, chroma};
    append(to, components);
}

void appendScan(std::vector<std::uint8_t>& to, std::span<const std::uint8_t> components)
{
    const std::size_t count = components.size() / 3;
    appendMarker(to, sos);
    appendBe16(to, static_cast<std::uint16_t>(6 + 2 * count));
    to.push_back(static_cast<std::uint8_t>(count));
    for (std::size_t i = 0; i < count; ++i) {
        to.push_back(components[3 * i]);
        to.push_back(i == 0 ? 0x00 : 0x11);  // Huffman tables of luma and of chroma
    }
    constexpr std::uint8_t wholeSpectrum[] = {0, 63, 0};
    append(to, wholeSpectrum);
}

/// The extra tables stand behind the usual ones, which they thereby replace.
void appendTables(std::vector<std::uint8_t>& to, std::span<const std::uint8_t> segments)
{
    while (const auto segment = takeSegment(segments)) {
        if (segment->marker == dqt || segment->marker == dht)
            append(to, segment->withMarker);
    }
}
}  // namespace

QuantisationTables tablesOfQuality(unsigned q) noexcept
{
    const unsigned factor = q < 50 ? 5000 / std::max(q, 1U) : 200 - 2 * std::min(q, 99U);
    QuantisationTables result;
    result.count = 2;
    const std::span<const std::uint8_t> bases[] = {lumaTable, chromaTable};
    for (std::size_t i = 0; i < 2; ++i) {
        std::ranges::transform(bases[i], result.tables[i].bytes.begin(), [factor](unsigned value) {
            return static_cast<std::uint8_t>(std::clamp((value * factor + 50) / 100, 1U, 255U));
        });
    }
    return result;
}

std::optional<Segments> readSegments(std::span<const std::uint8_t> bytes) noexcept
{
    Segments result;
    result.all = bytes;
    while (const auto segment = takeSegment(bytes)) {
        if (!read(*segment, result))
            return std::nullopt;
    }
    return result;
}

bool appendHeader(std::vector<std::uint8_t>& to, const Header& header)
{
    constexpr std::uint8_t jfif[] = {0, 16, 'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0};
    appendMarker(to, soi);
    appendMarker(to, app0);
    append(to, jfif);
    appendQuantisation(to, *header.tables);
    appendHuffman(to);
    const Segments* const extra = header.segments;
    if (extra != nullptr)
        appendTables(to, extra->all);

    std::uint16_t restart = header.restartInterval;
    if (restart == 0 && extra != nullptr)
        restart = extra->restartInterval;
    if (restart != 0) {
        appendMarker(to, dri);
        appendBe16(to, 4);
        appendBe16(to, restart);
    }

    const std::size_t frameAt = to.size();
    if (extra != nullptr && !extra->frame.empty())
        append(to, extra->frame);
    else
        appendFrame(to, header);
    const unsigned given = (extra == nullptr ? 0U : extra->tableIds) | ((1U << header.tables->count) - 1);
    std::array<std::uint8_t, 3 * maxComponents> components{};
    const auto written = componentsOf(std::span(to).subspan(frameAt));
    std::ranges::copy(written, components.begin());
    for (std::size_t at = 2; at < written.size(); at += 3) {
        if (components[at] > 3 || (given >> components[at] & 1U) == 0)
            return false;
    }
    appendScan(to, std::span(components).first(written.size()));
    return true;
}
}  // namespace Tavro8::media::jpeg
