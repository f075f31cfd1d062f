#pragma once

#include <cstdint>
#include <fstream>
#include <span>
#include <string>

namespace simulator
{

/// A WAV file that grows: 16-bit PCM, 8 kHz, one channel. It is whole after each operation, so that it can be played
/// whatever becomes of its writer. One thread.
class SoundFile {
public:
    /// Makes the file, in place of what is there. Throws std::runtime_error with a sentence when it cannot.
    explicit SoundFile(const std::string& path);

    /// Throws as well; what had been written before stays.
    void append(std::span<const std::int16_t> samples);

private:
    void write(const std::string& bytes);
    void writeHeader();

    std::string path;
    std::ofstream file;
    std::uint32_t dataBytes = 0;
};

}  // namespace simulator
