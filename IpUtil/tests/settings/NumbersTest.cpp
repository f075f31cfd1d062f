#include <IpUtil/Numbers.h>
#include <gtest/gtest.h>
#include <limits>
#include <locale>
#include <string>

using namespace Tavro8::Utility;

namespace
{
struct GroupingDigits : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

template <typename Error, typename Call>
std::string messageOf(Call call)
{
    try {
        call();
    } catch (const Error& e) {
        return e.what();
    }
    return "nothing was raised";
}
}  // namespace

TEST(Numbers, readsTheNumberInFront)
{
    const struct {
        std::string text;
        int value;
    } cases[] = {
        {"0", 0},
        {"554", 554},
        {" \t\n\v\f\r8554", 8554},
        {"+7", 7},
        {"-7", -7},
        {"12abc", 12},
        {"32.000", 32},
        {"0000000000000000000001", 1},
        {"5 6", 5},
        {"2147483647", std::numeric_limits<int>::max()},
        {"-2147483648", std::numeric_limits<int>::min()},
        {std::string("8\0009", 3), 8},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(toInt(c.text), c.value);
    }
}

TEST(Numbers, refusesATextWithoutANumber)
{
    for (const std::string text : {"", " ", "abc", "-", "+", "+-1", "- 1", "x1",
                                   "\xC2\xA0"
                                   "1"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(messageOf<std::invalid_argument>([&] { toInt(text); }), "invalid stoi argument");
    }
}

TEST(Numbers, refusesANumberBeyondAnInt)
{
    for (const std::string text : {"2147483648", "-2147483649", "99999999999999999999999999999999"}) {
        SCOPED_TRACE(text);
        EXPECT_EQ(messageOf<std::out_of_range>([&] { toInt(text); }), "stoi argument out of range");
    }
}

TEST(Numbers, castsAPortAndRefusesWhatIsNone)
{
    EXPECT_EQ(toPort(0), 0);
    EXPECT_EQ(toPort(65535), 65535);
    for (const int value : {65536, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
        SCOPED_TRACE(value);
        EXPECT_EQ(messageOf<boost::bad_lexical_cast>([&] { toPort(value); }),
                  "bad lexical cast: source type value could not be interpreted as target");
    }
}

TEST(Numbers, areReadWithoutTheGlobalLocale)
{
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupingDigits));
    EXPECT_EQ(toInt("32000"), 32000);
    EXPECT_EQ(toInt("32.000"), 32);
    std::locale::global(before);
}
