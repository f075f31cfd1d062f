#include "wire/Text.h"

#include "wire/Bytes.h"

#include "WireTestSupport.h"

#include <locale>

namespace Tavro8::wire
{
namespace
{
/// Groups digits as many real locales do: 32000 is written "32.000".
class GroupingDigits : public std::numpunct<char> {
protected:
    char do_thousands_sep() const override { return '.'; }
    char do_decimal_point() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};
}  // namespace

TEST(Text, comparesWithoutCaseForLettersOnly)
{
    EXPECT_TRUE(equalsNoCase("Content-Base", "CONTENT-base"));
    EXPECT_FALSE(equalsNoCase("[", "{"));
    EXPECT_FALSE(equalsNoCase("abc", "abcd"));
    EXPECT_TRUE(startsWithNoCase("RTSP://host", "rtsp://"));
    EXPECT_FALSE(startsWithNoCase("rt", "rtsp://"));
    EXPECT_EQ(findNoCase("a;SEQ=1", "seq="), 2U);
    EXPECT_EQ(findNoCase("seq", "seq="), std::string_view::npos);
}

TEST(Text, trimsBlanksTabsAndLineEnds)
{
    EXPECT_EQ(trim(" \t a b \r\n"), "a b");
    EXPECT_EQ(trim(" \t\r\n"), "");
}

TEST(Text, cutsAtTheFirstSeparator)
{
    std::string_view rest = "name=value=more";
    EXPECT_EQ(cutAt(rest, '='), "name");
    EXPECT_EQ(rest, "value=more");
    EXPECT_EQ(cutAt(rest, ';'), "value=more");
    EXPECT_TRUE(rest.empty());
}

TEST(Text, readsWholeNumbersOnly)
{
    EXPECT_EQ(parseNumber<std::uint16_t>("554"), 554);
    EXPECT_EQ(parseNumber<std::uint32_t>("dEADbeef", 16), 0xdeadbeefU);
    EXPECT_EQ(parseNumber<int>("-3"), -3);
    for (const char* bad : {"", " 1", "1 ", "+1", "-1", "65536", "0x10", "1.5", "99999999999999999999"})
        EXPECT_FALSE(parseNumber<std::uint16_t>(bad)) << bad;
    EXPECT_EQ(parseFraction("12.5"), 12.5);
    for (const char* bad : {"", "12,5", "1e3", " 1", "x"})
        EXPECT_FALSE(parseFraction(bad)) << bad;
}

TEST(Text, ignoresAGroupingLocale)
{
    const std::locale before = std::locale::global(std::locale(std::locale(), new GroupingDigits));
    std::string text;
    appendNumber(text, 1234567);
    EXPECT_EQ(text, "1234567");
    EXPECT_EQ(parseFraction("359.999"), 359.999);
    EXPECT_FALSE(parseNumber<int>("32.000"));
    std::locale::global(before);
}

TEST(Bytes, readsAndWritesBigEndian)
{
    Bytes bytes;
    appendByte(bytes, 0x01);
    appendBe16(bytes, 0x0203);
    appendBe24(bytes, 0x040506);
    appendBe32(bytes, 0x0708090a);
    appendBe64(bytes, 0x0b0c0d0e0f101112);
    EXPECT_TRUE(testing::sameBytes(testing::fromHex("0102030405060708090a0b0c0d0e0f101112"), bytes));
    EXPECT_EQ(readBe16(bytes.data() + 1), 0x0203);
    EXPECT_EQ(readBe24(bytes.data() + 3), 0x040506U);
    EXPECT_EQ(readBe32(bytes.data() + 6), 0x0708090aU);
    EXPECT_EQ(readBe64(bytes.data() + 10), 0x0b0c0d0e0f101112U);
    EXPECT_EQ(readBe32(testing::fromHex("ffffffff").data()), 0xffffffffU);
}

TEST(ByteReader, failsForGoodOnceItWasAskedForTooMuch)
{
    const Bytes bytes = testing::fromHex("0102030405");
    ByteReader reader(bytes);
    EXPECT_EQ(reader.be16(), 0x0102);
    EXPECT_EQ(reader.left(), 3U);
    EXPECT_EQ(reader.be32(), 0U);
    EXPECT_TRUE(reader.failed());
    EXPECT_EQ(reader.u8(), 0);
    EXPECT_TRUE(reader.bytes(1).empty());
}
}  // namespace Tavro8::wire
