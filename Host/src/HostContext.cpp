#include "HostContext.h"

#include <Tavro8/SdkVersion.h>
#include <utility>

namespace Host
{
namespace GDRV = Tavro8::GDRV;

HostContext::HostContext(Tavro8::ILogger& hostLogger, const std::filesystem::path& repositoryDirectory,
                         const std::filesystem::path& logFile)
    : logging(hostLogger, repositoryDirectory.wstring(), logFile.wstring())
{}

void* HostContext::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<GDRV::IModuleContext, Tavro8::IContract>(this, name);
}

std::uint32_t HostContext::GetSdkVersion() noexcept
{
    return Tavro8::sdkVersion;
}

HostContext::Logging::Logging(Tavro8::ILogger& hostLogger, std::wstring repositoryDirectory, std::wstring logFile)
    : logger(hostLogger), repository(std::move(repositoryDirectory)), file(std::move(logFile))
{}

void* HostContext::Logging::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<GDRV::ILoggingContext, Tavro8::IContract>(this, name);
}
}  // namespace Host
