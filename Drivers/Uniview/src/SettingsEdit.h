#pragma once

#include <Tavro8/ParameterMap.h>
#include <Tavro8/ResultCode.h>
#include <cstdint>
#include <json/value.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Uniview::settings
{
/// What became of the data of one resource. Converts to true when they have changed and are to be written back.
struct Edit {
    bool changed = false;
    std::int32_t result = 0;  ///< for the host; not 0 when nothing may be written
    std::string message;      ///< for the log when `result` is not 0
    std::string note{};       ///< for the log when `result` is 0: which value was not followed to the letter, and why

    explicit operator bool() const noexcept { return changed; }
};

/// Ends the editing of a resource; nothing is written.
class Refusal final : public std::runtime_error {
public:
    Refusal(Tavro8::ResultCode code, const std::string& message)
        : std::runtime_error(message), result(Tavro8::toResult(code))
    {}
    std::int32_t getResult() const noexcept { return result; }

private:
    std::int32_t result;
};

/// The values that the host has given, by the exact name. What is not there, or is there without a value, is nothing;
/// what has the wrong type or cannot be converted raises a `Refusal` with the words of the conversion and the name.
class Given {
public:
    /// `parameters` must outlive the object.
    explicit Given(const Tavro8::ParameterMap& parameters) noexcept : parameters(parameters) {}

    bool has(const char* name) const { return find(name) != nullptr; }
    std::optional<int> integer(const char* name) const;
    std::optional<std::string> text(const char* name) const;
    /// An integer, or the text of one.
    std::optional<int> number(const char* name) const;
    /// An integer, flag, finite fraction or text, as the host gives it.
    std::optional<Json::Value> asGiven(const char* name) const;

private:
    const boost::any* find(const char* name) const;

    const Tavro8::ParameterMap& parameters;
};

/// The parts of a text between the letters x; at least one, and each may be empty.
std::vector<std::string> splitAtX(const std::string& text);
/// A positive number of pixels or pictures, read as the host's other numbers. `name` is of the parameter.
int positive(const std::string& digits, const char* name);

/// The member of that name, made when it is missing. One that is no object is the device's, and raises a `Refusal`.
Json::Value& subObject(Json::Value& parent, const char* name);

/// "Resolution" of `parent`; what else is in there stays.
void setResolution(Json::Value& parent, int width, int height);

/// Runs `body`, which edits and says whether it has changed anything. Nothing is thrown for what host or device give.
template <typename Body>
Edit edit(Body&& body)
try {
    return {std::forward<Body>(body)(), 0, {}, {}};
} catch (const Refusal& e) {
    return {false, e.getResult(), e.what(), {}};
}
}  // namespace Uniview::settings
