#include "SimulatorProcess.h"

#include "JsonText.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace kelvo::test
{
namespace
{

std::vector<std::string> commandLine(const std::vector<std::string>& arguments)
{
    std::vector<std::string> command{simulatorProgram(), "--http-port", "0", "--rtsp-port", "0", "--exit-with-stdin"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

}  // namespace

std::string simulatorProgram()
{
    return programUnderTest("uniview-simulator");
}

SimulatorProcess::SimulatorProcess(const std::vector<std::string>& arguments) : child(commandLine(arguments))
{
    // The first start on a machine takes its time: GStreamer looks through all its plug-ins.
    const auto line = child.readLine(ChildProcess::Clock::now() + std::chrono::seconds(30));
    if (!line)
        throw std::runtime_error("the simulator did not become ready: " + child.errors());
    readyLine = parseJson(*line);
}

SimulatorProcess::~SimulatorProcess()
{
    child.closeInput();
    EXPECT_EQ(waitForExit(), 0) << child.errors();
    // GLib's word for a call that should never have been made.
    EXPECT_EQ(child.errors().find("CRITICAL"), std::string::npos) << child.errors();
}

ProgramResult SimulatorProcess::lapi(const std::string& path, const std::vector<std::string>& arguments) const
{
    std::vector<std::string> command{"curl",          "--silent", "--max-time",      "10",
                                     "--digest",      "--user",   "admin:admin-123", "--write-out",
                                     "\n%{http_code}"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    command.push_back(path.starts_with("http") ? path : lapiUrl(path));
    return runProgram(command);
}

Json::Value SimulatorProcess::admin(const std::string& method, const std::string& path, const std::string& body) const
{
    std::vector<std::string> command{"curl", "--silent", "--max-time", "10", "--request", method};
    if (!body.empty())
        command.insert(command.end(), {"--data", body});
    command.push_back("http://127.0.0.1:" + port("adminPort") + "/simulator/" + path);
    const ProgramResult result = runProgram(command);
    EXPECT_EQ(result.status, 0) << method << ' ' << path;
    return parseJson(result.output);
}

}  // namespace kelvo::test
