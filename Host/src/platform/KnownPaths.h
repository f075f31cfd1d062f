#pragma once

#include <filesystem>

namespace Host
{
/// Directory of this program's file, where the module lies beside it.
std::filesystem::path programDirectory();

/// Directory for what the program keeps between runs for this user. Need not exist yet.
std::filesystem::path userStateDirectory();
}  // namespace Host
