#include <IpUtil/ParametersContainer.h>
#include <Tavro8/ResultCode.h>
#include <utility>

namespace Tavro8::Utility
{
void SimpleAdjuster::add(const std::string& key, Apply apply)
{
    entries[key] = std::move(apply);
}

std::int32_t SimpleAdjuster::apply(const ParameterMap& parameters) const
{
    bool known = parameters.empty();  // nothing was asked for, so nothing was unknown
    bool refused = false;
    for (const auto& [key, value] : parameters) {
        const auto entry = entries.find(key);
        if (entry == entries.end() || entry->second == nullptr)
            continue;
        known = true;
        try {
            entry->second(value);
        } catch (...) {  // whoever applies a value logs why it is refused; here only the outcome counts
            refused = true;
        }
    }
    if (!known)
        return toResult(ResultCode::notSupported);
    return toResult(refused ? ResultCode::invalidArgument : ResultCode::success);
}
}  // namespace Tavro8::Utility
