#pragma once

#include "HostFakes.h"

#include <Tavro8/GDRV/IDetector.h>
#include <Tavro8/GDRV/IIODevice.h>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

// What a host hands to the objects that report events, for tests.
namespace kelvo::test
{
/// Started and stopped, as both handlers below hear them.
template <typename Handler>
class EventHandler : public Handler, protected Observations {
public:
    void Started(Tavro8::IContract*) noexcept override
    {
        change([&] { ++startedCount; });
        if (onStarted)
            onStarted();
    }
    void Stopped(Tavro8::IContract*) noexcept override
    {
        change([&] { ++stoppedCount; });
    }
    void StatisticsUpdated(Tavro8::IContract*, const Tavro8::GDRV::StreamStatistics&) noexcept override {}
    void SettingsApplied(Tavro8::IContract*, const char*, std::int32_t) noexcept override {}

    bool waitStarted(int times = 1)
    {
        return wait([&] { return startedCount >= times; });
    }
    bool waitStopped(int times = 1)
    {
        return wait([&] { return stoppedCount >= times; });
    }
    int started() const { return read(startedCount); }
    int stopped() const { return read(stoppedCount); }

    std::function<void()> onStarted;  ///< set before the start

private:
    // Both only within change, wait and read.
    int startedCount = 0;
    int stoppedCount = 0;
};

/// Keeps what an I/O object reports.
class IOHandler final : public EventHandler<Tavro8::GDRV::IIODeviceHandler> {
public:
    struct Input {
        std::uint32_t input;
        bool state;
        bool operator==(const Input&) const = default;
    };
    struct Relay {
        std::uint32_t relay;
        std::int32_t result;
        bool operator==(const Relay&) const = default;
    };

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IIODeviceHandler, Tavro8::IContract>(this, name);
    }
    void InputStateChanged(Tavro8::GDRV::IIODevice* device, std::uint32_t input, bool state) noexcept override
    {
        change([&] { seenInputs.push_back({input, state}); });
        if (onInput)
            onInput(device);
    }
    void RelaySwitched(Tavro8::GDRV::IIODevice* device, std::uint32_t relay, std::int32_t result) noexcept override
    {
        change([&] { seenRelays.push_back({relay, result}); });
        if (onRelay)
            onRelay(device);
    }

    std::vector<Input> inputs() const { return read(seenInputs); }
    std::vector<Relay> relays() const { return read(seenRelays); }
    bool waitInputs(std::size_t count)
    {
        return wait([&] { return seenInputs.size() >= count; });
    }
    bool waitRelays(std::size_t count)
    {
        return wait([&] { return seenRelays.size() >= count; });
    }

    // Set before there is anything to report.
    std::function<void(Tavro8::GDRV::IIODevice*)> onInput;
    std::function<void(Tavro8::GDRV::IIODevice*)> onRelay;

private:
    // Both only within change, wait and read.
    std::vector<Input> seenInputs;
    std::vector<Relay> seenRelays;
};

inline std::ostream& operator<<(std::ostream& out, const IOHandler::Input& input)
{
    return out << "input " << input.input << (input.state ? " on" : " off");
}
inline std::ostream& operator<<(std::ostream& out, const IOHandler::Relay& relay)
{
    return out << "relay " << relay.relay << " result " << relay.result;
}

/// Keeps what a detector reports.
class DetectorHandler final : public EventHandler<Tavro8::GDRV::IDetectorHandler> {
public:
    struct Event {
        std::string detectionType;
        std::string alarmType;
        Tavro8::GDRV::DetectorState state{};
        std::uint32_t channel = 0;
        std::int64_t deviceTimeMs = 0;
        Tavro8::ParameterMap fields;
    };

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IDetectorHandler, Tavro8::IContract>(this, name);
    }
    void DetectorEvent(Tavro8::GDRV::IDetector* detector,
                       const Tavro8::GDRV::DetectorEventInfo& event) noexcept override
    {
        std::function<void(Tavro8::GDRV::IDetector*)> callback;
        change([&] {
            seen.push_back({event.detectionType, event.alarmType, event.state, event.channel, event.deviceTimeMs,
                            keepFields ? *event.fields : Tavro8::ParameterMap()});
            callback = onEvent;
        });
        if (callback)
            callback(detector);
    }

    /// Sets `onEvent` of a detector that is running.
    void callOnEvent(std::function<void(Tavro8::GDRV::IDetector*)> callback)
    {
        change([&] { onEvent = std::move(callback); });
    }

    std::vector<Event> events() const { return read(seen); }
    /// The names of the events so far.
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (const Event& event : events())
            all.push_back(event.alarmType);
        return all;
    }
    bool waitEvents(std::size_t count)
    {
        return wait([&] { return seen.size() >= count; });
    }

    // Set before there is anything to report.
    std::function<void(Tavro8::GDRV::IDetector*)> onEvent;
    bool keepFields = true;  ///< false where the module goes first: the code that copies and frees them is its own

private:
    std::vector<Event> seen;  // only within change, wait and read
};
}  // namespace kelvo::test
