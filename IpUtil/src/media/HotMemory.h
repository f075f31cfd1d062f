#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#if defined(_MSC_VER)
#include <xmmintrin.h>
#endif

namespace Tavro8::media
{
/// Where lies what the next packets of a stream need. With many streams it has left the caches when they come: asked
/// for all at once, before the system copies them, it is there when it is used; used line by line, each line is waited
/// for. The places are hints: nothing happens where nothing is any more.
class HotMemory {
public:
    /// Places for which there is no room are left out.
    void add(const void* begin, std::size_t bytes) noexcept
    {
        if (count < places.size())
            places[count++] = {reinterpret_cast<std::uintptr_t>(begin), bytes};
    }

    void add(const HotMemory& more) noexcept
    {
        for (std::size_t i = 0; i < more.count; ++i)
            add(reinterpret_cast<const void*>(more.places[i].begin), more.places[i].bytes);
    }

    void prefetch() const noexcept
    {
        for (std::size_t i = 0; i < count; ++i) {
            for (std::size_t offset = 0; offset < places[i].bytes; offset += lineBytes)
                prefetchLine(reinterpret_cast<const char*>(places[i].begin + offset));
        }
    }

private:
    struct Place {
        std::uintptr_t begin = 0;
        std::size_t bytes = 0;
    };

    static void prefetchLine(const char* line) noexcept
    {
#if defined(_MSC_VER)
        _mm_prefetch(line, _MM_HINT_T0);
#else
        __builtin_prefetch(line, 1);  // most of it is written to: measured, better than for reading
#endif
    }

    static constexpr std::size_t lineBytes = 64;
    std::array<Place, 6> places;
    std::size_t count = 0;
};
}  // namespace Tavro8::media
