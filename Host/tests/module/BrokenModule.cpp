// Modules that a host must refuse; the build makes one of each kind.
#include <Tavro8/GDRV/IModule.h>

#if defined(_WIN32)
#define BROKEN_EXPORT extern "C" __declspec(dllexport)
#else
#define BROKEN_EXPORT extern "C" __attribute__((visibility("default")))
#endif

#if defined(BROKEN_WITHOUT_FINI)
BROKEN_EXPORT bool initModule(Tavro8::GDRV::IModuleContext*, const char*)
{
    return true;
}
BROKEN_EXPORT Tavro8::GDRV::IModule* getModule()
{
    return nullptr;
}
#elif defined(BROKEN_REFUSING) || defined(BROKEN_WITHOUT_OBJECT)
BROKEN_EXPORT bool initModule(Tavro8::GDRV::IModuleContext*, const char*)
{
#if defined(BROKEN_REFUSING)
    return false;
#else
    return true;
#endif
}
BROKEN_EXPORT Tavro8::GDRV::IModule* getModule()
{
    return nullptr;
}
BROKEN_EXPORT void finiModule() {}
#else  // of a later SDK
namespace
{
namespace GDRV = Tavro8::GDRV;

class LaterModule final : public GDRV::IModule {
public:
    void* FindContract(const char*) noexcept override { return nullptr; }
    std::uint32_t GetSdkVersion() const noexcept override
    {
        return Tavro8::makeSdkVersion(Tavro8::sdkMajor(Tavro8::sdkVersion) + 1, 7);
    }
    const char* GetModuleName() const noexcept override { return "Later"; }
    std::int32_t CreateDevice(const GDRV::IDeviceDescription*, GDRV::IDeviceHandler*, GDRV::IDevice**) noexcept override
    {
        return 8;
    }
    std::int32_t CreateDiscovery(GDRV::IDeviceDiscoveryHandler*, GDRV::IDeviceDiscovery**) noexcept override
    {
        return 8;
    }
    std::int32_t CreateFirmwareUpdater(Tavro8::IContract**) noexcept override { return 8; }
    std::int32_t CreateConfigurator(Tavro8::IContract**) noexcept override { return 8; }
    std::int32_t CreateLicenceInspector(Tavro8::IContract**) noexcept override { return 8; }
};

LaterModule module;
}  // namespace

BROKEN_EXPORT bool initModule(Tavro8::GDRV::IModuleContext*, const char*)
{
    return true;
}
BROKEN_EXPORT Tavro8::GDRV::IModule* getModule()
{
    return &module;
}
BROKEN_EXPORT void finiModule() {}
#endif
