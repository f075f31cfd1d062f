#include "EndToEnd.h"

#include "JsonText.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace kelvo::test
{
ScratchFolder::ScratchFolder()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "kelvo-e2e-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("no scratch folder can be made");
    folder = pattern;
}

ScratchFolder::~ScratchFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

std::vector<std::string> smallPictures(std::vector<std::string> further)
{
    std::vector<std::string> arguments{"--size", "320x240", "--sub-size", "160x120", "--bitrate", "300"};
    arguments.insert(arguments.end(), further.begin(), further.end());
    return arguments;
}

std::string deviceAddress(const SimulatorProcess& device, const std::string& credentials)
{
    return "http://" + credentials + "127.0.0.1:" + device.port("httpPort");
}

Json::Value HostRun::event(const std::string& name) const
{
    return lastEvent(events, name);
}

std::vector<std::string> hostCommand(const ScratchFolder& folder, const std::string& address)
{
    return {programUnderTest("kelvo-host"), "--json", "--repository", folder.file("repository"), "--device", address};
}

HostRun runHost(const ScratchFolder& folder, const std::string& address, const std::vector<std::string>& arguments)
{
    auto command = hostCommand(folder, address);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return hostRun(runProgram(command, std::chrono::seconds(40)));
}

HostRun hostRun(const ProgramResult& result)
{
    return {result.status, result.output, result.errors, parseJsonLines(result.output)};
}

RunningHost::RunningHost(const ScratchFolder& folder, const std::string& address,
                         const std::vector<std::string>& arguments)
    : process([&] {
          auto command = hostCommand(folder, address);
          command.insert(command.end(), arguments.begin(), arguments.end());
          return command;
      }())
{}

Json::Value RunningHost::awaitEvent(const std::string& name, const std::function<bool(const Json::Value& event)>& holds)
{
    const auto deadline = ChildProcess::Clock::now() + std::chrono::seconds(20);
    while (const auto line = process.readLine(deadline)) {
        Json::Value event = parseJson(*line);
        if (event["event"] == name && holds(event))
            return event;
    }
    ADD_FAILURE() << "waited in vain for an event " << name << "\noutput: " << process.output()
                  << "\nerrors: " << process.errors();
    return {};
}

HostRun RunningHost::interrupt()
{
    process.signal(SIGINT);
    return awaitEnd();
}

HostRun RunningHost::awaitEnd()
{
    const int status = process.awaitEnd();
    return hostRun({status, process.output(), process.errors()});
}

std::string codecsOf(const std::string& file)
{
    return runProgram({"ffprobe", "-v", "error", "-show_entries", "stream=codec_name,width,height", "-of",
                       "default=noprint_wrappers=1", file})
        .output;
}

std::string decodeErrorsOf(const std::string& file)
{
    const auto result = runProgram({"ffmpeg", "-v", "error", "-i", file, "-f", "null", "-"});
    return result.status == 0 ? result.errors : "ffmpeg failed: " + result.errors;
}

bool eventually(const std::function<bool()>& holds)
{
    const auto deadline = ChildProcess::Clock::now() + std::chrono::seconds(15);
    while (!holds())
        if (ChildProcess::Clock::now() > deadline)
            return false;
    return true;
}

bool hasSubscribed(const SimulatorProcess& device)
{
    return eventually([&] { return device.admin("GET", "state")["subscriptions"].size() == 1; });
}

void expectNothingLost(const Json::Value& resource)
{
    EXPECT_TRUE(resource["lostMembers"].empty()) << resource.toStyledString();
    EXPECT_TRUE(resource["strangeMembers"].empty()) << resource.toStyledString();
}
}  // namespace kelvo::test
