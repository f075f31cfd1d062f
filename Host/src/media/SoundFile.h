#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>

namespace Host
{
/// The sound of a file as devices take it: signed 16-bit samples, 8000 a second, one channel. Reads whatever FFmpeg
/// reads, the sound of a video too; several channels are mixed. One thread.
class SoundFile {
public:
    static constexpr std::uint32_t sampleRate = 8000;

    /// Opens the file and decodes its beginning. Throws `Failure` (usage) when there is no sound in it.
    explicit SoundFile(const std::filesystem::path& path);
    ~SoundFile();

    /// Fills `samples` from the front and returns how many there were: fewer than asked for at the end only.
    /// Throws `std::runtime_error` when the file cannot be read any further.
    std::size_t read(std::span<std::int16_t> samples);

    /// How long it is, as far as the file tells.
    std::optional<double> getSeconds() const;

    /// Pieces that were left out because they cannot be decoded.
    std::uint64_t getDamaged() const noexcept;

private:
    struct State;
    std::unique_ptr<State> state;
};
}  // namespace Host
