#pragma once

#include "Device.h"
#include "TelemetryCommands.h"
#include "TelemetryRequests.h"

#include <IpUtil/GlobalService.h>
#include <IpUtil/Logger.h>
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/TelemetryBase.h>
#include <Tavro8/GDRV/ITelemetry.h>
#include <Tavro8/ResultCode.h>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace Uniview
{
/// What the host's configuration says a channel can do; 0 and false for what it does not say.
struct TelemetryModel {
    std::uint32_t panSpeed = 0;  ///< greatest speeds of continuous movement, in the host's scale
    std::uint32_t tiltSpeed = 0;
    std::uint32_t presetCount = 0;
    std::uint32_t zoomSpeed = 0;
    std::uint32_t focusSpeed = 0;  ///< also of the iris
    std::uint32_t irisSpeed = 0;   ///< read and not used: devices hold the iris to the focus limit
    bool trackLog = false;         ///< a log line for each movement
    bool supportsAreaZoom = false;
    bool supportsPointMove = false;
    bool supportsDirectMove = false;
    bool supportsDirectZoom = false;
    bool supportsPresetTour = false;

    /// Raises the cast error for a parameter of the wrong type and `std::out_of_range` for a negative limit.
    static TelemetryModel read(const DeviceTraits& traits, std::uint32_t channelIndex);
};

/// Pan, tilt, zoom, presets and tours of one channel.
///
/// Every operation of the `GDRV` interfaces may be called on any host thread, also several at once; it blocks until the
/// device has answered each request it takes, without a lock held. All members but the tour's state are constant.
/// `Destroy` takes back the requests of calls that are under way on other threads, which then return 1, and waits for
/// these calls.
class TelemetryChannel final : public Tavro8::Utility::TelemetryBase,
                               public Tavro8::GDRV::ITelemetryAdjuster,
                               public Tavro8::GDRV::ITelemetryPointClick,
                               public Tavro8::GDRV::IAbsoluteTelemetry,
                               public Tavro8::LoggerOwner,
                               public Tavro8::LoggerDetail::LogCollapserMaker {
public:
    /// `device` is not owned; the host destroys the channel first. Raises what `TelemetryModel::read` does.
    TelemetryChannel(std::uint32_t channelIndex, Device* device);
    ~TelemetryChannel() override;

    void* FindContract(const char* name) noexcept override;

    // ITelemetry
    void MoveContinuous(std::int32_t pan, std::int32_t tilt) noexcept override;
    void ZoomContinuous(std::int32_t speed) noexcept override;
    void FocusContinuous(std::int32_t speed) noexcept override;
    void IrisContinuous(std::int32_t speed) noexcept override;
    std::int32_t GoToPreset(std::uint32_t index) noexcept override;
    std::int32_t PlayTour(std::uint32_t index) noexcept override;
    std::int32_t StopTour() noexcept override;

    // ITelemetryAdjuster
    std::int32_t SetPreset(std::uint32_t index) noexcept override;
    std::int32_t RemovePreset(std::uint32_t index) noexcept override;
    std::int32_t StartFillTour(std::uint32_t index) noexcept override;
    std::int32_t SetPoint(std::uint32_t speed, std::uint32_t presetIndex, std::uint32_t dwellSeconds) noexcept override;
    std::int32_t StopFillTour() noexcept override;
    std::int32_t RemoveTour(std::uint32_t) noexcept override { return notSupported; }
    std::int32_t RenamePreset(std::uint32_t, const char*) noexcept override { return notSupported; }

    // ITelemetryPointClick
    std::int32_t AreaZoom(const Tavro8::GDRV::NormalizedRect& rect) noexcept override;
    std::int32_t PointMove(const Tavro8::GDRV::NormalizedPoint& point) noexcept override;

    // IAbsoluteTelemetry
    std::int32_t AbsoluteMoveEx(std::uint32_t pan, std::uint32_t panSpeed, std::uint32_t tilt, std::uint32_t tiltSpeed,
                                std::uint32_t zoom, std::uint32_t zoomSpeed, std::uint32_t mask) noexcept override;
    std::int32_t GetPositionParams(std::uint32_t& pan, std::uint32_t& tilt, std::uint32_t& zoom) noexcept override;

    static constexpr std::uint32_t maxMoveSpeed = 9;     ///< of absolute moves
    static constexpr std::uint32_t tourCount = 2;        ///< tours 0 and 1
    static constexpr std::size_t maxTourPoints = 1024;   ///< bounds what a host can pile up
    static constexpr std::uint32_t failuresFolded = 50;  ///< of the same kind in one log line
    static constexpr std::size_t failureTexts = 32;      ///< told apart; further ones count together

private:
    using Tavro8::Utility::TelemetryBase::logger;

    /// `channelLogger` puts the name of the channel in front of each line.
    TelemetryChannel(std::uint32_t channelIndex, Device* device, Tavro8::LoggerOwner channelLogger);

    /// One operation of the host: nothing escapes, and `Destroy` waits for it.
    template <typename Body>
    std::int32_t perform(Tavro8::LogPlace operation, Body&& body) noexcept
    {
        auto result = toResult(Tavro8::ResultCode::cancelled);
        calls.call(
            [&] { result = Tavro8::guarded(logger, operation, toResult(Tavro8::ResultCode::unexpected), body); });
        return result;
    }

    bool isRecorder() const noexcept;
    std::string getControlPath(const char* resource) const;
    std::string getResourcePath(const char* resource) const;

    // Movement:
    struct Direction {
        double longitude = 0;  // degrees
        double latitude = 0;
    };
    std::int32_t move(std::int32_t pan, std::int32_t tilt);
    std::int32_t moveLens(Tavro8::LogPlace operation, std::int32_t speed, std::uint32_t limit, const char* tooFast,
                          telemetry::Command command);
    std::int32_t sendPtzControl(const std::string& body);
    std::int32_t completeDirection(Direction& wanted, std::uint32_t mask);
    std::int32_t readDirection(Tavro8::LogPlace operation, Direction& direction);
    std::int32_t readZoomRatio(Tavro8::LogPlace operation, double& ratio);
    std::int32_t readNumber(const std::string& path, const Json::Value& data, const char* name, double& number);
    std::int32_t sendArea(Tavro8::LogPlace operation, const std::optional<telemetry::AreaCommand>& command,
                          const char* failure);

    // Presets and tours:
    bool presetValueOutOfRange(std::uint32_t index) const;
    std::int32_t invokeSetPresetCommand(std::uint32_t presetNumber);
    std::int32_t readList(const std::string& path, const char* listName, Json::Value& data);
    bool tourOutOfRange(Tavro8::LogPlace operation, std::uint32_t index) const;
    void beginFilling(std::uint32_t index, const Json::Value* known);
    std::int32_t storeTour(std::uint32_t index, bool exists, const std::string& body);

    // Request helpers. `replyData`, where it may be null, says whether the reply is judged to its end and receives its
    // data; it is untouched on failure.
    std::int32_t sendPutRequest(const std::string& path, const std::string& body, Json::Value* replyData = nullptr);
    std::int32_t sendGetRequest(const std::string& path, Json::Value& replyData);
    std::int32_t sendPostRequest(const std::string& path, const std::string& body, Json::Value* replyData = nullptr);
    std::int32_t sendDeleteRequest(const std::string& path);
    template <typename Begin>
    std::int32_t send(Tavro8::LogPlace operation, const std::string& path, Json::Value* replyData, Begin&& begin);
    std::int32_t failRequest(Tavro8::LogPlace operation, std::int32_t result, const std::string& message);

    const std::uint32_t channelIndex;
    Device* const device;
    const std::uint32_t pathChannel;  // the same index, for paths

    const TelemetryModel model;

    // The tour's state; guarded by `tourMutex`.
    bool tourPlaying = false;
    std::uint32_t playingTour = 0;
    bool tourFilling = false;
    std::uint32_t filledTour = 0;
    bool tourExists = false;  // on the device, by the list that was read last
    std::string tourName;     // on the device; empty when it has none
    std::vector<telemetry::TourPoint> tourPoints;
    std::uint64_t plays = 0;  // tell a tour that another thread has begun meanwhile apart
    std::uint64_t fillings = 0;
    mutable std::mutex tourMutex;

    TelemetryRequests requests;
    Tavro8::Utility::HandlerGate calls;      // the host's calls that are under way
    const std::shared_ptr<void> keepDevice;  // a host that destroys the device first finds no dangling pointer here
};
}  // namespace Uniview
