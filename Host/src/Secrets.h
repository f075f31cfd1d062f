#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Host
{
/// What stands in the place of a password wherever a person or a log can see it.
inline constexpr std::string_view maskedPassword = "***";

/// The passwords this run of the program knows, to be taken out of every text that leaves it. Knowing them is
/// what makes this safe: a password may hold blanks, quotes and every other character by which one could try
/// to find it in a text.
class Secrets {
public:
    /// Hides `secret`, which may be percent-encoded, as it stands, decoded and encoded.
    void add(std::string_view secret);

    /// Hides the passwords in a word of the command line, wherever in it the user has put an address.
    void addFrom(std::string_view argument);

    /// `text` with stars in place of every secret. One of less than four characters is hidden only where it
    /// stands alone, or hardly a word would be left of the text.
    std::string mask(std::string_view text) const;

private:
    void addForm(std::string form);

    std::vector<std::string> forms;  // the longest first, so that no part of a longer one is left over
};

/// Replaces the password in everything in `text` that looks like an address with one: the second line of
/// defence, for texts of others that may hold passwords this program does not know.
std::string maskAddresses(std::string_view text);
}  // namespace Host
