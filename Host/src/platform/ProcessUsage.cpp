#include "platform/ProcessUsage.h"

#if defined(_WIN32)
#include <windows.h>
// Needs windows.h before it.
#include <psapi.h>
#else
#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace Host
{
#if defined(_WIN32)
double processCpuSeconds() noexcept
{
    FILETIME created{}, ended{}, kernel{}, user{};
    if (!GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user))
        return 0;
    const auto seconds = [](const FILETIME& time) {
        const auto ticks = (static_cast<std::uint64_t>(time.dwHighDateTime) << 32U) | time.dwLowDateTime;
        return static_cast<double>(ticks) * 1e-7;  // of 100 ns
    };
    return seconds(kernel) + seconds(user);
}

std::uint64_t processResidentBytes() noexcept
{
    PROCESS_MEMORY_COUNTERS counters{};
    if (!K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters))
        return 0;
    return counters.WorkingSetSize;
}

void raiseDescriptorLimit() noexcept {}  // there is none
#else
double processCpuSeconds() noexcept
{
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0)
        return 0;
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

std::uint64_t processResidentBytes() noexcept
{
    // getrusage knows only the peak, which the start-up of the program may have set.
    std::FILE* file = std::fopen("/proc/self/statm", "r");
    if (file == nullptr)
        return 0;
    unsigned long long total = 0;
    unsigned long long resident = 0;
    const int fields = std::fscanf(file, "%llu %llu", &total, &resident);
    std::fclose(file);
    return fields == 2 ? resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

void raiseDescriptorLimit() noexcept
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}
#endif
}  // namespace Host
