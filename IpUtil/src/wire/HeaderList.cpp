#include "wire/HeaderList.h"

#include "wire/Text.h"

#include <algorithm>

namespace Tavro8::wire
{
namespace
{
void appendClean(std::string& to, std::string_view text)
{
    std::copy_if(text.begin(), text.end(), std::back_inserter(to), [](char c) { return c == '\t' || !isControl(c); });
}
}  // namespace

void HeaderList::add(std::string_view name, std::string_view value)
{
    fields.push_back({std::string(name), std::string(value)});
}

void HeaderList::set(std::string_view name, std::string_view value)
{
    // Copies first: the views may point into a line that is about to go.
    HeaderField field{std::string(name), std::string(value)};
    remove(field.name);
    fields.push_back(std::move(field));
}

void HeaderList::remove(std::string_view name)
{
    const std::string key(name);
    std::erase_if(fields, [&key](const HeaderField& field) { return equalsNoCase(field.name, key); });
}

std::optional<std::string_view> HeaderList::find(std::string_view name) const
{
    for (const HeaderField& field : fields) {
        if (equalsNoCase(field.name, name))
            return field.value;
    }
    return std::nullopt;
}

std::vector<std::string_view> HeaderList::all(std::string_view name) const
{
    std::vector<std::string_view> values;
    for (const HeaderField& field : fields) {
        if (equalsNoCase(field.name, name))
            values.push_back(field.value);
    }
    return values;
}

void HeaderList::appendTo(std::string& text) const
{
    for (const HeaderField& field : fields) {
        appendClean(text, field.name);
        text += ": ";
        appendClean(text, field.value);
        text += "\r\n";
    }
}
}  // namespace Tavro8::wire
