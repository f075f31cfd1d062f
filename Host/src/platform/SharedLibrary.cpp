#include "platform/SharedLibrary.h"

#include <stdexcept>
#include <string>
#include <system_error>

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

namespace Host
{
#if defined(_WIN32)
SharedLibrary::SharedLibrary(const std::filesystem::path& path)
    // The search path of the module's own dependencies begins in the module's directory.
    : handle(LoadLibraryExW(path.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH))
{
    if (handle == nullptr)
        throw std::runtime_error(std::system_category().message(static_cast<int>(GetLastError())));
}

SharedLibrary::~SharedLibrary()
{
    FreeLibrary(static_cast<HMODULE>(handle));
}

void* SharedLibrary::findSymbol(const char* name) const noexcept
{
    return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle), name));
}
#else
SharedLibrary::SharedLibrary(const std::filesystem::path& path)
    // Every symbol is bound now, so that a library that lacks something is refused here and not in mid-flight.
    : handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (handle == nullptr) {
        const char* reason = dlerror();
        throw std::runtime_error(reason != nullptr ? reason : "unknown reason");
    }
}

SharedLibrary::~SharedLibrary()
{
    dlclose(handle);
}

void* SharedLibrary::findSymbol(const char* name) const noexcept
{
    return dlsym(handle, name);
}
#endif
}  // namespace Host
