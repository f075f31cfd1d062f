#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

namespace Host
{
/// What the program tells its caller; the numbers are contract.
enum class ExitStatus : int {
    done = 0,
    usage = 2,          ///< options or files named by them cannot be used
    refused = 3,        ///< the device is unreachable, or refused the connection or a call
    failed = 4,         ///< connected or not, the operation itself failed
    interrupted = 130,  ///< Ctrl-C or SIGTERM; what was begun has been finished cleanly
};

/// Ends a command: `what()` is the sentence for the user, who never sees anything else of the failure.
class Failure : public std::runtime_error {
public:
    /// `moduleResult`: the result of the module that is the reason, when there is one.
    Failure(ExitStatus exitStatus, const std::string& sentence, std::optional<std::int32_t> moduleResult = {})
        : std::runtime_error(sentence), status(exitStatus), result(moduleResult)
    {}

    ExitStatus getStatus() const noexcept { return status; }
    std::optional<std::int32_t> getResult() const noexcept { return result; }

private:
    ExitStatus status;
    std::optional<std::int32_t> result;
};
}  // namespace Host
