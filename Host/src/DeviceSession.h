#pragma once

#include "Monitor.h"

#include <Tavro8/GDRV/IModule.h>
#include <optional>
#include <string>

namespace Host
{
class Console;
class DeviceAddress;

/// One device of the module, from its creation to its end.
///
/// The handler operations arrive on the module's threads; everything else is the command's thread.
class DeviceSession final : private Tavro8::GDRV::IDeviceHandler {
public:
    struct Surroundings {
        Monitor& monitor;
        Console& console;
        const std::string name;  ///< stands in front of messages; the address without password
    };

    /// Creates the device. Throws `Failure` when the module makes none.
    DeviceSession(Tavro8::GDRV::IModule& module, const Tavro8::GDRV::IDeviceDescription& description,
                  Surroundings sessionSurroundings);

    /// Closes the connection, waits until the module has reported it closed, and destroys the device.
    /// All child objects are gone by then.
    ~DeviceSession() override;
    DeviceSession(const DeviceSession&) = delete;
    DeviceSession& operator=(const DeviceSession&) = delete;

    /// Begins to connect. Throws `Failure` when the module does not even try.
    void open(const DeviceAddress& address);

    /// Waits until the device is connected. Throws `Failure` when an attempt fails (with `keepTrying`: when the
    /// last one before the deadline failed), when the deadline passes or when the user interrupts.
    void awaitConnection(const std::stop_token& interrupted, Monitor::Clock::time_point deadline, bool keepTrying);

    Tavro8::GDRV::IDevice& getDevice() const noexcept { return *device; }

    /// Begins to close the connection; several devices close faster when all are asked before the first is
    /// destroyed.
    void requestClose();

    /// Null when the module does not tell.
    Tavro8::GDRV::IDeviceInformation* getInformation() const noexcept;

    /// The result that tells why the device is not connected at the moment; none while it is.
    std::optional<std::int32_t> getTrouble() const;

    void* FindContract(const char* name) noexcept override;

private:
    void Connected(Tavro8::GDRV::IDevice* source) noexcept override;
    void ConnectFailed(Tavro8::GDRV::IDevice* source, std::int32_t result) noexcept override;
    void ConnectionLost(Tavro8::GDRV::IDevice* source, std::int32_t result) noexcept override;
    void Closed(Tavro8::GDRV::IDevice* source) noexcept override;

    Surroundings surroundings;
    Tavro8::GDRV::IDevice* device = nullptr;
    std::optional<Monitor::Clock::time_point> closeDeadline;  // set when closing has begun
    bool opened = false;

    // Guarded by the monitor.
    bool connected = false;
    bool wasConnected = false;
    bool closed = false;
    std::optional<std::int32_t> failure;  // of the last attempt
};

/// A sentence about something that failed: `what`, the reason and its number.
std::string reasonSentence(const std::string& what, std::int32_t result);

/// The same for a failed connection or call, with what to check if that helps.
std::string failureSentence(const std::string& what, std::int32_t result);

/// Throws `Failure` with `what` as its reason unless the module has made the object.
void requireMade(const void* object, const std::string& what, std::int32_t result);
}  // namespace Host
