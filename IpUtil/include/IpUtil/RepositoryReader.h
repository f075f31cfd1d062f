#pragma once

#include <IpUtil/Export.h>
#include <IpUtil/Wide.h>  // IWYU pragma: export
#include <Tavro8/GDRV/IModuleContext.h>
#include <Tavro8/ParameterMap.h>
#include <string>

namespace Tavro8::Utility
{
/// Reads settings repositories: UTF-8 text files of `key = value` lines. `;` or `#` begins a comment line. Keys below
/// a `[section]` line are named `section.key`; a key without a section may contain dots itself.
class IPUTIL_API RepositoryReader {
public:
    /// `context` gives the repository directory and the logger for failures; must outlive the reader.
    explicit RepositoryReader(GDRV::ILoggingContext* context) noexcept : context(context) {}

    /// `<repository directory>/<module identifier>/<file name>`.
    std::wstring join(const std::wstring& moduleIdentifier, const std::wstring& fileName) const;

    /// Loads all keys of the file into `target` as texts and returns 0. A missing or unreadable file, a line that is
    /// no setting and a key that comes twice give a non-zero `ResultCode`, a log line that names the file and the
    /// reason, and an untouched target. Never throws.
    int load(const std::wstring& path, ParameterMap& target) const;

private:
    GDRV::ILoggingContext* context;
};
}  // namespace Tavro8::Utility
