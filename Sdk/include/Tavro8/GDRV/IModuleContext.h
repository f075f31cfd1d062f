#pragma once

#include <Tavro8/ILogger.h>
#include <cstdint>

namespace Tavro8::GDRV
{
/// The module's place in the host: where its log lines go and where its files are.
/// Lives at least until `finiModule` has returned. Any thread.
class ILoggingContext : public IContract {
public:
    /// Slot 3. The host's logger, or null when the host wants no log. Not owned by the module.
    virtual ILogger* GetLogger() noexcept = 0;

    /// Slot 4. Directory of the settings repositories, without a trailing separator. The module reads
    /// `<directory>/<module identifier>/Kelvo.Uniview.rep`.
    virtual const wchar_t* GetRepositoryDirectory() noexcept = 0;

    /// Slot 5. File that the module's log lines are also written to, rotated by size; null or empty for none.
    virtual const wchar_t* GetLogFile() noexcept = 0;
};

/// What the host hands to `initModule`. Lives at least until `finiModule` has returned.
class IModuleContext : public IContract {
public:
    /// Slot 3. The logging context; never null.
    virtual ILoggingContext* GetLoggingContext() noexcept = 0;

    /// Slot 4. The SDK version that the host was compiled against (`Tavro8::sdkVersion`).
    virtual std::uint32_t GetSdkVersion() noexcept = 0;
};
}  // namespace Tavro8::GDRV
