#include "PathText.h"

#include "ExitStatus.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <system_error>

namespace Host
{
namespace fs = std::filesystem;

namespace
{
[[noreturn]] void refuse(const fs::path& path, const std::string& reason)
{
    throw Failure(ExitStatus::failed, "cannot write " + pathText(path) + (reason.empty() ? "" : ": " + reason));
}
}  // namespace

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
    const fs::file_status status = fs::status(path, ignored);
    if (fs::is_fifo(status) || fs::is_socket(status) || fs::is_block_file(status))
        refuse(path, "it is no regular file");
    errno = 0;
    const bool opened = std::ofstream(path, std::ios::app | std::ios::binary).is_open();
    const int reason = errno;
    if (!opened)
        refuse(path, reason != 0 ? std::generic_category().message(reason) : "");
    if (!fs::exists(status))
        fs::remove(path, ignored);
}
}  // namespace Host
