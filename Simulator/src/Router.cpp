#include "Router.h"

#include <optional>
#include <utility>

namespace simulator
{
namespace
{

std::vector<std::string> split(std::string_view path)
{
    std::vector<std::string> elements;
    for (;;) {
        const auto slash = path.find('/');
        elements.emplace_back(path.substr(0, slash));
        if (slash == path.npos)
            return elements;
        path.remove_prefix(slash + 1);
    }
}

/// The captured elements, or nothing when the path is another one.
std::optional<std::vector<std::string>> match(const std::vector<std::string>& pattern,
                                              const std::vector<std::string>& path)
{
    if (pattern.size() != path.size())
        return std::nullopt;
    std::vector<std::string> captures;
    for (std::size_t i = 0; i < path.size(); ++i) {
        if (pattern[i] == "{}" && !path[i].empty())
            captures.push_back(path[i]);
        else if (pattern[i] != path[i])
            return std::nullopt;
    }
    return captures;
}

}  // namespace

void Router::add(std::string method, std::string_view pattern, Handler handler)
{
    routes.push_back({std::move(method), split(pattern), std::move(handler)});
}

Router::Match Router::find(std::string_view method, std::string_view path) const
{
    const auto elements = split(path);
    Match result;
    for (const Route& route : routes) {
        auto captures = match(route.elements, elements);
        if (!captures)
            continue;
        result.pathKnown = true;
        if (route.method == method) {
            result.handler = &route.handler;
            result.captures = std::move(*captures);
            return result;
        }
    }
    return result;
}

}  // namespace simulator
