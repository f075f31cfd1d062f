#include "media/HotMemory.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>

namespace Tavro8::media
{
namespace
{
TEST(HotMemory, mayNamePlacesWhereNothingIs)
{
    HotMemory hot;
    hot.prefetch();
    hot.add(nullptr, 4096);
    hot.add(reinterpret_cast<const void*>(std::numeric_limits<std::uintptr_t>::max() - 100), 1000);
    hot.prefetch();
}

TEST(HotMemory, takesNoMorePlacesThanItHasRoomFor)
{
    const char place[64] = {};
    HotMemory many;
    for (int i = 0; i < 100; ++i)
        many.add(&place, sizeof place);
    HotMemory both = many;
    both.add(many);
    both.prefetch();
}
}  // namespace
}  // namespace Tavro8::media
