// The three entry points of a driver module and the object behind them: the whole of what a host needs.
#include "Loop.h"
#include "SampleDevice.h"

#include <Tavro8/GDRV/IModule.h>
#include <Tavro8/ResultCode.h>
#include <memory>

#if defined(_WIN32)
#define SAMPLE_EXPORT extern "C" __declspec(dllexport)
#else
#define SAMPLE_EXPORT extern "C" __attribute__((visibility("default")))
#endif

namespace Sample
{
namespace GDRV = Tavro8::GDRV;
namespace
{
class Module final : public GDRV::IModule {
public:
    explicit Module(Tavro8::ILogger* hostLogger) : logger(hostLogger) {}

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<GDRV::IModule, Tavro8::IContract>(this, name);
    }
    std::uint32_t GetSdkVersion() const noexcept override { return Tavro8::sdkVersion; }
    const char* GetModuleName() const noexcept override { return "Sample"; }

    std::int32_t CreateDevice(const GDRV::IDeviceDescription* description, GDRV::IDeviceHandler* handler,
                              GDRV::IDevice** device) noexcept override
    try {
        if (device == nullptr)
            return Tavro8::toResult(Tavro8::ResultCode::invalidArgument);
        *device = nullptr;
        if (description == nullptr)
            return Tavro8::toResult(Tavro8::ResultCode::invalidArgument);
        if (logger != nullptr && Tavro8::wants(logger->GetLevel(), Tavro8::LogSeverity::debug))
            logger->Log(Tavro8::LogSeverity::debug, "Sample::Module::CreateDevice", "SampleModule", __LINE__,
                        description->GetName());
        *device = new SampleDevice(*description, handler, logger);
        return Tavro8::toResult(Tavro8::ResultCode::success);
    } catch (const std::exception&) {
        return Tavro8::toResult(Tavro8::ResultCode::noResources);
    }

    std::int32_t CreateDiscovery(GDRV::IDeviceDiscoveryHandler*, GDRV::IDeviceDiscovery** discovery) noexcept override
    {
        return notOffered(discovery);
    }
    std::int32_t CreateFirmwareUpdater(Tavro8::IContract** facility) noexcept override { return notOffered(facility); }
    std::int32_t CreateConfigurator(Tavro8::IContract** facility) noexcept override { return notOffered(facility); }
    std::int32_t CreateLicenceInspector(Tavro8::IContract** facility) noexcept override { return notOffered(facility); }

private:
    template <typename Object>
    static std::int32_t notOffered(Object** object) noexcept
    {
        *object = nullptr;
        return Tavro8::toResult(Tavro8::ResultCode::notSupported);
    }

    Tavro8::ILogger* const logger;  // the host's, which outlives the module; may be null
};

std::unique_ptr<Module> module;  // between initModule and finiModule
}  // namespace
}  // namespace Sample

SAMPLE_EXPORT bool initModule(Tavro8::GDRV::IModuleContext* host, const char* moduleIdentifier)
try {
    if (host == nullptr || moduleIdentifier == nullptr || Sample::module != nullptr)
        return false;
    if (!Tavro8::sdkServes(host->GetSdkVersion(), Tavro8::sdkVersion))
        return false;
    Sample::module = std::make_unique<Sample::Module>(host->GetLoggingContext()->GetLogger());
    return true;
} catch (const std::exception&) {
    return false;
}

SAMPLE_EXPORT Tavro8::GDRV::IModule* getModule()
{
    return Sample::module.get();
}

SAMPLE_EXPORT void finiModule()
{
    Sample::module.reset();
    Sample::endRetiredLoops();
}
