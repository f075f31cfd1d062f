#pragma once

#include <filesystem>

namespace Host
{
/// A shared library loaded into this process; unloaded with the object.
class SharedLibrary {
public:
    /// Throws `std::runtime_error` with the loader's own reason.
    explicit SharedLibrary(const std::filesystem::path& path);
    ~SharedLibrary();
    SharedLibrary(const SharedLibrary&) = delete;
    SharedLibrary& operator=(const SharedLibrary&) = delete;

    /// The function exported under `name`, or null.
    template <typename Function>
    Function find(const char* name) const noexcept
    {
        return reinterpret_cast<Function>(findSymbol(name));
    }

private:
    void* findSymbol(const char* name) const noexcept;

    void* handle;
};
}  // namespace Host
