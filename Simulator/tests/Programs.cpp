#include "Programs.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <stdexcept>

extern "C" {
#include <sys/pidfd.h>  // the C library of Debian 12 forgot to say that it is C
}

extern char** environ;

namespace simulator::test
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

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command)
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
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    const int failure = ::posix_spawnp(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    for (const int childEnd : {in.readEnd, out.writeEnd, err.writeEnd})
        ::close(childEnd);
    input = in.writeEnd;
    outputs[0] = out.readEnd;
    outputs[1] = err.readEnd;
    if (failure != 0) {
        process = -1;
        throw std::runtime_error("cannot start " + command.at(0));
    }
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
    ::kill(process, number);
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
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return exitStatus;
}

ProgramResult runProgram(const std::vector<std::string>& command, std::chrono::milliseconds limit)
{
    ChildProcess child(command);
    child.closeInput();
    const auto status = child.wait(ChildProcess::Clock::now() + limit);
    return {status.value_or(-1), child.output(), child.errors()};
}

}  // namespace simulator::test
