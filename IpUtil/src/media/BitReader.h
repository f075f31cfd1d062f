#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace Tavro8::media
{
/// Reads bits, the highest of each byte first. Reading beyond the end gives zeros and makes `failed()` true for good.
class BitReader {
public:
    enum class Bytes : std::uint8_t {
        ofNalUnit,  ///< steps over emulation prevention bytes (the 3 of 00 00 03; ITU-T H.264 and H.265 section 7.4)
        plain,
    };

    explicit BitReader(std::span<const std::uint8_t> bytesToRead, Bytes kind = Bytes::ofNalUnit) noexcept
        : bytes(bytesToRead), stepsOver(kind == Bytes::ofNalUnit)
    {}

    bool failed() const noexcept { return overrun; }

    /// Bits that can still be read; emulation prevention bytes among them count.
    std::size_t left() const noexcept { return (bytes.size() - position) * 8 + bitsLeft; }

    std::uint32_t bit() noexcept
    {
        if (bitsLeft == 0 && !nextByte())
            return 0;
        --bitsLeft;
        return (current >> bitsLeft) & 1U;
    }
    bool flag() noexcept { return bit() != 0; }

    /// Up to 32 bits, the first one highest.
    std::uint32_t bits(unsigned count) noexcept
    {
        std::uint32_t value = 0;
        for (; count > 0; --count)
            value = (value << 1) | bit();
        return value;
    }

    void skip(unsigned count) noexcept
    {
        for (; count > 0 && !overrun; --count)
            bit();
    }

    /// ue(v): unsigned Exp-Golomb.
    std::uint32_t unsignedGolomb() noexcept
    {
        unsigned zeros = 0;
        while (!overrun && bit() == 0)
            ++zeros;
        if (zeros > 31 || overrun) {
            overrun = true;
            return 0;
        }
        return (std::uint32_t{1} << zeros) - 1 + bits(zeros);
    }

    /// se(v): signed Exp-Golomb.
    std::int32_t signedGolomb() noexcept
    {
        const std::uint32_t code = unsignedGolomb();
        const auto half = static_cast<std::int32_t>(code / 2);
        return (code & 1U) != 0 ? half + 1 : -half;
    }

private:
    bool nextByte() noexcept
    {
        if (stepsOver && position < bytes.size() && zeroBytes >= 2 && bytes[position] == 3) {
            ++position;
            zeroBytes = 0;
        }
        if (position >= bytes.size()) {
            overrun = true;
            return false;
        }
        current = bytes[position++];
        zeroBytes = current == 0 ? zeroBytes + 1 : 0;
        bitsLeft = 8;
        return true;
    }

    std::span<const std::uint8_t> bytes;
    bool stepsOver;
    std::size_t position = 0;
    unsigned zeroBytes = 0;
    unsigned current = 0;
    unsigned bitsLeft = 0;
    bool overrun = false;
};
}  // namespace Tavro8::media
