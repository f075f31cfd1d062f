#pragma once

#include <filesystem>

namespace CLI
{
class App;
}

namespace Host
{
/// The options `--output` and `--snapshot` of the commands that receive media; empty where not given.
struct MediaFiles {
    std::filesystem::path output;
    std::filesystem::path snapshot;
};

/// Makes the option parser fill `files`, which outlives it.
void describeMediaFiles(CLI::App& app, MediaFiles& files);

/// Throws `Failure` (failed) when one of them cannot be written.
void requireWritable(const MediaFiles& files);
}  // namespace Host
