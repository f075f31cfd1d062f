#include "ChildProcess.h"

#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <poll.h>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace Host
{
namespace
{
/// Both ends are closed in programs started later, by this test or another.
std::array<int, 2> makePipe()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        throw std::runtime_error(std::strerror(errno));
    return ends;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& changes)
{
    std::vector<std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry)
        if (const std::string text = *entry; changes.count(text.substr(0, text.find('='))) == 0)
            merged.push_back(text);
    for (const auto& [name, value] : changes)
        merged.push_back(name + '=' + value);
    return merged;
}

/// Appends what can be read; closes the pipe at its end.
void readFrom(int& pipe, std::string& text)
{
    std::array<char, 4096> buffer{};
    const ssize_t count = read(pipe, buffer.data(), buffer.size());
    if (count > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(count));
    } else {
        close(pipe);
        pipe = -1;
    }
}
}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment)
{
    const auto outputEnds = makePipe();
    const auto errorEnds = makePipe();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, outputEnds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errorEnds[1], STDERR_FILENO);
    std::vector<std::string> argumentTexts = arguments;
    std::vector<std::string> environmentTexts = mergedEnvironment(environment);
    const int error = posix_spawnp(&process, arguments.front().c_str(), &actions, nullptr,
                                   pointersTo(argumentTexts).data(), pointersTo(environmentTexts).data());
    posix_spawn_file_actions_destroy(&actions);
    close(outputEnds[1]);
    close(errorEnds[1]);
    outputPipe = outputEnds[0];
    errorPipe = errorEnds[0];
    if (error != 0) {
        process = -1;
        ADD_FAILURE() << arguments.front() << " cannot be started: " << std::strerror(error);
    }
}

ChildProcess::~ChildProcess()
{
    if (process > 0) {
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
    for (const int pipe : {outputPipe, errorPipe})
        if (pipe >= 0)
            close(pipe);
}

bool ChildProcess::readMore()
{
    std::array<pollfd, 2> pipes{{{outputPipe, POLLIN, 0}, {errorPipe, POLLIN, 0}}};
    if (outputPipe < 0 && errorPipe < 0)
        return false;
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || poll(pipes.data(), pipes.size(), static_cast<int>(left.count())) <= 0)
        return false;
    if (pipes[0].revents != 0)
        readFrom(outputPipe, output);
    if (pipes[1].revents != 0)
        readFrom(errorPipe, errors);
    return true;
}

void ChildProcess::giveUp(const std::string& waitingFor)
{
    ADD_FAILURE() << "waited in vain for " << waitingFor << "\noutput: " << output << "\nerrors: " << errors;
    if (process > 0)
        kill(process, SIGKILL);
}

void ChildProcess::await(const std::string& stream, const std::string& text)
{
    while (stream.find(text) == std::string::npos)
        if (!readMore())
            return giveUp(text);
}

void ChildProcess::sendSignal(int number) const
{
    if (process > 0)
        kill(process, number);
}

int ChildProcess::awaitEnd()
{
    while (readMore()) {
    }
    if (outputPipe >= 0 || errorPipe >= 0)
        giveUp("the end of the program");
    if (process < 0)
        return -1;
    int state = 0;
    waitpid(process, &state, 0);  // it has closed its output, so it is at its end
    process = -1;
    return WIFEXITED(state) ? WEXITSTATUS(state) : -1;
}

std::vector<Json::Value> ChildProcess::getEvents() const
{
    std::vector<Json::Value> events;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream text(line);
        std::string problems;
        Json::Value event;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &event, &problems)) << line << problems;
        events.push_back(event);
    }
    return events;
}

Json::Value ChildProcess::getEvent(const std::string& name) const
{
    Json::Value found;
    for (const Json::Value& event : getEvents())
        if (event["event"] == name)
            found = event;
    return found;
}

std::vector<std::string> HostFixture::commonArguments(const std::filesystem::path& module) const
{
    return {KELVO_HOST_PROGRAM, "--repository", (directory / "repository").string(), "--module", module.string()};
}

ChildProcess& HostFixture::start(const std::vector<std::string>& arguments)
{
    std::vector<std::string> all = commonArguments(moduleFile("Sample.ipd"));
    all.insert(all.end(), arguments.begin(), arguments.end());
    child = std::make_unique<ChildProcess>(all, environment);
    return *child;
}

const ChildProcess& HostFixture::run(const std::vector<std::string>& arguments)
{
    status = start(arguments).awaitEnd();
    return *child;
}

const ChildProcess& HostFixture::runProgram(const std::vector<std::string>& arguments)
{
    child = std::make_unique<ChildProcess>(arguments, environment);
    status = child->awaitEnd();
    return *child;
}

std::filesystem::path HostFixture::moduleFile(const std::string& name)
{
    return std::filesystem::path(KELVO_TEST_MODULES) / name;
}
}  // namespace Host
