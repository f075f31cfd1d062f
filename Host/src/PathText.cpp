#include "PathText.h"

#include "ExitStatus.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <system_error>

namespace Host
{
namespace fs = std::filesystem;

std::string pathText(const fs::path& path)
{
    const std::u8string text = path.u8string();
    return {text.begin(), text.end()};
}

std::string lowerCaseEnding(const fs::path& path)
{
    std::string ending = pathText(path.extension());
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return ending;
}

fs::path partPath(const fs::path& path, std::size_t part)
{
    if (part <= 1)
        return path;
    fs::path name = path.stem();
    name += "-" + std::to_string(part);
    name += path.extension();
    return path.parent_path() / name;
}

void requireWritable(const fs::path& path)
{
    std::error_code ignored;
    const bool existed = fs::exists(path, ignored);
    errno = 0;
    const bool opened = std::ofstream(path, std::ios::app | std::ios::binary).is_open();
    const int reason = errno;
    if (!opened)
        throw Failure(ExitStatus::failed, "cannot write " + pathText(path) +
                                              (reason != 0 ? ": " + std::generic_category().message(reason) : ""));
    if (!existed)
        fs::remove(path, ignored);
}
}  // namespace Host
