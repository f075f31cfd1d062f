#include "Sound.h"

#include "Programs.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

namespace kelvo::test
{
namespace
{

/// The sum of the products of the first `count`.
double product(const Samples& one, const Samples& other, std::size_t count)
{
    const auto end = one.begin() + static_cast<std::ptrdiff_t>(count);
    return std::inner_product(one.begin(), end, other.begin(), 0.0, std::plus<>(),
                              [](double a, double b) { return a * b; });
}

}  // namespace

Samples soundOf(const std::vector<std::string>& input)
{
    std::vector<std::string> command{"ffmpeg", "-v", "error"};
    command.insert(command.end(), input.begin(), input.end());
    command.insert(command.end(), {"-vn", "-f", "s16le", "-"});
    const ProgramResult result = runProgram(command);
    EXPECT_EQ(result.status, 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    Samples samples(result.output.size() / 2);
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<std::int16_t>(static_cast<std::uint8_t>(result.output[2 * i]) |
                                               static_cast<std::uint8_t>(result.output[2 * i + 1]) << 8);
    return samples;
}

double correlation(const Samples& one, const Samples& other)
{
    const std::size_t count = std::min(one.size(), other.size());
    return product(one, other, count) / std::sqrt(product(one, one, count) * product(other, other, count));
}

double loudness(const Samples& samples)
{
    return std::sqrt(product(samples, samples, samples.size()) / static_cast<double>(samples.size()));
}
}  // namespace kelvo::test
