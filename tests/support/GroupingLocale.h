#pragma once

#include <locale>
#include <string>

namespace kelvo::test
{
/// What a host may do to its process: points between thousands, a comma in front of fractions.
class GroupingLocale {
public:
    GroupingLocale() : before(std::locale::global(std::locale(std::locale::classic(), new Punctuation))) {}
    ~GroupingLocale() { std::locale::global(before); }

    GroupingLocale(const GroupingLocale&) = delete;
    GroupingLocale& operator=(const GroupingLocale&) = delete;

private:
    class Punctuation final : public std::numpunct<char> {
        char do_thousands_sep() const override { return '.'; }
        char do_decimal_point() const override { return ','; }
        std::string do_grouping() const override { return "\3"; }
    };
    std::locale before;
};
}  // namespace kelvo::test
