#include "media/FrameBuilder.h"

#include <algorithm>
#include <new>

namespace Tavro8::media
{
bool FrameBuilder::insert(std::size_t position, std::span<const std::uint8_t> more) noexcept
{
    if (more.empty())
        return true;
    if (more.size() > room - used && !makeRoom(more.size()))
        return false;
    std::memmove(begin + position + more.size(), begin + position, used - position);
    std::memcpy(begin + position, more.data(), more.size());
    used += more.size();
    return true;
}

FrameBuffer* FrameBuilder::take() noexcept
{
    if (used == 0)
        clear();
    begin = nullptr;
    used = 0;
    room = 0;
    return std::exchange(buffer, nullptr);
}

void FrameBuilder::clear() noexcept
{
    if (buffer != nullptr)
        buffer->Release();
    buffer = nullptr;
    begin = nullptr;
    used = 0;
    room = 0;
}

bool FrameBuilder::makeRoom(std::size_t more) noexcept
{
    if (more > maxBytes - used)
        return false;
    // Half as much again, so that a frame larger than foreseen is moved a few times only.
    return grow(std::min(std::max(used + more, room + room / 2), maxBytes));
}

bool FrameBuilder::grow(std::size_t capacity) noexcept
{
    try {
        FrameBuffer& larger = pool.acquire(capacity);
        if (used != 0)
            std::memcpy(larger.data(), begin, used);
        if (buffer != nullptr)
            buffer->Release();
        buffer = &larger;
        begin = larger.data();
        room = std::min(larger.getCapacity(), maxBytes);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}
}  // namespace Tavro8::media
