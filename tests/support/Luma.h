#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// How bright, how varied and how turned the simulated device's test picture is.
namespace kelvo::test
{
/// The first picture of 320 x 240 pixels of what ffmpeg reads.
class Luma {
public:
    /// `input`: options of ffmpeg's own and the file or address behind "-i". A picture that cannot be had fails the
    /// test.
    explicit Luma(const std::vector<std::string>& input);

    /// Of the part between the captions.
    double mean() const;
    double deviation() const;
    /// Mean distance of the colour from grey.
    double colour() const;

    enum Corner { topLeft, topRight, bottomLeft, bottomRight };
    /// Where the letter stands that tells how the picture is turned.
    Corner letter() const;

private:
    static constexpr std::size_t width = 320;
    static constexpr std::size_t height = 240;
    static constexpr std::size_t firstRow = 80;  ///< of the part between the captions
    static constexpr std::size_t endRow = 160;

    double at(std::size_t i) const { return static_cast<std::uint8_t>(bytes[i]); }

    std::string bytes;
};
}  // namespace kelvo::test
