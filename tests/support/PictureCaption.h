#pragma once

#include <cstddef>
#include <string>
#include <vector>

// What the simulated device writes into its test picture of 320 x 240.
namespace kelvo::test
{

/// The letters that tell where the head looks, one mark for each pixel of their place.
using Caption = std::string;

/// Those of the first frames of what ffmpeg reads as `input`: options of its own and the file or address behind "-i".
/// Adds a failure to the test, and empty ones, when there are fewer.
std::vector<Caption> captionsOf(const std::vector<std::string>& input, std::size_t frames = 1);

/// In how many pixels two captions differ, as a share of the lit ones of the first.
double difference(const Caption& one, const Caption& other);

}  // namespace kelvo::test
