#include "LoadedModule.h"

#include "ExitStatus.h"

#include <Tavro8/SdkVersion.h>
#include <string>

namespace Host
{
namespace fs = std::filesystem;
namespace GDRV = Tavro8::GDRV;
namespace
{
SharedLibrary load(const fs::path& path)
{
    std::error_code error;
    if (!fs::exists(path, error))
        throw Failure(ExitStatus::failed, "there is no module " + path.string() + "; name it with --module");
    try {
        // A bare file name would be looked for in the system's directories.
        return SharedLibrary(fs::absolute(path));
    } catch (const std::runtime_error& e) {
        throw Failure(ExitStatus::failed, path.string() + " cannot be loaded as a module: " + e.what());
    }
}

template <typename EntryPoint>
EntryPoint entryPoint(const SharedLibrary& library, const char* name)
{
    if (const auto function = library.find<EntryPoint>(name))
        return function;
    throw Failure(ExitStatus::failed, std::string("the library is no driver module: it exports no ") + name);
}

std::string versionText(std::uint32_t version)
{
    return std::to_string(Tavro8::sdkMajor(version)) + '.' + std::to_string(Tavro8::sdkMinor(version));
}

GDRV::IModule* askForModule(const SharedLibrary& library)
{
    GDRV::IModule* module = entryPoint<GDRV::GetModule>(library, "getModule")();
    if (module == nullptr)
        throw Failure(ExitStatus::failed, "the module initialised itself but offers no module object");
    if (const std::uint32_t wanted = module->GetSdkVersion(); !Tavro8::sdkServes(Tavro8::sdkVersion, wanted))
        throw Failure(ExitStatus::failed, "the module was built for version " + versionText(wanted) +
                                              " of the host SDK and this host offers version " +
                                              versionText(Tavro8::sdkVersion));
    return module;
}
}  // namespace

LoadedModule::Initialised::Initialised(const SharedLibrary& library, GDRV::IModuleContext& context,
                                       const char* identifier)
    : finiModule(entryPoint<GDRV::FiniModule>(library, "finiModule"))
{
    // All three are looked for before the first is called, so that nothing has to be taken back.
    const auto initModule = entryPoint<GDRV::InitModule>(library, "initModule");
    entryPoint<GDRV::GetModule>(library, "getModule");
    if (!initModule(&context, identifier))
        throw Failure(ExitStatus::failed, "the module refused to start: initModule returned false; the log "
                                          "(--log-level debug) may say why");
}

LoadedModule::LoadedModule(const fs::path& path, GDRV::IModuleContext& context, const char* identifier)
    : library(load(path)), initialised(library, context, identifier), module(askForModule(library))
{}
}  // namespace Host
