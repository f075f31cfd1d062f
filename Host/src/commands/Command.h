#pragma once

#include "CommonOptions.h"
#include "ConsoleLogger.h"
#include "DeviceAddress.h"
#include "DeviceDescription.h"
#include "DeviceSession.h"
#include "ExitStatus.h"
#include "HostContext.h"
#include "LoadedModule.h"
#include "Monitor.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace CLI
{
class App;
}

namespace Host
{
class Console;
class Output;

/// What every command works with. Made after the options were parsed.
struct Surroundings {
    const CommonOptions& options;
    Console& console;
    Output& output;
    std::stop_token interrupted;
    Monitor& monitor;

    /// When a wait that begins now ends at the latest: after `usual` unless the user has chosen.
    Monitor::Clock::time_point timeoutFromNow(std::chrono::seconds usual = usualTimeout) const
    {
        const std::chrono::duration<double> wait =
            options.timeout ? std::chrono::duration<double>(*options.timeout) : usual;
        return Monitor::Clock::now() + std::chrono::duration_cast<Monitor::Clock::duration>(wait);
    }
};

/// The module and what it needs of the host, as the options say. Made by each command that talks to a device.
class HostedModule {
public:
    explicit HostedModule(const Surroundings& surroundings);

    Tavro8::GDRV::IModule& operator*() const noexcept { return *module; }

private:
    ConsoleLogger logger;
    HostContext context;
    LoadedModule module;
};

/// The device that the options name: loads the module and connects. Read the options that can be wrong before
/// the module is loaded, so that a slip of the pen is answered at once.
class ConnectedDevices {
public:
    /// Connects to the device `count` times, each over connections of its own. Throws `Failure`.
    explicit ConnectedDevices(const Surroundings& surroundings, std::size_t count = 1);

    const DeviceAddress& getAddress() const noexcept { return address; }
    const DeviceDescription& getDescription() const noexcept { return description; }
    const std::vector<std::unique_ptr<DeviceSession>>& getSessions() const noexcept { return sessions.list; }
    DeviceSession& getFirst() const noexcept { return *sessions.list.front(); }

private:
    /// Closes all its sessions at once when it goes, also when connecting fails half-way.
    struct Sessions {
        Sessions() = default;
        ~Sessions();
        Sessions(const Sessions&) = delete;
        Sessions& operator=(const Sessions&) = delete;

        std::vector<std::unique_ptr<DeviceSession>> list;
    };

    DeviceAddress address;
    DeviceDescription description;
    HostedModule module;
    Sessions sessions;
};

/// One command of the program. Each lives in a file of its own and is made by a function that
/// `makeCommands` calls.
class Command {
public:
    virtual ~Command() = default;

    virtual const char* getName() const = 0;
    virtual const char* getSummary() const = 0;  ///< one line for the help

    /// The channel that the options name; nothing for a command that is about the whole device.
    virtual std::optional<std::uint32_t> getChannel() const { return {}; }

    /// Adds the command's options to its part of the option parser.
    virtual void describeOptions(CLI::App& app) = 0;

    /// Does it. Throws `Failure` for what the user must know.
    virtual ExitStatus run(const Surroundings& surroundings) = 0;
};

std::unique_ptr<Command> makeInfoCommand();
std::unique_ptr<Command> makeLiveCommand();
std::unique_ptr<Command> makeEventsCommand();
std::unique_ptr<Command> makeRelayCommand();
std::unique_ptr<Command> makePtzCommand();
std::unique_ptr<Command> makeSettingsCommand();
std::unique_ptr<Command> makeTalkCommand();
std::unique_ptr<Command> makeRecordingsCommand();
std::unique_ptr<Command> makePlaybackCommand();

/// All commands in the order of the help.
std::vector<std::unique_ptr<Command>> makeCommands();
}  // namespace Host
