#pragma once

namespace Host
{
/// The whole program: understands the command line, runs the command, and says how it ended (`ExitStatus`).
/// Call it first thing on the main thread.
int runProgram(int argc, const char* const* argv);
}  // namespace Host
