#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace simulator::test
{

/// A child process with pipes to its standard streams; killed and reaped when this object goes.
class ChildProcess {
public:
    /// Looks the program up in PATH. Throws std::runtime_error when it cannot be started.
    explicit ChildProcess(const std::vector<std::string>& command);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    using Clock = std::chrono::steady_clock;

    /// The next line of standard output without its end; nothing when none came in time or the output ended.
    std::optional<std::string> readLine(Clock::time_point deadline);
    void closeInput();
    void signal(int number);
    /// Reads both outputs to their end and waits for the exit; the exit status, 128 + signal, or nothing when the
    /// time is over.
    std::optional<int> wait(Clock::time_point deadline);

    const std::string& output() const { return collected[0]; }
    const std::string& errors() const { return collected[1]; }

private:
    /// Reads what both outputs hold; false when the time is over or both have ended.
    bool readSome(Clock::time_point deadline);

    int process = -1;
    int input = -1;
    int outputs[2] = {-1, -1};  ///< standard output and error, -1 once ended
    std::string collected[2];
    std::size_t linesEnd = 0;  ///< how far `readLine` has come in the output
    std::optional<int> exitStatus;
};

/// What a finished program left behind.
struct ProgramResult {
    int status = -1;  ///< -1: it did not end in time and was killed
    std::string output;
    std::string errors;
};

/// Runs a program to its end, which comes within `limit`.
ProgramResult runProgram(const std::vector<std::string>& command,
                         std::chrono::milliseconds limit = std::chrono::seconds(20));

}  // namespace simulator::test
