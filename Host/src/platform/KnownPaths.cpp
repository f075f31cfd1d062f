#include "platform/KnownPaths.h"

#include <cstdlib>

#if defined(_WIN32)
#include <string>
#include <windows.h>
#endif

namespace Host
{
namespace fs = std::filesystem;

#if defined(_WIN32)
fs::path programDirectory()
{
    std::wstring buffer(32768, L'\0');  // the longest path that Windows knows
    const DWORD length = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
    return fs::path(buffer.substr(0, length)).parent_path();
}

fs::path userStateDirectory()
{
    const wchar_t* local = _wgetenv(L"LOCALAPPDATA");
    return (local != nullptr && *local != L'\0' ? fs::path(local) : fs::temp_directory_path()) / "kelvo-host";
}
#else
fs::path programDirectory()
{
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    return error ? fs::current_path() : program.parent_path();
}

fs::path userStateDirectory()
{
    // The XDG base directory rules: a relative value is to be ignored.
    if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && fs::path(state).is_absolute())
        return fs::path(state) / "kelvo-host";
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0')
        return fs::path(home) / ".local" / "state" / "kelvo-host";
    return fs::temp_directory_path() / "kelvo-host";
}
#endif
}  // namespace Host
