#pragma once

#include "Device.h"
#include "Lapi.h"
#include "SettingsEdit.h"
#include "SettingsGroup.h"
#include "SettingsQueue.h"

#include <IpUtil/Http.h>
#include <IpUtil/RTSPReceiverBase.h>
#include <Tavro8/GDRV/ILiveSource.h>
#include <atomic>
#include <cstdint>
#include <memory>

// Compiled once, in VideoSource.cpp.
extern template class Tavro8::Utility::RTSPReceiverBase<Tavro8::GDRV::IVideoSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverSource<Tavro8::GDRV::IVideoSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverAdjustable<Tavro8::GDRV::IVideoSource, Uniview::Device>;
extern template class Tavro8::Utility::RTSPReceiverVideoSource<Uniview::Device>;

namespace Uniview
{
/// Live video of one stream of a channel, and the settings of its encoder and picture.
///
/// Threads as in `RTSPReceiverBase`. Settings are applied on the device's I/O thread, one request of the host after the
/// other among all sources of the channel's pictures.
class VideoSource final : public Tavro8::Utility::RTSPReceiverVideoSource<Device> {
public:
    /// Makes a source that the host releases with `Destroy`. Arguments as in `IDevice::CreateVideoSource`.
    static Tavro8::GDRV::IVideoSource* create(Device* device, std::uint32_t channel, std::uint32_t stream,
                                              Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                              Tavro8::GDRV::IMediaFrameHandler* frames,
                                              const Tavro8::ParameterMap& parameters, Tavro8::IContract* parent);

    /// Used by `create`. A `maxFpsForCodec` of the channel's model that is no map of texts raises the cast error.
    VideoSource(Device* device, Tavro8::GDRV::IAsyncDeviceChannelHandler* handler, Tavro8::IContract* parent,
                Tavro8::Utility::LiveSourceContext sourceContext);
    ~VideoSource() override;

    /// Returns 0 when the request was taken, 2 while the device has not been connected, 515 when too many others wait.
    /// Then the handler is told each resource that was asked for, in any order, and last "all".
    std::int32_t ApplySettings(const Tavro8::ParameterMap& changed) noexcept override;
    /// Settings that were not written yet are given up.
    void Destroy() noexcept override;

    // Each edits the data of its resource's reply with the values that the host has given. Any thread.
    settings::Edit streamSettings(Json::Value& data, const Tavro8::ParameterMap& given) const;
    settings::Edit captureModeSettings(Json::Value& data, const Tavro8::ParameterMap& given) const;
    settings::Edit exposureSettings(Json::Value& data, const Tavro8::ParameterMap& given) const;
    settings::Edit illuminationSettings(Json::Value& data, const Tavro8::ParameterMap& given) const;
    settings::Edit whiteBalanceSettings(Json::Value& data, const Tavro8::ParameterMap& given) const;
    settings::Edit defogSettings(Json::Value& data, const Tavro8::ParameterMap& given) const;
    settings::Edit ldcSettings(Json::Value& data, const Tavro8::ParameterMap& given) const;
    settings::Edit imageEnhanceSettings(Json::Value& data, const Tavro8::ParameterMap& given) const;

protected:
    bool parametersRequireRTSPClientReconnect(const Tavro8::ParameterMap& changed) const override;

private:
    struct SettingsRun;
    using SettingsStep = void (VideoSource::*)(const settings::GroupTraits& group, lapi::Reply& reply);

    void beginSettings(const Tavro8::ParameterMap& given, const std::shared_ptr<Device>& of, std::uint64_t since,
                       SettingsQueue::Turn turn);
    void applySettings(const Tavro8::ParameterMap& given);
    Tavro8::http::CompletionHandler settingsHandler(const settings::GroupTraits& group, const char* place,
                                                    SettingsStep step);
    void onSettingsRead(const settings::GroupTraits& group, lapi::Reply& reply);
    void onSettingsWritten(const settings::GroupTraits& group, lapi::Reply& reply);
    void logFailure(const char* place, const lapi::Reply& reply, const settings::GroupTraits& group,
                    const char* consequence) const;
    void finishSettings(const settings::GroupTraits& group, std::int32_t result);
    void finishAllSettings(std::int32_t result);
    /// `since`: the `closings` of that time.
    bool wasClosed(const Device& of, std::uint64_t since) const;
    void onDeviceClosing();
    void endClosedSettings();
    std::shared_ptr<VideoSource> sharedSelf() { return std::static_pointer_cast<VideoSource>(shared_from_this()); }

    const Tavro8::TextMap maxFpsForCodec;
    const Tavro8::LoggerHelper settingsLogger;
    const std::shared_ptr<SettingsQueue> settingsQueue;
    std::atomic<std::uint64_t> closings{0};    // how often the host has closed the device or opened another address
    std::unique_ptr<SettingsRun> settingsRun;  // on the I/O thread only
};
}  // namespace Uniview
