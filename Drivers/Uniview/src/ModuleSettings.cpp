#include "ModuleSettings.h"

#include "ProcessRecord.h"

namespace Uniview
{
ModuleSettings::LoggerHolder& ModuleSettings::loggerHolder()
{
    return processRecord<LoggerHolder>();
}

Tavro8::Utility::LifetimeGate& ModuleSettings::lifetimeGate()
{
    static Tavro8::Utility::LifetimeGate gate;
    return gate;
}
}  // namespace Uniview
