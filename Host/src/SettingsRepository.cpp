#include "SettingsRepository.h"

#include "ExitStatus.h"

#include <fstream>

namespace Host
{
namespace fs = std::filesystem;
namespace
{
constexpr const char* emptyRepository =
    "; Settings of the driver module, one \"key = value\" a line, UTF-8. For example the address and port on which\n"
    "; devices deliver their notifications:\n"
    ";localServerIP = 192.0.2.1\n"
    ";localServerPort = 32000\n";
}

void provideSettingsRepository(const fs::path& directory)
{
    const fs::path file = directory / moduleIdentifier / "Kelvo.Uniview.rep";
    std::error_code error;
    if (fs::exists(file, error))
        return;
    fs::create_directories(file.parent_path(), error);
    if (!error && (std::ofstream(file) << emptyRepository << std::flush))
        return;
    throw Failure(ExitStatus::failed, "cannot write the settings repository " + file.string() +
                                          (error ? ": " + error.message() : std::string()) +
                                          "; name another directory with --repository");
}
}  // namespace Host
