#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

/// Big-endian integers of the network, read and written without laying structs over bytes.
namespace Tavro8::wire
{
using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// The `readBe` functions read from `at` on; the caller has checked that the bytes are there.
constexpr std::uint16_t readBe16(const std::uint8_t* at) noexcept
{
    return static_cast<std::uint16_t>((at[0] << 8) | at[1]);
}

constexpr std::uint32_t readBe24(const std::uint8_t* at) noexcept
{
    return (std::uint32_t{at[0]} << 16) | (std::uint32_t{at[1]} << 8) | at[2];
}

constexpr std::uint32_t readBe32(const std::uint8_t* at) noexcept
{
    return (std::uint32_t{at[0]} << 24) | readBe24(at + 1);
}

constexpr std::uint64_t readBe64(const std::uint8_t* at) noexcept
{
    return (std::uint64_t{readBe32(at)} << 32) | readBe32(at + 4);
}

inline void appendByte(Bytes& to, std::uint8_t value)
{
    to.push_back(value);
}

inline void appendBe16(Bytes& to, std::uint16_t value)
{
    to.push_back(static_cast<std::uint8_t>(value >> 8));
    to.push_back(static_cast<std::uint8_t>(value));
}

/// Writes the low 24 bits of `value`.
inline void appendBe24(Bytes& to, std::uint32_t value)
{
    to.push_back(static_cast<std::uint8_t>(value >> 16));
    appendBe16(to, static_cast<std::uint16_t>(value));
}

inline void appendBe32(Bytes& to, std::uint32_t value)
{
    appendBe16(to, static_cast<std::uint16_t>(value >> 16));
    appendBe16(to, static_cast<std::uint16_t>(value));
}

inline void appendBe64(Bytes& to, std::uint64_t value)
{
    appendBe32(to, static_cast<std::uint32_t>(value >> 32));
    appendBe32(to, static_cast<std::uint32_t>(value));
}

/// The same bytes seen as text; lives as long as the bytes do.
inline std::string_view asText(ByteView bytes) noexcept
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// The same text seen as bytes; lives as long as the text does.
inline ByteView asBytes(std::string_view text) noexcept
{
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

/// Reads integers off the front of some bytes. A read beyond the end gives 0 and makes `failed()` true
/// for good, so that a parser can read a whole structure and judge once.
class ByteReader {
public:
    explicit ByteReader(ByteView bytes) noexcept : rest(bytes) {}

    std::uint8_t u8() noexcept
    {
        const std::uint8_t* at = take(1);
        return at == nullptr ? std::uint8_t{0} : *at;
    }
    std::uint16_t be16() noexcept
    {
        const std::uint8_t* at = take(2);
        return at == nullptr ? std::uint16_t{0} : readBe16(at);
    }
    std::uint32_t be24() noexcept
    {
        const std::uint8_t* at = take(3);
        return at == nullptr ? 0U : readBe24(at);
    }
    std::uint32_t be32() noexcept
    {
        const std::uint8_t* at = take(4);
        return at == nullptr ? 0U : readBe32(at);
    }
    std::uint64_t be64() noexcept
    {
        const std::uint8_t* at = take(8);
        return at == nullptr ? 0U : readBe64(at);
    }
    /// The next `count` bytes, or none of them when fewer are left.
    ByteView bytes(std::size_t count) noexcept
    {
        const std::uint8_t* at = take(count);
        return at == nullptr ? ByteView{} : ByteView{at, count};
    }

    std::size_t left() const noexcept { return rest.size(); }
    bool failed() const noexcept { return overrun; }

private:
    const std::uint8_t* take(std::size_t count) noexcept
    {
        if (overrun || count > rest.size()) {
            overrun = true;
            return nullptr;
        }
        const std::uint8_t* at = rest.data();
        rest = rest.subspan(count);
        return at;
    }

    ByteView rest;
    bool overrun = false;
};
}  // namespace Tavro8::wire
