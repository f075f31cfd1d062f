#pragma once

#include "platform/SharedLibrary.h"

#include <Tavro8/GDRV/IModule.h>
#include <filesystem>

namespace Host
{
/// A driver module in this process: loaded and initialised by the constructor, finalised and unloaded by the
/// destructor. Every device must have been destroyed before that.
class LoadedModule {
public:
    /// `context` outlives the object. Throws `Failure` with a reason that a person understands.
    LoadedModule(const std::filesystem::path& path, Tavro8::GDRV::IModuleContext& context, const char* identifier);

    Tavro8::GDRV::IModule& operator*() const noexcept { return *module; }
    Tavro8::GDRV::IModule* operator->() const noexcept { return module; }

private:
    /// From a successful `initModule` to `finiModule`.
    class Initialised {
    public:
        Initialised(const SharedLibrary& library, Tavro8::GDRV::IModuleContext& context, const char* identifier);
        ~Initialised() { finiModule(); }
        Initialised(const Initialised&) = delete;
        Initialised& operator=(const Initialised&) = delete;

    private:
        Tavro8::GDRV::FiniModule finiModule;
    };

    SharedLibrary library;  // unloaded last
    Initialised initialised;
    Tavro8::GDRV::IModule* module;  // belongs to the module itself
};
}  // namespace Host
