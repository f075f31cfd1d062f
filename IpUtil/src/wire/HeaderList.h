#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Tavro8::wire
{
struct HeaderField {
    std::string name;   ///< as it was written
    std::string value;  ///< without the blanks around it
};

/// The header lines of a message in the order in which they came. Names are compared without case, and
/// several lines of one name are all kept.
class HeaderList {
public:
    void add(std::string_view name, std::string_view value);
    /// Replaces every line of this name by one.
    void set(std::string_view name, std::string_view value);
    void remove(std::string_view name);
    void clear() noexcept { fields.clear(); }

    /// The first line of this name; the view lives until the list changes.
    std::optional<std::string_view> find(std::string_view name) const;
    /// The first line of this name, empty when there is none.
    std::string_view get(std::string_view name) const { return find(name).value_or(std::string_view{}); }
    bool contains(std::string_view name) const { return find(name).has_value(); }
    /// Every line of this name, in order.
    std::vector<std::string_view> all(std::string_view name) const;

    /// Appends all lines with CR LF ends, without the empty line that ends a message head. Line ends
    /// and other control characters inside a name or value are left out, so that no value can smuggle a
    /// header of its own into a request.
    void appendTo(std::string& text) const;

    std::size_t size() const noexcept { return fields.size(); }
    auto begin() const noexcept { return fields.begin(); }
    auto end() const noexcept { return fields.end(); }

private:
    std::vector<HeaderField> fields;
};
}  // namespace Tavro8::wire
