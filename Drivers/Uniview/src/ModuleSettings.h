#pragma once

#include <IpUtil/GlobalService.h>
#include <IpUtil/Logger.h>
#include <Tavro8/GDRV/IModule.h>
#include <Tavro8/ParameterMap.h>
#include <cstdint>

namespace Uniview
{
/// What the module has read from its settings repository, and the maker of its devices. Held by shared ownership.
/// Filled before the module object exists and constant from then on.
class ModuleSettings {
public:
    /// The loggers of the module, one record for the process. Filled by `initModule`, emptied by `finiModule`.
    class LoggerHolder {
    public:
        virtual ~LoggerHolder() = default;

        Tavro8::GDRV::IModuleContext* host = nullptr;             ///< what `initModule` was given
        Tavro8::GDRV::ILoggingContext* loggingContext = nullptr;  ///< the host's logging context
        Tavro8::LoggerOwner fileLogger;                           ///< the logger that every part of the module uses
    };
    static LoggerHolder& loggerHolder();

    /// Counts the module's objects that are still in use; `finiModule` waits for it.
    static Tavro8::Utility::LifetimeGate& lifetimeGate();

    /// All keys of the repository, as texts.
    Tavro8::ParameterMap properties;

    const char* getModuleName() const noexcept { return "Uniview"; }

    // The makers of the module's objects are defined with the module, above the objects themselves.
    std::int32_t createDevice(const Tavro8::GDRV::IDeviceDescription& description,
                              Tavro8::GDRV::IDeviceHandler* handler, Tavro8::GDRV::IDevice** device) const;

    /// Devices are not searched for in the network yet: "not supported".
    std::int32_t createDiscovery(Tavro8::GDRV::IDeviceDiscoveryHandler* handler,
                                 Tavro8::GDRV::IDeviceDiscovery** discovery) const noexcept;
};
}  // namespace Uniview
