#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

/// What all fuzz targets share. A target is one function that feeds a core with an input and `require`s what the
/// core promises; the same function runs under libFuzzer and in the test that replays the corpora.
namespace Tavro8::fuzz
{
using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// A broken promise: prints `promise` and aborts, which libFuzzer and the test runner both take for a failure, also
/// out of a callback of the core.
void require(bool holds, const char* promise);

/// Registers a target when the program starts; one object for each, at namespace scope.
class Target {
public:
    using Feed = void (*)(ByteView input);

    Target(const char* targetName, Feed feedInput);

    const char* name;
    Feed feed;
};
/// All that the program holds: one under libFuzzer.
const std::vector<const Target*>& targets();

inline std::string_view textOf(ByteView bytes) noexcept
{
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// Whether `secret` is in the text, also with control characters between its letters, which a core may leave out.
/// Such an input proves nothing about what the core keeps to itself.
bool gives(ByteView text, std::string_view secret);

/// Takes an input apart from its front. Behind the end everything is 0 or empty, so that each input has a meaning.
/// Bytes are copies of exact size, so that the sanitiser sees a read beyond their end.
class Script {
public:
    explicit Script(ByteView input) noexcept : rest(input) {}

    bool atEnd() const noexcept { return rest.empty(); }

    std::uint8_t u8() noexcept
    {
        if (rest.empty())
            return 0;
        const std::uint8_t value = rest.front();
        rest = rest.subspan(1);
        return value;
    }
    std::uint16_t u16() noexcept
    {
        const unsigned high = u8();
        return static_cast<std::uint16_t>(high << 8 | u8());
    }
    std::uint32_t u32() noexcept
    {
        const std::uint32_t high = u16();
        return high << 16 | u16();
    }
    std::uint64_t u64() noexcept
    {
        const std::uint64_t high = u32();
        return high << 32 | u32();
    }

    /// `count` bytes, or as many as are left.
    Bytes bytes(std::size_t count)
    {
        const ByteView taken = rest.first(count < rest.size() ? count : rest.size());
        rest = rest.subspan(taken.size());
        return {taken.begin(), taken.end()};
    }
    /// Bytes behind a length of 16 bits.
    Bytes block() { return bytes(u16()); }
    Bytes remaining() { return bytes(rest.size()); }

private:
    ByteView rest;
};

/// Where to cut the bytes of a stream: small numbers that follow from `seed` alone.
class CutPoints {
public:
    explicit CutPoints(std::uint32_t seed) noexcept : state(seed | 1U) {}

    /// From 1 to `most`.
    std::size_t next(std::size_t most) noexcept
    {
        state = state * 1664525U + 1013904223U;
        return 1 + (state >> 8) % most;
    }

private:
    std::uint32_t state;
};
}  // namespace Tavro8::fuzz
