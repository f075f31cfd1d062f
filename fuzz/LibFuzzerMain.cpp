#include "FuzzTarget.h"

/// What libFuzzer calls: the one target of this program.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Tavro8::fuzz::targets().front()->feed({data, size});
    return 0;
}
