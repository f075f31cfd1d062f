#pragma once

#include <cstddef>
#include <new>

namespace Uniview
{
/// A record of the process, made at the first use and never destroyed, since the order of destruction at the end of a
/// process is nobody's. It lies in static memory, so that unloading the library leaves nothing behind.
template <typename Record>
Record& processRecord()
{
    alignas(Record) static std::byte memory[sizeof(Record)];
    static Record* const record = new (memory) Record;
    return *record;
}
}  // namespace Uniview
