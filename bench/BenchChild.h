#pragma once

#include "Descriptor.h"

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kelvo::bench
{
/// What another process has cost up to a moment, as the system accounts for it.
struct ChildCost {
    double cpuSeconds = 0;
    std::uint64_t residentBytes = 0;  ///< its share of what it has in common with others included (PSS)
};

/// A program of the bench, with its input and output on pipes. Ended and reaped with its owner.
class BenchChild {
public:
    /// Looks the program up in PATH. Errors of the program go to standard error when `showErrors`, else nowhere.
    BenchChild(const std::vector<std::string>& command, bool showErrors);
    ~BenchChild();
    BenchChild(BenchChild&& other) noexcept;
    BenchChild& operator=(BenchChild&&) = delete;

    /// The next line of the output; nothing when it has ended or nothing has come for `seconds`.
    std::optional<std::string> readLine(double seconds);
    void writeLine(const std::string& line);
    /// Ends its input and waits for its end, for `seconds` at most; its exit status, -1 when it had to be killed.
    int finish(double seconds = 20);
    bool isRunning();
    ChildCost cost() const;

private:
    pid_t process = -1;
    Descriptor input;
    Descriptor output;
    std::string read;
};

/// Whether a program of that name can be started.
bool isInstalled(const std::string& program);
}  // namespace kelvo::bench
