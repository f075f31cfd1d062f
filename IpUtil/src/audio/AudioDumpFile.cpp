#include <IpUtil/AudioDumpFile.h>
#include <atomic>
#include <chrono>
#include <fstream>
#include <string>
#include <utility>

namespace Tavro8::Utility
{
namespace
{
std::string nextName(std::uint32_t channel)
{
    static std::atomic<std::uint32_t> number{0};
    const auto now =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch());
    return "file_" + std::to_string(channel) + '_' + std::to_string(now.count()) + '_' + std::to_string(++number) +
           ".bin";
}
}  // namespace

AudioDumpFile::AudioDumpFile() noexcept = default;

AudioDumpFile::~AudioDumpFile() = default;

bool AudioDumpFile::open(const std::filesystem::path& directory, std::uint32_t channel)
{
    auto path = directory / nextName(channel);
    std::error_code ec;
    while (std::filesystem::exists(path, ec))  // another program's
        path = directory / nextName(channel);
    auto opened = std::make_unique<std::ofstream>(path, std::ios::binary);
    if (!*opened)
        return false;
    file = std::move(opened);
    return true;
}

void AudioDumpFile::write(std::span<const std::int16_t> samples)
{
    if (file != nullptr)
        file->write(reinterpret_cast<const char*>(samples.data()), static_cast<std::streamsize>(samples.size_bytes()));
}

void AudioDumpFile::close() noexcept
{
    file.reset();
}
}  // namespace Tavro8::Utility
