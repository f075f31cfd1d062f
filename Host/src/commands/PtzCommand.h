#pragma once

#include "Telemetry.h"
#include "commands/Command.h"

#include <cstdint>
#include <json/value.h>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace CLI
{
class Option;
}

// What the files of `kelvo-host ptz` share.
namespace Host
{
/// What an operation works with, once the device is connected.
struct PtzRun {
    const Surroundings& surroundings;
    const Telemetry& telemetry;
    std::uint32_t channel;
    const DeviceDescription& description;

    /// Throws `Failure` (usage) when the speed exceeds the model's `limit`, in either direction. Asked before the
    /// device is: an operation without a result cannot say afterwards whether the device has heard of it.
    void checkSpeed(std::int32_t speed, const char* limit) const;

    /// Prints the event `result`, and `readable` for people. Throws `Failure` with `what` unless `result` is 0.
    void report(const std::string& operation, Json::Value fields, std::int32_t result, const std::string& readable,
                const std::string& what) const;

    /// Waits so many seconds, 0: for ever, or until the user interrupts. `doing` is shown meanwhile.
    void pass(double seconds, const std::string& doing) const;

    /// How an operation ends that the user may interrupt.
    ExitStatus status() const
    {
        return surroundings.interrupted.stop_requested() ? ExitStatus::interrupted : ExitStatus::done;
    }
};

/// One word behind `ptz`: an operation, or a group of them.
class PtzOperation {
public:
    virtual ~PtzOperation() = default;

    virtual const char* getName() const = 0;
    virtual const char* getSummary() const = 0;  ///< one line for the help
    virtual void describeOptions(CLI::App& app) = 0;
    /// Throws `Failure` for options that do not go together; called before anything is connected.
    virtual void check() const {}
    virtual ExitStatus run(const PtzRun& run) = 0;
};

using PtzOperations = std::vector<std::unique_ptr<PtzOperation>>;

/// Operations behind a common word, of which the command line names one.
class PtzGroup final : public PtzOperation {
public:
    PtzGroup(const char* groupName, const char* groupSummary, PtzOperations groupOperations)
        : name(groupName), summary(groupSummary), operations(std::move(groupOperations))
    {}

    const char* getName() const override { return name; }
    const char* getSummary() const override { return summary; }
    void describeOptions(CLI::App& app) override;
    void check() const override { chosen().check(); }
    ExitStatus run(const PtzRun& run) override { return chosen().run(run); }

private:
    /// Throws `Failure` (usage) when the command line names none.
    PtzOperation& chosen() const;

    const char* const name;
    const char* const summary;
    const PtzOperations operations;
    std::vector<const CLI::App*> parts;  ///< of the parser, one for each operation
};

/// Has the parser refuse what is no whole number within the limits. `option` reads it, and is returned.
CLI::Option* whole(CLI::Option* option, std::int64_t least, std::int64_t most);

constexpr std::int64_t leastSpeed = std::numeric_limits<std::int32_t>::min();  ///< that the SDK can express
constexpr std::int64_t greatestSpeed = std::numeric_limits<std::int32_t>::max();
constexpr std::int64_t greatestIndex = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t greatestMoveSpeed = 9;  ///< of absolute moves and tours

/// The operations of each file.
PtzOperations makePtzMovements();
PtzOperations makePtzPositions();
std::unique_ptr<PtzOperation> makePtzPreset();
std::unique_ptr<PtzOperation> makePtzTour();
}  // namespace Host
