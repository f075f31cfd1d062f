#pragma once

#include <Tavro8/GDRV/IModule.h>
#include <cstdint>
#include <exception>
#include <memory>
#include <type_traits>
#include <utility>

namespace Tavro8::Utility
{
/// Stands for a module-level facility that a module does not offer; the host is told "not supported".
struct notImplemented {};

/// Says what a module consists of.
///
/// `Settings` is the module's settings class and makes its objects:
///
///     const char* getModuleName() const noexcept;
///     std::int32_t createDevice(const GDRV::IDeviceDescription&, GDRV::IDeviceHandler*, GDRV::IDevice**);
///     std::int32_t createDiscovery(GDRV::IDeviceDiscoveryHandler*, GDRV::IDeviceDiscovery**);
///
/// A facility is a class derived from `IContract` that is constructed from `std::shared_ptr<Settings>`, or
/// `notImplemented`.
template <typename SettingsType, typename FirmwareUpdaterType, typename ConfiguratorType, typename LicenceInspectorType>
struct ModuleDriverTraits {
    using Settings = SettingsType;
    using FirmwareUpdater = FirmwareUpdaterType;
    using Configurator = ConfiguratorType;
    using LicenceInspector = LicenceInspectorType;
};

/// The module object that `getModule` returns. Its only state is the shared settings. Any thread.
template <typename Traits>
class ModuleDriver final : public GDRV::IModule {
public:
    using Settings = typename Traits::Settings;

    explicit ModuleDriver(std::shared_ptr<Settings> settings) noexcept : settings(std::move(settings)) {}

    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<GDRV::IModule, IContract>(this, name);
    }

    std::uint32_t GetSdkVersion() const noexcept override { return sdkVersion; }
    const char* GetModuleName() const noexcept override { return settings->getModuleName(); }

    std::int32_t CreateDevice(const GDRV::IDeviceDescription* description, GDRV::IDeviceHandler* handler,
                              GDRV::IDevice** device) noexcept override
    {
        return create(device, [&] {
            return description == nullptr ? toResult(ResultCode::invalidArgument)
                                          : settings->createDevice(*description, handler, device);
        });
    }

    std::int32_t CreateDiscovery(GDRV::IDeviceDiscoveryHandler* handler,
                                 GDRV::IDeviceDiscovery** discovery) noexcept override
    {
        return create(discovery, [&] { return settings->createDiscovery(handler, discovery); });
    }

    std::int32_t CreateFirmwareUpdater(IContract** facility) noexcept override
    {
        return createFacility<typename Traits::FirmwareUpdater>(facility);
    }
    std::int32_t CreateConfigurator(IContract** facility) noexcept override
    {
        return createFacility<typename Traits::Configurator>(facility);
    }
    std::int32_t CreateLicenceInspector(IContract** facility) noexcept override
    {
        return createFacility<typename Traits::LicenceInspector>(facility);
    }

private:
    template <typename Interface, typename Body>
    static std::int32_t create(Interface** object, Body&& body) noexcept
    {
        if (object == nullptr)
            return toResult(ResultCode::invalidArgument);
        *object = nullptr;
        try {
            return std::forward<Body>(body)();
        } catch (const std::bad_alloc&) {
            return toResult(ResultCode::noResources);
        } catch (...) {
            return toResult(ResultCode::unexpected);
        }
    }

    template <typename Facility>
    std::int32_t createFacility(IContract** facility) noexcept
    {
        return create(facility, [&] {
            if constexpr (std::is_same_v<Facility, notImplemented>) {
                return toResult(ResultCode::notSupported);
            } else {
                *facility = std::make_unique<Facility>(settings).release();
                return toResult(ResultCode::success);
            }
        });
    }

    std::shared_ptr<Settings> settings;
};
}  // namespace Tavro8::Utility
