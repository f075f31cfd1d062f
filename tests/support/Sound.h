#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What is to be heard in files.
namespace kelvo::test
{
using Samples = std::vector<std::int16_t>;

/// What ffmpeg reads, at its own rate: options of ffmpeg's own and the file or address behind "-i". Anything that it
/// complains about fails the test.
Samples soundOf(const std::vector<std::string>& input);

/// Of the two as far as the shorter goes: 1 when they are the same but for their loudness.
double correlation(const Samples& one, const Samples& other);

/// Root of the mean square.
double loudness(const Samples& samples);
}  // namespace kelvo::test
