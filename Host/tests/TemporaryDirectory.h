#pragma once

#include <filesystem>
#include <random>
#include <string>

namespace Host
{
/// A directory of its own for one test, removed with the object.
class TemporaryDirectory {
public:
    TemporaryDirectory()
        : path(std::filesystem::temp_directory_path() /
               ("kelvo-host-test-" + std::to_string(std::random_device()()) + std::to_string(std::random_device()())))
    {
        std::filesystem::create_directories(path);
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::filesystem::path operator/(const std::string& name) const { return path / name; }
    const std::filesystem::path& get() const noexcept { return path; }

private:
    const std::filesystem::path path;
};
}  // namespace Host
