#pragma once

#include "Programs.h"
#include "TemporaryDirectory.h"

#include <json/value.h>
#include <memory>
#include <string>
#include <vector>

namespace Host
{
using kelvo::test::ChildProcess;

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

    /// What the last run printed, as JSON.
    std::vector<Json::Value> getEvents() const;

    /// The last event of that name; null when there is none.
    Json::Value getEvent(const std::string& name) const;

    static std::string hostProgram();
    static std::filesystem::path moduleFile(const std::string& name);

    TemporaryDirectory directory;
    kelvo::test::Environment environment;
    std::unique_ptr<ChildProcess> child;
    int status = -1;  ///< of the last run
};
}  // namespace Host
