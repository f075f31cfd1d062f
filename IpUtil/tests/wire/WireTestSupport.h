#pragma once

#include "wire/Base64.h"
#include "wire/Bytes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

namespace Tavro8::wire::testing
{
/// A file of golden bytes.
inline std::string dataText(const std::string& name)
{
    std::ifstream file(std::string(KELVO_TEST_DATA_DIR) + '/' + name, std::ios::binary);
    EXPECT_TRUE(file.is_open()) << name;
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline Bytes dataBytes(const std::string& name)
{
    const std::string text = dataText(name);
    return {text.begin(), text.end()};
}

inline Bytes fromHex(std::string_view hex)
{
    return decodeHex(hex).value();
}

/// Equality of bytes whose failure shows both sides in hexadecimal.
inline ::testing::AssertionResult sameBytes(ByteView expected, ByteView actual)
{
    if (std::equal(expected.begin(), expected.end(), actual.begin(), actual.end()))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\nexpected " << encodeHex(expected) << "\n  actual " << encodeHex(actual);
}

/// Bytes that are the same in each run.
inline Bytes randomBytes(std::mt19937& generator, std::size_t count)
{
    Bytes bytes(count);
    for (std::uint8_t& byte : bytes)
        byte = static_cast<std::uint8_t>(generator() >> 24);
    return bytes;
}
}  // namespace Tavro8::wire::testing
