#pragma once

#include <filesystem>
#include <string>

namespace Host
{
/// The path as UTF-8: for messages, for JSON and for FFmpeg, which wants UTF-8 on every system.
std::string pathText(const std::filesystem::path& path);

/// ".mp4" of "Yard.MP4".
std::string lowerCaseEnding(const std::filesystem::path& path);

/// "yard-2.mp4" of "yard.mp4" and 2; the first part has the name as given.
std::filesystem::path partPath(const std::filesystem::path& path, std::size_t part);

/// Throws `Failure` (failed) with the reason when no file can be written at `path`, before anything was
/// received for it. An existing file is left as it is; devices such as /dev/null are files, but pipes are not, which
/// would keep the program waiting for a reader.
void requireWritable(const std::filesystem::path& path);
}  // namespace Host
