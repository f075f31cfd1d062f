#pragma once

#include "Device.h"

#include <IpUtil/AudioDestinationBase.h>
#include <IpUtil/AudioFilters.h>
#include <IpUtil/RTSPClient.h>
#include <Tavro8/GDRV/IAudioDestination.h>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>

namespace Uniview
{
class AudioDestination;

/// The end of the filters: gives each packet its time and sends it to the device.
class UniviewAudioSendingFilter {
public:
    explicit UniviewAudioSendingFilter(AudioDestination& destination);

    void process(std::span<const std::uint8_t> packet);

private:
    AudioDestination* destination;  // owns the filter
    Tavro8::Utility::PCMTimeStampGenerator timeStamps;
    std::uint32_t firstTimeStamp;  // random, RFC 3550 section 5.1
};

/// Talk-back to a channel over an RTSP back channel: converts the host's samples to the G.711 law that the device's
/// track names and sends them in packets of 20 ms, paced by what the host pushes. Threads as in `AudioDestinationBase`.
class AudioDestination final : public Tavro8::Utility::AudioDestinationBase<Device> {
public:
    /// Makes a destination that the host releases with `Destroy`. Arguments as in `IDevice::CreateAudioDestination`.
    static Tavro8::GDRV::IAudioDestination* create(Device* device, std::uint32_t channel,
                                                   Tavro8::GDRV::IAudioDestinationHandler* handler,
                                                   const Tavro8::ParameterMap& parameters);

    using AudioDestinationBase::AudioDestinationBase;

protected:
    void openLine() override;
    void closeLine(std::function<void()> done) override;
    void sendSound(std::span<const std::int16_t> samples) override;

private:
    friend class UniviewAudioSendingFilter;
    using Filters = Tavro8::Utility::StreamFilterList<Tavro8::Utility::G711EncodingFilter,
                                                      Tavro8::Utility::PcmPacketizingFilter, UniviewAudioSendingFilter>;

    void handleSession(const Tavro8::error_code& ec);
    void handleSdp(const Tavro8::error_code& ec, const Tavro8::Utility::SessionDescription& description);
    void handlePlay(const Tavro8::error_code& ec);
    void handleWritePacket(const Tavro8::error_code& ec);
    void handleClosed(const Tavro8::error_code& ec);

    void makeFilters();
    void sendPacket(std::span<const std::uint8_t> packet, std::uint32_t timestamp);
    void fail(const Tavro8::error_code& ec);
    /// A completion for the client of the present call.
    template <typename... Arguments>
    auto bind(void (AudioDestination::*handle)(const Tavro8::error_code&, Arguments...));

    std::shared_ptr<Tavro8::Utility::RTSPClient> client;  // of the present call
    std::weak_ptr<Tavro8::Utility::RTSPTrack> track;      // to the device
    std::unique_ptr<Filters> filters;
    const Tavro8::LoggerHelper log{deviceLogger.get(), "Drivers/Uniview/src/AudioDestination", context.objectName};
};
}  // namespace Uniview
