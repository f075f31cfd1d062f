#pragma once

#include <charconv>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kelvo::bench
{
/// The arguments of a bench program: `--name value`, all of them optional.
class Arguments {
public:
    /// Throws std::runtime_error for a name that is not among `known` and for one without a value.
    Arguments(int argc, char** argv, const std::set<std::string_view>& known)
    {
        for (int i = 1; i < argc; i += 2) {
            const std::string_view name = argv[i];
            if (!name.starts_with("--") || !known.contains(name.substr(2)) || i + 1 == argc)
                throw std::runtime_error(usage(argv[0], known));
            values[std::string(name.substr(2))] = argv[i + 1];
        }
    }

    std::string text(const std::string& name, std::string fallback = {}) const
    {
        const auto found = values.find(name);
        return found == values.end() ? std::move(fallback) : found->second;
    }

    template <typename Number>
    Number number(const std::string& name, Number fallback) const
    {
        const auto found = values.find(name);
        if (found == values.end())
            return fallback;
        const std::string& value = found->second;
        Number result{};
        const auto read = std::from_chars(value.data(), value.data() + value.size(), result);
        if (read.ec != std::errc{} || read.ptr != value.data() + value.size() || result < 0)
            throw std::runtime_error("--" + name + ": '" + value + "' is no number that can be meant");
        return result;
    }

private:
    static std::string usage(const char* program, const std::set<std::string_view>& known)
    {
        std::string usage = std::string("usage: ") + program;
        for (const std::string_view name : known)
            usage += " [--" + std::string(name) + " VALUE]";
        return usage;
    }

    std::map<std::string, std::string> values;
};
}  // namespace kelvo::bench
