#pragma once

#include <IpUtil/Export.h>
#include <Tavro8/GDRV/IModuleContext.h>
#include <Tavro8/ParameterMap.h>
#include <string>
#include <string_view>

namespace Tavro8::Utility
{
/// Narrow text (UTF-8) as wide text; bytes that are no UTF-8 become U+FFFD.
IPUTIL_API std::wstring toWide(std::string_view text);

/// Reads settings repositories: UTF-8 text files of `key = value` lines, `;` begins a comment line.
class IPUTIL_API RepositoryReader {
public:
    /// `context` gives the repository directory and the logger for failures; must outlive the reader.
    explicit RepositoryReader(GDRV::ILoggingContext* context) noexcept : context(context) {}

    /// `<repository directory>/<module identifier>/<file name>`.
    std::wstring join(const std::wstring& moduleIdentifier, const std::wstring& fileName) const;

    /// Loads all keys of the file into `target` as texts and returns 0. A missing or unreadable file gives a
    /// non-zero `ResultCode`, a log line that names the file and the reason, and an untouched target.
    int load(const std::wstring& path, ParameterMap& target) const;

private:
    GDRV::ILoggingContext* context;
};
}  // namespace Tavro8::Utility
