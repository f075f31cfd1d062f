#pragma once

#include <Tavro8/GDRV/IModuleContext.h>
#include <filesystem>
#include <string>

namespace Host
{
/// What this host hands to `initModule`. Immutable, so that any thread may ask.
class HostContext final : public Tavro8::GDRV::IModuleContext {
public:
    /// `hostLogger` outlives the context, which outlives the module.
    HostContext(Tavro8::ILogger& hostLogger, const std::filesystem::path& repositoryDirectory,
                const std::filesystem::path& logFile);

    void* FindContract(const char* name) noexcept override;
    Tavro8::GDRV::ILoggingContext* GetLoggingContext() noexcept override { return &logging; }
    std::uint32_t GetSdkVersion() noexcept override;

private:
    class Logging final : public Tavro8::GDRV::ILoggingContext {
    public:
        Logging(Tavro8::ILogger& hostLogger, std::wstring repositoryDirectory, std::wstring logFile);

        void* FindContract(const char* name) noexcept override;
        Tavro8::ILogger* GetLogger() noexcept override { return &logger; }
        const wchar_t* GetRepositoryDirectory() noexcept override { return repository.c_str(); }
        const wchar_t* GetLogFile() noexcept override { return file.c_str(); }

    private:
        Tavro8::ILogger& logger;
        const std::wstring repository;
        const std::wstring file;
    };

    Logging logging;
};
}  // namespace Host
