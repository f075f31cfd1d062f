#include "SoundFile.h"

#include <stdexcept>

namespace simulator
{
namespace
{

constexpr std::uint32_t samplesPerSecond = 8000;
constexpr std::uint16_t bytesPerSample = 2;
constexpr std::uint32_t headerBytes = 44;

template <typename Integer>
void appendLe(std::string& bytes, Integer value)
{
    for (unsigned i = 0; i < sizeof value; ++i)
        bytes += static_cast<char>(value >> (8 * i) & 0xff);
}

}  // namespace

SoundFile::SoundFile(const std::string& name) : path(name), file(name, std::ios::binary | std::ios::trunc)
{
    writeHeader();
}

void SoundFile::append(std::span<const std::int16_t> samples)
{
    std::string bytes;
    for (const std::int16_t sample : samples)
        appendLe(bytes, static_cast<std::uint16_t>(sample));
    file.seekp(headerBytes + static_cast<std::streamoff>(dataBytes));
    write(bytes);
    dataBytes += static_cast<std::uint32_t>(bytes.size());
    writeHeader();
}

void SoundFile::writeHeader()
{
    constexpr std::uint16_t pcm = 1;
    constexpr std::uint16_t channels = 1;
    constexpr std::uint32_t formatBytes = 16;
    std::string header = "RIFF";
    appendLe(header, headerBytes - 8 + dataBytes);
    header += "WAVEfmt ";
    appendLe(header, formatBytes);
    appendLe(header, pcm);
    appendLe(header, channels);
    appendLe(header, samplesPerSecond);
    appendLe(header, samplesPerSecond * bytesPerSample);
    appendLe(header, bytesPerSample);  // of all channels together
    appendLe(header, static_cast<std::uint16_t>(bytesPerSample * 8));
    header += "data";
    appendLe(header, dataBytes);
    file.seekp(0);
    write(header);
}

void SoundFile::write(const std::string& bytes)
{
    if (!file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush())
        throw std::runtime_error("cannot write the sound file '" + path + "'");
}

}  // namespace simulator
