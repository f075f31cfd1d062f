#pragma once

#include <IpUtil/Export.h>
#include <cstddef>
#include <cstdint>
#include <span>
#include <tuple>
#include <utility>
#include <vector>

// The way of sound from the host's samples to the packets that a device takes: filters, one behind the other. A filter
// takes what comes with `process` and gives what it has made with `consume`, piece by piece, until a piece is empty;
// the last one only takes. What `consume` gives is the filter's memory and stays until its next `process` or `consume`.
namespace Tavro8::Utility
{
/// A point on a clock that counts `ticks` of `frequency` a second.
struct TimeStamp {
    std::uint64_t ticks = 0;
    std::uint32_t frequency = 0;

    /// The same point in ticks of another frequency, rounded down; 0 when the clock has no frequency.
    constexpr std::uint64_t toFrequency(std::uint32_t wanted) const noexcept
    {
        if (frequency == 0)
            return 0;
        // In two parts, so that a clock that has run for long does not overflow.
        return ticks / frequency * wanted + ticks % frequency * wanted / frequency;
    }
};

/// Time stamps of sound, counted by its samples.
class IPUTIL_API PCMTimeStampGenerator {
public:
    /// `clock` is the frequency of the time stamps, `rate` how many samples a second the sound has.
    PCMTimeStampGenerator(std::uint32_t clock, std::uint32_t rate) noexcept : clock(clock), rate(rate) {}

    /// The time of the next sample; goes on by `samples`.
    TimeStamp inc(std::size_t samples) noexcept;

private:
    std::uint32_t clock;
    std::uint32_t rate;
    std::uint64_t passed = 0;  // samples
};

/// The two laws of ITU-T G.711.
enum class G711Law : std::uint8_t { uLaw, aLaw };

/// Converts 16-bit samples to G.711.
class IPUTIL_API G711EncodingFilter {
public:
    void setLaw(G711Law wanted) noexcept { law = wanted; }

    void process(std::span<const std::int16_t> samples);
    std::span<const std::uint8_t> consume() noexcept;

private:
    G711Law law = G711Law::uLaw;
    std::vector<std::uint8_t> codes;
    bool taken = true;
};

/// Cuts a stream of sound into packets of one size. What does not fill a packet waits for the rest.
class IPUTIL_API PcmPacketizingFilter {
public:
    /// In bytes; 0 passes each piece on as it came. What waits is cut to the new size.
    void setPacketSize(std::size_t bytes) noexcept { packetSize = bytes; }

    void process(std::span<const std::uint8_t> sound);
    std::span<const std::uint8_t> consume() noexcept;

private:
    std::size_t packetSize = 0;
    std::vector<std::uint8_t> waiting;
    std::size_t given = 0;  // bytes at the front of `waiting`
};

/// Filters one behind the other. Whatever a filter throws reaches who called `process`.
template <typename... Filters>
class StreamFilterList {
public:
    explicit StreamFilterList(Filters... filters) : filters(std::move(filters)...) {}

    /// Sends a piece through all of them.
    template <typename Piece>
    void process(const Piece& piece)
    {
        passOn<0>(piece);
    }

    template <typename Filter>
    Filter& get() noexcept
    {
        return std::get<Filter>(filters);
    }

private:
    template <std::size_t at, typename Piece>
    void passOn(const Piece& piece)
    {
        auto& filter = std::get<at>(filters);
        filter.process(piece);
        if constexpr (at + 1 < sizeof...(Filters)) {
            for (auto made = filter.consume(); !made.empty(); made = filter.consume())
                passOn<at + 1>(made);
        }
    }

    std::tuple<Filters...> filters;
};
}  // namespace Tavro8::Utility
