#include <IpUtil/ParametersContainer.h>
#include <utility>

namespace Tavro8::Utility
{
namespace
{
boost::optional<boost::any> find(const ParameterMap& parameters, const std::string& key)
{
    const auto found = parameters.find(key);
    if (found == parameters.end() || found->second.empty())
        return {};
    return found->second;
}
}  // namespace

void ParametersContainer::setPersistentParams(const ParameterMap& parameters)
{
    ParameterMap copy(parameters);  // before the lock: copying a value may run foreign code
    const std::lock_guard lock(mutex);
    for (auto& [key, value] : copy)
        persistent[key].swap(value);
}

void ParametersContainer::setPersistentParam(const std::string& key, boost::any value)
{
    const std::lock_guard lock(mutex);
    persistent[key].swap(value);
}

boost::optional<boost::any> ParametersContainer::getPersistentParam(const std::string& key) const
{
    const std::lock_guard lock(mutex);
    return find(persistent, key);
}

void ParametersContainer::setDefaultValue(const std::string& key, boost::any value)
{
    const std::lock_guard lock(mutex);
    defaults[key].swap(value);
}

boost::optional<boost::any> ParametersContainer::getDefaultValue(const std::string& key) const
{
    const std::lock_guard lock(mutex);
    return find(defaults, key);
}

ParameterMap ParametersContainer::snapshot() const
{
    const std::lock_guard lock(mutex);
    return persistent;
}
}  // namespace Tavro8::Utility
