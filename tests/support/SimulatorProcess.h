#pragma once

#include "Programs.h"

#include <json/value.h>

#include <string>
#include <vector>

namespace kelvo::test
{

/// The path of the program under test.
std::string simulatorProgram();

/// The simulator, running on ports of its own until this object goes. Throws when it does not become ready; one that
/// does not end by itself, with status 0, or complains of itself fails the test.
class SimulatorProcess {
public:
    explicit SimulatorProcess(const std::vector<std::string>& arguments = {});
    ~SimulatorProcess();
    SimulatorProcess(const SimulatorProcess&) = delete;
    SimulatorProcess& operator=(const SimulatorProcess&) = delete;

    const Json::Value& ready() const { return readyLine; }
    std::string port(const char* name) const { return std::to_string(readyLine[name].asUInt()); }

    std::string lapiUrl(const std::string& path) const { return "http://127.0.0.1:" + port("httpPort") + path; }
    /// With credentials when `user` is not empty ("user:password@").
    std::string rtspUrl(const std::string& path, const std::string& credentials = "admin:admin-123@") const
    {
        return "rtsp://" + credentials + "127.0.0.1:" + port("rtspPort") + path;
    }

    /// Runs curl with the right credentials; the body, followed by the HTTP status on a line of its own.
    ProgramResult lapi(const std::string& path, const std::vector<std::string>& arguments = {}) const;
    /// Asks the administration; its JSON, or null after adding a failure to the test.
    Json::Value admin(const std::string& method, const std::string& path, const std::string& body = {}) const;

    ChildProcess& process() { return child; }
    std::optional<int> waitForExit() { return child.wait(ChildProcess::Clock::now() + std::chrono::seconds(20)); }

private:
    ChildProcess child;
    Json::Value readyLine;
};

}  // namespace kelvo::test
