#pragma once

#include <cstdint>
#include <ctime>
#include <fstream>
#include <string>
#include <sys/resource.h>

namespace kelvo::bench
{
/// What a process has cost up to a moment.
struct ProcessCost {
    double cpuSeconds = 0;              ///< user and system, all threads
    std::uint64_t contextSwitches = 0;  ///< voluntary: how often a thread went to sleep
    std::uint64_t residentBytes = 0;
    std::uint64_t peakBytes = 0;  ///< the most that was resident so far

    /// Of this process.
    static ProcessCost present()
    {
        rusage usage{};
        getrusage(RUSAGE_SELF, &usage);
        const auto seconds = [](const timeval& time) {
            return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
        };
        ProcessCost cost;
        cost.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
        cost.contextSwitches = static_cast<std::uint64_t>(usage.ru_nvcsw);
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmRSS:"))
                cost.residentBytes = bytesOf(line);
            else if (line.starts_with("VmHWM:"))
                cost.peakBytes = bytesOf(line);
        }
        return cost;
    }

private:
    /// Of a line "name:   number kB".
    static std::uint64_t bytesOf(const std::string& line)
    {
        return std::stoull(line.substr(line.find(':') + 1)) * 1024;
    }
};

/// The CPU time of the calling thread, user and system.
inline double threadSeconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// Lets a process hold many sockets: as many as the system allows it.
inline void raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}
}  // namespace kelvo::bench
