#pragma once

#include <IpUtil/Wide.h>
#include <filesystem>
#include <string>
#include <type_traits>

namespace Tavro8::Utility
{
/// The path of a wide name. Where paths are bytes they are UTF-8: the conversion of `std::filesystem::path` depends on
/// the process's locale there and throws in the "C" locale.
inline std::filesystem::path toPath(const std::wstring& name)
{
    if constexpr (std::is_same_v<std::filesystem::path::value_type, wchar_t>)
        return std::filesystem::path(name);
    else
        return std::filesystem::path(toNarrow(name));
}
}  // namespace Tavro8::Utility
