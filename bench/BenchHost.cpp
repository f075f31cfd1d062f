#include "BenchHost.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <stdexcept>

namespace kelvo::bench
{
using namespace Tavro8;
using namespace Tavro8::GDRV;
namespace
{
constexpr const char* moduleName = "Kelvo.Uniview";

class Logger final : public ILogger {
public:
    void* FindContract(const char* name) noexcept override { return findContractIn<ILogger, IContract>(this, name); }
    LogSeverity GetLevel() const noexcept override { return LogSeverity::warning; }
    void Log(LogSeverity, const char* function, const char*, int, const char* message) noexcept override
    {
        std::fprintf(stderr, "%s: %s\n", function, message);
    }
    void Destroy() noexcept override {}
};
}  // namespace

/// An empty settings repository, for as long as the module is loaded.
class HostedModule::Repository {
public:
    Repository()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "bench-host-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("no directory can be made for the settings");
        folder = pattern;
        std::filesystem::create_directory(folder / moduleName);
        std::ofstream(folder / moduleName / "Kelvo.Uniview.rep") << "";
    }
    ~Repository()
    {
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    Repository(const Repository&) = delete;
    Repository& operator=(const Repository&) = delete;

    std::filesystem::path folder;
};

/// The same few lines as in docs/examples/FirstFrame.cpp, which is to be read alone and therefore shares nothing.
class HostedModule::Context final : public IModuleContext, public ILoggingContext {
public:
    explicit Context(const std::filesystem::path& repositoryFolder) : repository(repositoryFolder.wstring()) {}

    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<IModuleContext, ILoggingContext>(this, name);
    }
    ILoggingContext* GetLoggingContext() noexcept override { return this; }
    std::uint32_t GetSdkVersion() noexcept override { return sdkVersion; }
    ILogger* GetLogger() noexcept override { return &logger; }
    const wchar_t* GetRepositoryDirectory() noexcept override { return repository.c_str(); }
    const wchar_t* GetLogFile() noexcept override { return nullptr; }

private:
    Logger logger;
    std::wstring repository;
};

HostedModule::HostedModule(const std::string& path)
    : repository(std::make_unique<Repository>()),
      context(std::make_unique<Context>(repository->folder)),
      library(::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (library == nullptr)
        throw std::runtime_error(::dlerror());
    const auto initModule = reinterpret_cast<InitModule>(::dlsym(library, "initModule"));
    const auto getModule = reinterpret_cast<GetModule>(::dlsym(library, "getModule"));
    finiModule = reinterpret_cast<FiniModule>(::dlsym(library, "finiModule"));
    if (initModule == nullptr || getModule == nullptr || finiModule == nullptr)
        throw std::runtime_error(path + " is no driver module");
    if (!initModule(context.get(), moduleName))
        throw std::runtime_error("the module refuses to start");
    module = getModule();
}

HostedModule::~HostedModule()
{
    finiModule();
    ::dlclose(library);
}

std::string HostedModule::builtPath()
{
    return KELVO_BIN "/Kelvo.Uniview.ipd";
}

void* CameraDescription::FindContract(const char* name) noexcept
{
    return findContractIn<IDeviceDescription, IContract>(this, name);
}
}  // namespace kelvo::bench
