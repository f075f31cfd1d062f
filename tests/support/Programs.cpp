#include "Programs.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

extern "C" {
#include <sys/pidfd.h>  // the C library of Debian 12 forgot to say that it is C
}

extern char** environ;

namespace kelvo::test
{
namespace
{

struct Pipe {
    int readEnd = -1;
    int writeEnd = -1;
};

Pipe makePipe()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::runtime_error("no pipe");
    return {ends[0], ends[1]};
}

int millisecondsUntil(ChildProcess::Clock::time_point deadline)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - ChildProcess::Clock::now()).count();
    return static_cast<int>(std::max<std::int64_t>(left, 0));
}

void closeOnce(int& descriptor)
{
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> mergedEnvironment(const Environment& changes)
{
    std::vector<std::string> merged;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (const std::string text = *entry; !changes.contains(text.substr(0, text.find('='))))
            merged.push_back(text);
    }
    for (const auto& [name, value] : changes)
        merged.push_back(name + '=' + value);
    return merged;
}

constexpr std::chrono::seconds patience{20};  ///< after that a test gives up

}  // namespace

std::string programUnderTest(const std::string& name)
{
    const char* const folder = std::getenv("KELVO_BIN");
    if (folder == nullptr)
        throw std::runtime_error("KELVO_BIN is not set; run the tests with ctest");
    return (std::filesystem::path(folder) / name).lexically_normal().string();
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, const Environment& environment)
{
    const Pipe in = makePipe();
    const Pipe out = makePipe();
    const Pipe err = makePipe();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.readEnd, STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out.writeEnd, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err.writeEnd, STDERR_FILENO);

    std::vector<std::string> words = command;
    std::vector<std::string> variables = mergedEnvironment(environment);
    const int failure = ::posix_spawnp(&process, command.at(0).c_str(), &actions, nullptr, pointersTo(words).data(),
                                       pointersTo(variables).data());
    posix_spawn_file_actions_destroy(&actions);
    for (const int childEnd : {in.readEnd, out.writeEnd, err.writeEnd})
        ::close(childEnd);
    if (failure != 0) {
        for (const int ownEnd : {in.writeEnd, out.readEnd, err.readEnd})
            ::close(ownEnd);
        throw std::runtime_error("cannot start " + command.at(0) + ": " + std::strerror(failure));
    }
    input = in.writeEnd;
    outputs[0] = out.readEnd;
    outputs[1] = err.readEnd;
}

ChildProcess::~ChildProcess()
{
    if (process > 0 && !exitStatus) {
        ::kill(process, SIGKILL);
        ::waitpid(process, nullptr, 0);
    }
    closeOnce(input);
    closeOnce(outputs[0]);
    closeOnce(outputs[1]);
}

bool ChildProcess::readSome(Clock::time_point deadline)
{
    pollfd waiting[2] = {{outputs[0], POLLIN, 0}, {outputs[1], POLLIN, 0}};
    if (outputs[0] < 0 && outputs[1] < 0)
        return false;
    if (::poll(waiting, 2, millisecondsUntil(deadline)) <= 0)
        return false;
    for (std::size_t i = 0; i < 2; ++i) {
        if (waiting[i].revents == 0)
            continue;
        char bytes[4096];
        const ssize_t count = ::read(outputs[i], bytes, sizeof bytes);
        if (count > 0)
            collected[i].append(bytes, static_cast<std::size_t>(count));
        else
            closeOnce(outputs[i]);
    }
    return true;
}

std::optional<std::string> ChildProcess::readLine(Clock::time_point deadline)
{
    for (;;) {
        const auto end = collected[0].find('\n', linesEnd);
        if (end != std::string::npos) {
            std::string line = collected[0].substr(linesEnd, end - linesEnd);
            linesEnd = end + 1;
            return line;
        }
        if (outputs[0] < 0 || !readSome(deadline))
            return std::nullopt;
    }
}

void ChildProcess::closeInput()
{
    closeOnce(input);
}

void ChildProcess::signal(int number)
{
    if (!exitStatus)
        ::kill(process, number);  // not reaped yet, so the number is still its own
}

std::optional<int> ChildProcess::wait(Clock::time_point deadline)
{
    while (readSome(deadline)) {
    }
    if (exitStatus)
        return exitStatus;
    const int watched = ::pidfd_open(process, 0);
    pollfd waiting{watched, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, millisecondsUntil(deadline));
    ::close(watched);
    int status = 0;
    if (ready <= 0 || ::waitpid(process, &status, 0) != process)
        return std::nullopt;
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    return exitStatus;
}

void ChildProcess::awaitText(const std::string& stream, const std::string& text)
{
    const auto deadline = Clock::now() + patience;
    while (stream.find(text) == std::string::npos) {
        if (!readSome(deadline))
            return giveUp(text);
    }
}

int ChildProcess::awaitEnd()
{
    const auto status = wait(Clock::now() + patience);
    if (!status)
        giveUp("the end of the program");
    return status.value_or(-1);
}

void ChildProcess::giveUp(const std::string& waitingFor)
{
    ADD_FAILURE() << "waited in vain for " << waitingFor << "\noutput: " << output() << "\nerrors: " << errors();
    signal(SIGKILL);
}

ProgramResult runProgram(const std::vector<std::string>& command, std::chrono::milliseconds limit)
{
    ChildProcess child(command);
    child.closeInput();
    const auto status = child.wait(ChildProcess::Clock::now() + limit);
    return {status.value_or(-1), child.output(), child.errors()};
}

}  // namespace kelvo::test
