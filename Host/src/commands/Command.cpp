#include "commands/Command.h"

#include "Console.h"
#include "SettingsRepository.h"

namespace Host
{
namespace
{
HostContext contextFor(const CommonOptions& options, ConsoleLogger& logger)
{
    provideSettingsRepository(options.repository);
    return {logger, options.repository, options.logFile};
}

std::string nameOf(const DeviceAddress& address, std::size_t index, std::size_t count)
{
    return count == 1 ? address.masked() : address.masked() + " #" + std::to_string(index);
}
DeviceAddress addressHiddenFrom(Console& console, const CommonOptions& options)
{
    DeviceAddress address = deviceAddress(options);
    console.hide(address.getPassword());  // also one that was read from a file
    return address;
}
}  // namespace

HostedModule::HostedModule(const Surroundings& surroundings)
    : logger(surroundings.console, surroundings.options.logLevel),
      context(contextFor(surroundings.options, logger)),
      module(surroundings.options.module, context, moduleIdentifier)
{}

ConnectedDevices::Sessions::~Sessions()
{
    for (const auto& session : list)
        session->requestClose();
}

ConnectedDevices::ConnectedDevices(const Surroundings& surroundings, std::size_t count)
    : address(addressHiddenFrom(surroundings.console, surroundings.options)),
      description(deviceDescription(surroundings.options)),
      module(surroundings)
{
    for (const std::string& warning : description.getWarnings())
        surroundings.console.line("kelvo-host: " + warning);
    surroundings.console.progress("connecting to " + address.masked() + " ...");
    const auto deadline = surroundings.timeoutFromNow();
    for (std::size_t index = 0; index < count; ++index) {
        const std::string name = nameOf(address, index, count);
        description.setName(name);
        sessions.list.push_back(std::make_unique<DeviceSession>(
            *module, description, DeviceSession::Surroundings{surroundings.monitor, surroundings.console, name}));
        sessions.list.back()->open(address);
    }
    for (const auto& session : sessions.list)
        session->awaitConnection(surroundings.interrupted, deadline, surroundings.options.wait);
    surroundings.console.clearProgress();
}

std::vector<std::unique_ptr<Command>> makeCommands()
{
    std::vector<std::unique_ptr<Command>> commands;
    commands.push_back(makeInfoCommand());
    commands.push_back(makeLiveCommand());
    commands.push_back(makeEventsCommand());
    commands.push_back(makeRelayCommand());
    commands.push_back(makePtzCommand());
    commands.push_back(makeSettingsCommand());
    commands.push_back(makeTalkCommand());
    commands.push_back(makeRecordingsCommand());
    commands.push_back(makePlaybackCommand());
    return commands;
}
}  // namespace Host
