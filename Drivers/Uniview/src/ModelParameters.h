#pragma once

#include <Tavro8/ParameterMap.h>
#include <boost/any.hpp>
#include <cstdint>
#include <limits>

namespace Uniview
{
struct DeviceTraits;

/// Parameters of a device's model as the host's configuration gives them. What is not set is false and 0; a value of
/// another type raises a `boost::bad_any_cast` that names the parameter.
class ModelParameters {
public:
    /// `parameters` must outlive the object.
    explicit ModelParameters(const Tavro8::ParameterMap& parameters) noexcept : parameters(parameters) {}
    /// Those of a channel, none when the configuration does not know the channel. `traits` must outlive the object.
    static ModelParameters ofChannel(const DeviceTraits& traits, std::uint32_t channel) noexcept;

    bool flag(const char* key) const;
    /// Raises `std::out_of_range` when the number is negative or above `greatest`.
    std::uint32_t count(const char* key, int greatest = std::numeric_limits<int>::max()) const;
    Tavro8::TextMap texts(const char* key) const;

private:
    template <typename T>
    T get(const char* key) const;

    const Tavro8::ParameterMap& parameters;
};
}  // namespace Uniview
