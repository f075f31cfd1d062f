#pragma once

#include "TemporaryDirectory.h"

#include <chrono>
#include <json/value.h>
#include <map>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace Host
{
/// A program that runs beside the test, with its output read as it comes. Nothing waits for ever: what takes
/// longer than `patience` fails the test and ends the program.
class ChildProcess {
public:
    /// `environment` is laid over that of the test.
    ChildProcess(const std::vector<std::string>& arguments, const std::map<std::string, std::string>& environment);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Reads until `text` has appeared on standard output or on standard error.
    void awaitOutput(const std::string& text) { await(output, text); }
    void awaitErrors(const std::string& text) { await(errors, text); }

    void sendSignal(int number) const;

    /// Reads to the end and gives the exit status; -1 when a signal ended the program.
    int awaitEnd();

    const std::string& getOutput() const noexcept { return output; }
    const std::string& getErrors() const noexcept { return errors; }
    std::string getAll() const { return output + errors; }

    /// The lines of standard output as JSON.
    std::vector<Json::Value> getEvents() const;

    /// The last event of that name; null when there is none.
    Json::Value getEvent(const std::string& name) const;

private:
    void await(const std::string& stream, const std::string& text);
    bool readMore();
    void giveUp(const std::string& waitingFor);

    static constexpr std::chrono::seconds patience{20};

    pid_t process = -1;
    int outputPipe = -1;
    int errorPipe = -1;
    std::string output;
    std::string errors;
    const std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::now() + patience;
};

/// Runs kelvo-host with a settings repository of its own and, unless told otherwise, the sample module.
class HostFixture {
public:
    /// Arguments that every call has.
    std::vector<std::string> commonArguments(const std::filesystem::path& module) const;

    /// Runs it to its end with the sample module.
    const ChildProcess& run(const std::vector<std::string>& arguments);

    /// Starts it with the sample module.
    ChildProcess& start(const std::vector<std::string>& arguments);

    /// Runs another program to its end, for example ffprobe.
    const ChildProcess& runProgram(const std::vector<std::string>& arguments);

    static std::filesystem::path moduleFile(const std::string& name);

    TemporaryDirectory directory;
    std::map<std::string, std::string> environment;
    std::unique_ptr<ChildProcess> child;
    int status = -1;  ///< of the last run
};
}  // namespace Host
