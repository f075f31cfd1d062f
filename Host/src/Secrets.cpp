#include "Secrets.h"

#include "DeviceAddress.h"
#include "PercentEncoding.h"

#include <algorithm>

namespace Host
{
namespace
{
constexpr std::string_view schemeMark = "://";
constexpr std::size_t shortestReplacedAnywhere = 4;

bool isWordCharacter(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           static_cast<unsigned char>(c) >= 0x80;
}

bool standsAlone(std::string_view text, std::size_t begin, std::size_t length) noexcept
{
    const std::size_t end = begin + length;
    return (begin == 0 || !isWordCharacter(text[begin - 1])) && (end == text.size() || !isWordCharacter(text[end]));
}

bool endsWord(char c) noexcept
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '"' || c == '\'' || c == '<' || c == '>';
}

std::string maskWord(std::string_view word)
{
    const std::size_t at = word.rfind('@');
    const std::size_t mark = word.find(schemeMark);
    const std::size_t begin = mark < at ? mark + schemeMark.size() : 0;
    const std::size_t colon = word.find(':', begin);
    if (at == std::string_view::npos || colon >= at)
        return std::string(word);
    return std::string(word.substr(0, colon + 1)).append(maskedPassword).append(word.substr(at));
}
}  // namespace

void Secrets::add(std::string_view secret)
{
    const std::string plain = percentDecode(secret);
    addForm(std::string(secret));
    addForm(percentEncode(secret));
    addForm(percentEncode(plain));
    addForm(plain);
}

void Secrets::addForm(std::string form)
{
    if (form.empty() || std::find(forms.begin(), forms.end(), form) != forms.end())
        return;
    const auto shorter = [&form](const std::string& other) { return other.size() < form.size(); };
    forms.insert(std::find_if(forms.begin(), forms.end(), shorter), std::move(form));
}

void Secrets::addFrom(std::string_view argument)
{
    if (const std::size_t equals = argument.find('='); argument.starts_with("--") && equals != std::string_view::npos)
        argument.remove_prefix(equals + 1);
    const DeviceAddress address(argument);
    add(address.getPassword());
    // Without a scheme a colon means little: file names have colons too.
    if (argument.find(schemeMark) != std::string_view::npos)
        add(address.getMisplaced());
}

std::string Secrets::mask(std::string_view text) const
{
    std::string masked;
    for (std::size_t at = 0; at < text.size();) {
        const auto found = std::find_if(forms.begin(), forms.end(), [&](const std::string& form) {
            return text.substr(at).starts_with(form) &&
                   (form.size() >= shortestReplacedAnywhere || standsAlone(text, at, form.size()));
        });
        if (found != forms.end()) {
            masked += maskedPassword;
            at += found->size();
        } else {
            masked += text[at++];
        }
    }
    return masked;
}

std::string maskAddresses(std::string_view text)
{
    std::string masked;
    while (!text.empty()) {
        const auto end = std::find_if(text.begin(), text.end(), endsWord);
        const auto length = static_cast<std::size_t>(end - text.begin());
        masked += maskWord(text.substr(0, length));
        text.remove_prefix(length);
        const std::size_t separators = std::min<std::size_t>(text.size(), 1);
        masked.append(text.substr(0, separators));
        text.remove_prefix(separators);
    }
    return masked;
}
}  // namespace Host
