#pragma once

#include "Loop.h"

#include <Tavro8/GDRV/IDetector.h>
#include <Tavro8/GDRV/IIODevice.h>
#include <string>

namespace Sample
{
constexpr std::uint32_t relayCount = 2;

/// Inputs and relays. While it runs, input 1 is switched on and off every 40 ms. Relay 0 works, relay 1 jams: the
/// device refuses it with 1025 after it has been asked. With `answers` false no relay is ever answered.
class IODevice final : public Tavro8::GDRV::IIODevice {
public:
    IODevice(Loop& deviceLoop, std::uint32_t channelIndex, Tavro8::GDRV::IIODeviceHandler* hostHandler, bool answers);

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override;
    std::uint32_t GetChannelIndex() const noexcept override { return channel; }
    void Start() noexcept override;
    void Stop() noexcept override { loop.forget(this); }
    std::int32_t SetRelayStatus(std::uint32_t relayIndex, std::uint8_t state) noexcept override;

private:
    ~IODevice() override = default;
    void toggle(bool state);

    Loop& loop;  // the device's, which outlives it
    const std::uint32_t channel;
    Tavro8::GDRV::IIODeviceHandler* const handler;  // the host's, may be null
    const bool answersRelays;
};

/// Knows "motion", which begins and ends every 40 ms, and "crossLineDetectType", which happens every 40 ms and whose
/// device sends no time.
class Detector final : public Tavro8::GDRV::IDetector {
public:
    static bool knows(const std::string& detectionType);

    Detector(Loop& deviceLoop, std::uint32_t channelIndex, std::string detectionType,
             Tavro8::GDRV::IDetectorHandler* hostHandler);

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override;
    std::uint32_t GetChannelIndex() const noexcept override { return channel; }
    void Start() noexcept override;
    void Stop() noexcept override { loop.forget(this); }

private:
    ~Detector() override = default;
    void happen(bool begins);

    Loop& loop;  // the device's, which outlives it
    const std::uint32_t channel;
    const std::string type;
    Tavro8::GDRV::IDetectorHandler* const handler;  // the host's, may be null
};
}  // namespace Sample
