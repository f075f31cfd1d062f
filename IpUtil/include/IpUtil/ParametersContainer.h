#pragma once

#include <IpUtil/Export.h>
#include <Tavro8/ParameterMap.h>
#include <boost/any.hpp>
#include <boost/optional.hpp>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

namespace Tavro8::Utility
{
/// Parameters of a device or channel: what was set (persistent) and what holds otherwise (default).
/// Thread-safe.
class IPUTIL_API ParametersContainer {
public:
    ParametersContainer() = default;
    /// Takes a whole set as persistent parameters.
    explicit ParametersContainer(const ParameterMap& parameters) : persistent(parameters) {}

    /// Sets each parameter of the map, keeps the others.
    void setPersistentParams(const ParameterMap& parameters);
    void setPersistentParam(const std::string& key, boost::any value);
    /// What was set under `key`; nothing when it was not or was set empty.
    boost::optional<boost::any> getPersistentParam(const std::string& key) const;

    void setDefaultValue(const std::string& key, boost::any value);
    boost::optional<boost::any> getDefaultValue(const std::string& key) const;

    /// The persistent value, else the default, as `T`; nothing when there is neither. A value of another type
    /// raises `boost::bad_any_cast`.
    template <typename T>
    boost::optional<T> get(const std::string& key) const
    {
        auto value = getPersistentParam(key);
        if (!value)
            value = getDefaultValue(key);
        if (!value)
            return {};
        return boost::any_cast<T>(*value);
    }

    /// All persistent parameters.
    ParameterMap snapshot() const;

private:
    mutable std::mutex mutex;  // guards both maps
    ParameterMap persistent;
    ParameterMap defaults;
};

/// True when the parameter is not set, or is an empty text. A value that is no text raises the cast error.
/// Defined here, so that the error does not cross the boundary of the library.
inline bool isStringParameterEmpty(const ParametersContainer& parameters, const std::string& key)
{
    const auto text = parameters.get<std::string>(key);
    return !text || text->empty();
}

/// Applies changed settings: each known name has a function that takes the value. Unknown names are left alone.
/// Not thread-safe: filled while its device is being made, then called one at a time.
class IPUTIL_API SimpleAdjuster {
public:
    using Apply = std::function<void(const boost::any& value)>;

    void add(const std::string& key, Apply apply);
    bool isEmpty() const noexcept { return entries.empty(); }

    /// Calls the function of each parameter that has one, in the order of their names. A function that throws
    /// ends only its own parameter. Result: 0, 3 when a value was refused, 8 when no name is known; 0 for an
    /// empty map.
    std::int32_t apply(const ParameterMap& parameters) const;

private:
    std::map<std::string, Apply> entries;
};
}  // namespace Tavro8::Utility
