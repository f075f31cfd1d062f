#pragma once

#include "media/PictureSize.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// What of JPEG files (ITU-T T.81) has to be known to put one together from a scan and a few numbers.
namespace Tavro8::media::jpeg
{
inline constexpr std::array<std::uint8_t, 2> endOfImage{0xff, 0xd9};

/// One or two quantisation tables as a DQT segment holds them, in zigzag order: 64 values of one byte each, or of two.
/// The first is that of luma, the last that of chroma.
struct QuantisationTables {
    static constexpr std::size_t values = 64;
    struct Table {
        bool wide = false;  ///< two bytes a value
        std::array<std::uint8_t, 2 * values> bytes{};
        std::span<const std::uint8_t> used() const noexcept
        {
            return std::span(bytes).first(wide ? 2 * values : values);
        }
        bool operator==(const Table&) const = default;
    };
    std::array<Table, 2> tables;
    std::size_t count = 0;
    bool operator==(const QuantisationTables&) const = default;
};

/// The tables of the quality `q`, 1 (worst) to 99, as RFC 2435 appendix A scales them.
QuantisationTables tablesOfQuality(unsigned q) noexcept;

/// Marker segments that replace or add to what would be written otherwise.
struct Segments {
    std::span<const std::uint8_t> all;    ///< from the marker of the first to the end of the last, maybe with fill
    std::span<const std::uint8_t> frame;  ///< the SOF0 or SOF1 segment among them, with its marker; may be empty
    PictureSize size;                     ///< of that
    unsigned tableIds = 0;                ///< a bit for each quantisation table among them
    std::uint16_t restartInterval = 0;    ///< in MCUs, 0: none
};

/// Reads marker segments up to the end or to what is none. Nothing when one of them is broken, or describes something
/// else than a sequential Huffman coded picture of 8 bits a sample.
std::optional<Segments> readSegments(std::span<const std::uint8_t> bytes) noexcept;

struct Header {
    PictureSize size;                   ///< at most 65535 each; not used when the segments have a frame
    bool halfHeight = false;            ///< chroma has half the lines (4:2:0), else all of them (4:2:2)
    std::uint16_t restartInterval = 0;  ///< in MCUs, 0: none, or as the segments say
    const QuantisationTables* tables = nullptr;
    const Segments* segments = nullptr;  ///< may be null
};

/// Appends everything from SOI to SOS, with the Huffman tables of T.81 annex K. False, with `to` unspecified, when the
/// segments name a quantisation table that nobody has given.
bool appendHeader(std::vector<std::uint8_t>& to, const Header& header);
}  // namespace Tavro8::media::jpeg
