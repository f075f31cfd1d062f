#pragma once

#include <IpUtil/Export.h>
#include <cstdint>
#include <filesystem>
#include <iosfwd>
#include <memory>
#include <span>

namespace Tavro8::Utility
{
/// A file with the sound that was pushed in one call, for who looks for the cause of bad sound: 16-bit samples in the
/// machine's order of bytes, as they came from the host. One thread.
class IPUTIL_API AudioDumpFile {
public:
    AudioDumpFile() noexcept;
    ~AudioDumpFile();
    AudioDumpFile(const AudioDumpFile&) = delete;
    AudioDumpFile& operator=(const AudioDumpFile&) = delete;

    /// Opens a new file in `directory`, which must exist: "file_<channel>_<Unix milliseconds>_<number>.bin".
    bool open(const std::filesystem::path& directory, std::uint32_t channel);
    /// Nothing when no file is open. What cannot be written is left out.
    void write(std::span<const std::int16_t> samples);
    void close() noexcept;

private:
    std::unique_ptr<std::ofstream> file;
};
}  // namespace Tavro8::Utility
