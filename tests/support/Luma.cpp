#include "Luma.h"

#include "Programs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace kelvo::test
{
Luma::Luma(const std::vector<std::string>& input)
{
    std::vector<std::string> command{"ffmpeg", "-v", "error"};
    command.insert(command.end(), input.begin(), input.end());
    command.insert(command.end(), {"-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "yuv420p", "-"});
    bytes = runProgram(command).output;
    EXPECT_EQ(bytes.size(), width * height * 3 / 2);
    bytes.resize(width * height * 3 / 2);
}

double Luma::mean() const
{
    double sum = 0;
    for (std::size_t i = firstRow * width; i < endRow * width; ++i)
        sum += at(i);
    return sum / static_cast<double>((endRow - firstRow) * width);
}

double Luma::deviation() const
{
    const double middle = mean();
    double sum = 0;
    for (std::size_t i = firstRow * width; i < endRow * width; ++i)
        sum += (at(i) - middle) * (at(i) - middle);
    return std::sqrt(sum / static_cast<double>((endRow - firstRow) * width));
}

double Luma::colour() const
{
    double sum = 0;
    for (std::size_t i = width * height; i < bytes.size(); ++i)
        sum += std::abs(at(i) - 128);
    return sum / static_cast<double>(bytes.size() - width * height);
}

Luma::Corner Luma::letter() const
{
    // The bars behind it do not change from row to row.
    double change[4] = {};
    for (std::size_t row = 92; row < 147; ++row)
        for (std::size_t column = 0; column < width; ++column)
            change[(row < 120 ? 0 : 2) + (column < width / 2 ? 0 : 1)] +=
                std::abs(at(row * width + column) - at((row + 1) * width + column));
    return static_cast<Corner>(std::ranges::max_element(change) - change);
}
}  // namespace kelvo::test
