#include "wire/Base64.h"

#include "WireTestSupport.h"

namespace Tavro8::wire
{
namespace
{
const struct {
    const char* plain;
    const char* encoded;
} rfc4648Vectors[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};
}  // namespace

TEST(Base64, agreesWithTheVectorsOfRfc4648)
{
    for (const auto& c : rfc4648Vectors) {
        EXPECT_EQ(encodeBase64(asBytes(c.plain)), c.encoded);
        const auto decoded = decodeBase64(c.encoded);
        ASSERT_TRUE(decoded) << c.encoded;
        EXPECT_TRUE(testing::sameBytes(asBytes(c.plain), *decoded));
    }
}

TEST(Base64, decodesWithoutPadding)
{
    for (const auto& c : rfc4648Vectors) {
        std::string_view bare = c.encoded;
        bare = bare.substr(0, bare.find('='));
        const auto decoded = decodeBase64(bare);
        ASSERT_TRUE(decoded) << bare;
        EXPECT_EQ(asText(*decoded), c.plain);
    }
}

TEST(Base64, refusesWhatItCannotBe)
{
    for (const char* bad : {"Z", "Zm9vY", "Zm 9", "Zm9v\n", "Z-_v", "=Zg", "Zg===", "\xff\xff\xff\xff"})
        EXPECT_FALSE(decodeBase64(bad)) << bad;
}

TEST(Base64, roundTripsEveryLength)
{
    std::mt19937 generator(4648);
    for (std::size_t length = 0; length < 70; ++length) {
        const Bytes bytes = testing::randomBytes(generator, length);
        const auto decoded = decodeBase64(encodeBase64(bytes));
        ASSERT_TRUE(decoded);
        EXPECT_TRUE(testing::sameBytes(bytes, *decoded));
    }
}

TEST(Hex, readsEitherCaseAndWritesLower)
{
    const auto bytes = decodeHex("00ffAb");
    ASSERT_TRUE(bytes);
    EXPECT_EQ(encodeHex(*bytes), "00ffab");
    for (const char* bad : {"0", "0g", "0x00", " 00"})
        EXPECT_FALSE(decodeHex(bad)) << bad;
}
}  // namespace Tavro8::wire
