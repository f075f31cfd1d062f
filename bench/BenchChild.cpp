#include "BenchChild.h"

#include "FrameStamp.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>

namespace kelvo::bench
{
namespace
{
struct Pipe {
    Descriptor read;
    Descriptor write;
};

Pipe makePipe()
{
    std::array<int, 2> ends{};
    checked(::pipe2(ends.data(), O_CLOEXEC), "pipe2");
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}
}  // namespace

BenchChild::BenchChild(const std::vector<std::string>& command, bool showErrors)
{
    Pipe toChild = makePipe();
    Pipe fromChild = makePipe();
    std::vector<char*> arguments;
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    process = checked(::fork(), "fork");
    if (process == 0) {
        ::dup2(toChild.read.get(), STDIN_FILENO);
        ::dup2(fromChild.write.get(), STDOUT_FILENO);
        if (!showErrors)
            ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
        ::execvp(arguments[0], arguments.data());
        ::_exit(127);
    }
    input = std::move(toChild.write);
    output = std::move(fromChild.read);
}

BenchChild::BenchChild(BenchChild&& other) noexcept
    : process(std::exchange(other.process, -1)),
      input(std::move(other.input)),
      output(std::move(other.output)),
      read(std::move(other.read))
{}

BenchChild::~BenchChild()
{
    if (process < 0)
        return;
    ::kill(process, SIGKILL);
    ::waitpid(process, nullptr, 0);
}

std::optional<std::string> BenchChild::readLine(double seconds)
{
    const std::uint64_t deadline = monotonicNs() + static_cast<std::uint64_t>(seconds * 1e9);
    for (;;) {
        if (const std::size_t end = read.find('\n'); end != std::string::npos) {
            std::string line = read.substr(0, end);
            read.erase(0, end + 1);
            return line;
        }
        const std::uint64_t now = monotonicNs();
        pollfd waiting{output.get(), POLLIN, 0};
        if (now >= deadline || ::poll(&waiting, 1, static_cast<int>((deadline - now) / 1'000'000) + 1) <= 0)
            return std::nullopt;
        std::array<char, 4096> bytes{};
        const ssize_t count = ::read(output.get(), bytes.data(), bytes.size());
        if (count <= 0)
            return std::nullopt;
        read.append(bytes.data(), static_cast<std::size_t>(count));
    }
}

void BenchChild::writeLine(const std::string& line)
{
    const std::string text = line + '\n';
    checked(::write(input.get(), text.data(), text.size()), "write");
}

int BenchChild::finish(double seconds)
{
    input = Descriptor();
    const std::uint64_t deadline = monotonicNs() + static_cast<std::uint64_t>(seconds * 1e9);
    while (isRunning() && monotonicNs() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const bool late = isRunning();
    if (late)
        ::kill(process, SIGKILL);
    int status = 0;
    ::waitpid(std::exchange(process, -1), &status, 0);
    return !late && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool BenchChild::isRunning()
{
    siginfo_t state{};
    return ::waitid(P_PID, static_cast<id_t>(process), &state, WEXITED | WNOHANG | WNOWAIT) == 0 && state.si_pid == 0;
}

ChildCost BenchChild::cost() const
{
    const std::filesystem::path folder = "/proc/" + std::to_string(process);
    ChildCost cost;
    std::string text;
    std::ifstream stat(folder / "stat");
    std::getline(stat, text);
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i)
        fields >> skipped;
    unsigned long user = 0;
    unsigned long system = 0;
    fields >> user >> system;
    cost.cpuSeconds = static_cast<double>(user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
    std::ifstream memory(folder / "smaps_rollup");
    while (std::getline(memory, text)) {
        if (text.starts_with("Pss:"))
            cost.residentBytes = std::stoull(text.substr(4)) * 1024;
    }
    return cost;
}

bool isInstalled(const std::string& program)
{
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (::access((std::filesystem::path(folder) / program).c_str(), X_OK) == 0)
            return true;
    }
    return false;
}
}  // namespace kelvo::bench
