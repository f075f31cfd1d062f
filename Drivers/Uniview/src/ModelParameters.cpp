#include "ModelParameters.h"

#include "Device.h"

#include <stdexcept>
#include <string>

namespace Uniview
{
namespace
{
/// The cast error, with the parameter in its text.
class WrongType final : public boost::bad_any_cast {
public:
    explicit WrongType(const char* key) : text(std::string("the model parameter \"") + key + "\" has the wrong type") {}
    const char* what() const noexcept override { return text.c_str(); }

private:
    const std::string text;
};
}  // namespace

ModelParameters ModelParameters::ofChannel(const DeviceTraits& traits, std::uint32_t channel) noexcept
{
    static const Tavro8::ParameterMap none;
    const auto& channels = traits.channelModelParameters;
    return ModelParameters(channel < channels.size() ? channels[channel] : none);
}

template <typename T>
T ModelParameters::get(const char* key) const
{
    const auto found = parameters.find(key);
    if (found == parameters.end())
        return T{};
    const T* const value = boost::any_cast<T>(&found->second);
    if (value == nullptr)
        throw WrongType(key);
    return *value;
}

bool ModelParameters::flag(const char* key) const
{
    return get<bool>(key);
}

Tavro8::TextMap ModelParameters::texts(const char* key) const
{
    return get<Tavro8::TextMap>(key);
}

std::uint32_t ModelParameters::count(const char* key, int greatest) const
{
    const int value = get<int>(key);
    if (value < 0 || value > greatest)
        throw std::out_of_range(std::string("the model parameter \"") + key + "\" is out of range");
    return static_cast<std::uint32_t>(value);
}
}  // namespace Uniview
