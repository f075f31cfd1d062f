#include "PictureCaption.h"

#include "Programs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <numeric>

namespace kelvo::test
{
namespace
{

// The three lines below the title.
constexpr const char* place = "crop=110:48:19:40";
constexpr std::size_t placeBytes = 110 * 48;

/// Letters are white on a shade that keeps everything behind them darker than this.
constexpr unsigned char shade = 190;

}  // namespace

std::vector<Caption> captionsOf(const std::vector<std::string>& input, std::size_t frames)
{
    std::vector<std::string> command{"ffmpeg", "-v", "error", "-analyzeduration", "100000"};
    command.insert(command.end(), input.begin(), input.end());
    command.insert(command.end(),
                   {"-frames:v", std::to_string(frames), "-vf", place, "-pix_fmt", "gray", "-f", "rawvideo", "-"});
    const ProgramResult result = runProgram(command);
    EXPECT_EQ(result.status, 0) << result.errors;
    std::vector<Caption> captions;
    for (std::size_t at = 0; at + placeBytes <= result.output.size(); at += placeBytes) {
        captions.push_back(result.output.substr(at, placeBytes));
        for (char& pixel : captions.back())
            pixel = static_cast<unsigned char>(pixel) > shade ? '#' : ' ';
    }
    EXPECT_EQ(captions.size(), frames);
    captions.resize(frames, Caption(placeBytes, ' '));
    return captions;
}

double difference(const Caption& one, const Caption& other)
{
    const auto different = std::inner_product(one.begin(), one.end(), other.begin(), 0, std::plus<>(),
                                              [](char a, char b) { return a == b ? 0 : 1; });
    const auto lit = std::ranges::count(one, '#');
    EXPECT_GT(lit, 100) << "no letters";
    return different / static_cast<double>(lit);
}

}  // namespace kelvo::test
