#pragma once

#include "Programs.h"
#include "SimulatorProcess.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <json/value.h>
#include <string>
#include <vector>

// Whole programs against each other: the reference host with the module it ships with, and the simulated device.
namespace kelvo::test
{
/// A folder of its own, removed with the object.
class ScratchFolder {
public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    std::string file(const std::string& name) const { return (folder / name).string(); }
    const std::filesystem::path& path() const { return folder; }

private:
    std::filesystem::path folder;
};

/// Options that keep the simulated encoders cheap, so that several tests fit on a small machine at once.
std::vector<std::string> smallPictures(std::vector<std::string> further = {});

/// Where the host finds the simulator, credentials included.
std::string deviceAddress(const SimulatorProcess& device, const std::string& credentials = "admin:admin-123@");

/// What a run of kelvo-host left behind.
struct HostRun {
    int status = -1;
    std::string output;
    std::string errors;
    std::vector<Json::Value> events;

    /// The last event of that name; null when there is none.
    Json::Value event(const std::string& name) const;
    std::string all() const { return output + errors; }
};

/// Arguments of kelvo-host up to the command: JSON, an own repository, the device.
std::vector<std::string> hostCommand(const ScratchFolder& folder, const std::string& address);

/// Runs kelvo-host to its end with JSON output.
HostRun runHost(const ScratchFolder& folder, const std::string& address, const std::vector<std::string>& arguments);
HostRun hostRun(const ProgramResult& result);

/// kelvo-host while it runs, with JSON output.
class RunningHost {
public:
    RunningHost(const ScratchFolder& folder, const std::string& address, const std::vector<std::string>& arguments);

    /// Reads until `text` has appeared on standard output; one that does not come fails the test.
    void await(const std::string& text) { process.awaitOutput(text); }
    /// Reads on to an event of that name for which `holds`; null, and a failure of the test, when none comes in time.
    Json::Value awaitEvent(const std::string& name, const std::function<bool(const Json::Value& event)>& holds);
    /// Ends it like a user; what it has told.
    HostRun interrupt();
    /// Waits until it ends by itself.
    HostRun awaitEnd();

private:
    ChildProcess process;
};

/// What ffprobe says of a file: for each stream a line with its codec, and with its width and height where it has such.
std::string codecsOf(const std::string& file);

/// What ffmpeg complains about while it decodes the whole file.
std::string decodeErrorsOf(const std::string& file);

/// Asks again until it holds; false when it does not within 15 s.
bool eventually(const std::function<bool()>& holds);

/// Waits until the simulator has exactly one subscription.
bool hasSubscribed(const SimulatorProcess& device);

/// Of a resource's state: whatever clients wrote came back with every member as the device had it.
void expectNothingLost(const Json::Value& resource);
}  // namespace kelvo::test
