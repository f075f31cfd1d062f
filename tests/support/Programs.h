#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

// Programs that run beside a test, started as their users start them. Written for POSIX. The simulator's tests use
// this as well: nothing of the SDK or of IpUtil belongs here.
namespace kelvo::test
{

/// The path of a program or library of the build, relative to the folder where they land. Throws std::runtime_error
/// when the test was not started by CTest, which names that folder in the environment variable KELVO_BIN.
std::string programUnderTest(const std::string& name);

using Environment = std::map<std::string, std::string>;

/// A child process with pipes to its standard streams; killed and reaped when this object goes. One thread.
class ChildProcess {
public:
    /// Looks the program up in PATH; `environment` is laid over that of the test. Throws std::runtime_error when the
    /// program cannot be started.
    explicit ChildProcess(const std::vector<std::string>& command, const Environment& environment = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    using Clock = std::chrono::steady_clock;

    /// The next line of standard output without its end; nothing when none came in time or the output ended.
    std::optional<std::string> readLine(Clock::time_point deadline);
    void closeInput();
    void signal(int number);
    /// Reads both outputs to their end and waits for the exit; the exit status, the negative number of the signal
    /// that ended it, or nothing when the time is over.
    std::optional<int> wait(Clock::time_point deadline);

    /// Read until `text` has appeared on standard output or on standard error. One that does not appear within 20 s
    /// fails the test and ends the program.
    void awaitOutput(const std::string& text) { awaitText(collected[0], text); }
    void awaitErrors(const std::string& text) { awaitText(collected[1], text); }
    /// As `wait`. A program that does not end within 20 s fails the test and is ended.
    int awaitEnd();

    const std::string& output() const { return collected[0]; }
    const std::string& errors() const { return collected[1]; }
    std::string all() const { return output() + errors(); }

private:
    /// Reads what both outputs hold; false when the time is over or both have ended.
    bool readSome(Clock::time_point deadline);
    void awaitText(const std::string& stream, const std::string& text);
    void giveUp(const std::string& waitingFor);

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

}  // namespace kelvo::test
