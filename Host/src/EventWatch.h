#pragma once

#include <Tavro8/GDRV/IDevice.h>
#include <functional>
#include <string>

namespace Host
{
/// A handler of the SDK's channel objects that takes no interest in what all of them report. `Interface` is the
/// handler contract; its own operation is left to the class that derives from this.
template <typename Interface>
class EventHandler : public Interface {
public:
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Interface, Tavro8::GDRV::IAsyncDeviceChannelHandler, Tavro8::IContract>(this,
                                                                                                              name);
    }
    void Started(Tavro8::IContract*) noexcept override {}
    void Stopped(Tavro8::IContract*) noexcept override {}
    void StatisticsUpdated(Tavro8::IContract*, const Tavro8::GDRV::StreamStatistics&) noexcept override {}
    void SettingsApplied(Tavro8::IContract*, const char*, std::int32_t) noexcept override {}
};

/// The inputs and relays of a device. Destroying it ends the module's object; no callback is running then.
class IoWatch final : private EventHandler<Tavro8::GDRV::IIODeviceHandler> {
public:
    /// Run on threads of the module; an empty one is not run. They do not throw.
    struct Callbacks {
        std::function<void(std::uint32_t input, bool state)> input;
        std::function<void(std::uint32_t relay, std::int32_t result)> relay;
    };

    /// Throws `Failure` when the module makes no such object.
    IoWatch(Tavro8::GDRV::IDevice& device, std::uint32_t channel, Callbacks watchCallbacks);
    ~IoWatch() override;
    IoWatch(const IoWatch&) = delete;
    IoWatch& operator=(const IoWatch&) = delete;

    void start() noexcept { io->Start(); }  ///< begins to report inputs

    /// The module's result; 0 says that `relay` will be called.
    std::int32_t switchRelay(std::uint32_t relay, bool on) noexcept { return io->SetRelayStatus(relay, on ? 1 : 0); }

private:
    void InputStateChanged(Tavro8::GDRV::IIODevice* source, std::uint32_t input, bool state) noexcept override;
    void RelaySwitched(Tavro8::GDRV::IIODevice* source, std::uint32_t relay, std::int32_t result) noexcept override;

    const Callbacks callbacks;
    Tavro8::GDRV::IIODevice* io = nullptr;
};

/// One detector of a channel. Destroying it ends the module's object; no callback is running then.
class DetectorWatch final : private EventHandler<Tavro8::GDRV::IDetectorHandler> {
public:
    /// Run on a thread of the module; it does not throw.
    using Callback = std::function<void(const Tavro8::GDRV::DetectorEventInfo& event)>;

    /// Throws `Failure` when the module makes no such detector.
    DetectorWatch(Tavro8::GDRV::IDevice& device, std::uint32_t channel, const std::string& detectionType,
                  Callback onEvent);
    ~DetectorWatch() override;
    DetectorWatch(const DetectorWatch&) = delete;
    DetectorWatch& operator=(const DetectorWatch&) = delete;

    void start() noexcept { detector->Start(); }

private:
    void DetectorEvent(Tavro8::GDRV::IDetector* source, const Tavro8::GDRV::DetectorEventInfo& event) noexcept override;

    const Callback callback;
    Tavro8::GDRV::IDetector* detector = nullptr;
};
}  // namespace Host
