#pragma once

#include <Tavro8/GDRV/IDevice.h>
#include <Tavro8/GDRV/IDeviceDescription.h>
#include <Tavro8/GDRV/IDeviceDiscovery.h>
#include <Tavro8/GDRV/IDeviceInformation.h>
#include <Tavro8/GDRV/IModuleContext.h>
#include <Tavro8/ResultCode.h>
#include <Tavro8/SdkVersion.h>

namespace Tavro8::GDRV
{
/// The module as the host sees it; what `getModule` returns. Not owned by the host and not to be used after
/// `finiModule`. Any thread.
class IModule : public IContract {
public:
    virtual std::uint32_t GetSdkVersion() const noexcept = 0;  ///< slot 3: what the module was compiled against
    virtual const char* GetModuleName() const noexcept = 0;    ///< slot 4: UTF-8, for people

    /// Slot 5. Makes a device that is not connected yet. The host destroys every device before `finiModule`.
    virtual std::int32_t CreateDevice(const IDeviceDescription* description, IDeviceHandler* handler,
                                      IDevice** device) noexcept = 0;

    /// Slot 6. Makes a discovery of devices in the network.
    virtual std::int32_t CreateDiscovery(IDeviceDiscoveryHandler* handler, IDeviceDiscovery** discovery) noexcept = 0;

    // Facilities that a module may offer beside devices. `*facility` is null and the result 8 when it does not.
    virtual std::int32_t CreateFirmwareUpdater(IContract** facility) noexcept = 0;   ///< slot 7
    virtual std::int32_t CreateConfigurator(IContract** facility) noexcept = 0;      ///< slot 8
    virtual std::int32_t CreateLicenceInspector(IContract** facility) noexcept = 0;  ///< slot 9
};

/// Types of a module's three entry points; each is exported under its name with C linkage.
///
/// All three are called from one thread and never at the same time as each other.
extern "C" {
using InitModule = bool (*)(IModuleContext* host, const char* moduleIdentifier);  ///< "initModule"
using GetModule = IModule* (*)();                                                 ///< "getModule"
using FiniModule = void (*)();  ///< "finiModule": afterwards the library may be unloaded
}
}  // namespace Tavro8::GDRV
