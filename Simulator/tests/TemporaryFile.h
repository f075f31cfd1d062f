#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <string>

namespace simulator::test
{

/// The name of a file of the running test alone, which goes with this object.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& suffix)
    {
        const auto* info = testing::UnitTest::GetInstance()->current_test_info();
        path = std::filesystem::temp_directory_path() /
               ("simulator-" + std::to_string(::getpid()) + "-" + info->name() + suffix);
    }
    ~TemporaryFile()
    {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    std::string name() const { return path.string(); }

private:
    std::filesystem::path path;
};

}  // namespace simulator::test
