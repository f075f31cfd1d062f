#include "TelemetryChannel.h"

#include "Lapi.h"
#include "ModelParameters.h"
#include "ObjectName.h"

#include <IpUtil/Http.h>
#include <algorithm>
#include <utility>

namespace Uniview
{
namespace
{
using Tavro8::LoggerHelper;
using Tavro8::LogPlace;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::http::CompletionHandler;
using Tavro8::http::ConnectionInfoPtr;

constexpr const char* sourcePath = "Drivers/Uniview/src/TelemetryChannel";
constexpr const char* constructing = "Uniview::TelemetryChannel::TelemetryChannel";
constexpr const char* destroying = "Uniview::TelemetryChannel::~TelemetryChannel";
constexpr const char* moving = "Uniview::TelemetryChannel::MoveContinuous";
constexpr const char* zooming = "Uniview::TelemetryChannel::ZoomContinuous";
constexpr const char* focusing = "Uniview::TelemetryChannel::FocusContinuous";
constexpr const char* turningIris = "Uniview::TelemetryChannel::IrisContinuous";
constexpr const char* movingAbsolutely = "Uniview::TelemetryChannel::AbsoluteMoveEx";
constexpr const char* readingPosition = "Uniview::TelemetryChannel::GetPositionParams";
constexpr const char* zoomingArea = "Uniview::TelemetryChannel::AreaZoom";
constexpr const char* movingToPoint = "Uniview::TelemetryChannel::PointMove";
constexpr const char* putting = "Uniview::TelemetryChannel::sendPutRequest";
constexpr const char* getting = "Uniview::TelemetryChannel::sendGetRequest";
constexpr const char* posting = "Uniview::TelemetryChannel::sendPostRequest";
constexpr const char* deleting = "Uniview::TelemetryChannel::sendDeleteRequest";

constexpr const char* absoluteMove = "AbsoluteMove";
constexpr const char* absoluteZoom = "AbsoluteZoom";
}  // namespace

TelemetryModel TelemetryModel::read(const DeviceTraits& traits, std::uint32_t channelIndex)
{
    const auto channel = ModelParameters::ofChannel(traits, channelIndex);
    TelemetryModel model;
    model.panSpeed = channel.count("panSpeed");
    model.tiltSpeed = channel.count("tiltSpeed");
    model.presetCount = channel.count("presetCount");
    model.zoomSpeed = channel.count("zoomSpeed");
    model.focusSpeed = channel.count("focusSpeed");
    model.irisSpeed = channel.count("irisSpeed");
    model.trackLog = ModelParameters(traits.modelParameters).flag("trackLog");
    model.supportsAreaZoom = channel.flag("supportsAreaZoom");
    model.supportsPointMove = channel.flag("supportsPointMove");
    model.supportsDirectMove = channel.flag("supportsDirectMove");
    model.supportsDirectZoom = channel.flag("supportsDirectZoom");
    model.supportsPresetTour = channel.flag("supportsPresetTour");
    return model;
}

TelemetryChannel::TelemetryChannel(std::uint32_t channelIndex, Device* device)
    : TelemetryChannel(
          channelIndex, device,
          Tavro8::LoggerDetail::makeNamedLogger(device->getLogger().get(), telemetryObjectName(channelIndex)))
{}

TelemetryChannel::TelemetryChannel(std::uint32_t channelIndex, Device* device, LoggerOwner channelLogger)
    : TelemetryBase(channelIndex, LoggerHelper(channelLogger.get(), sourcePath)),
      LoggerOwner(std::move(channelLogger)),
      channelIndex(channelIndex),
      device(device),
      pathChannel(channelIndex),
      model(TelemetryModel::read(*device->getDescription(), this->channelIndex)),
      keepDevice(device->shared_from_this())
{
    logger.info(constructing, "Created");
}

TelemetryChannel::~TelemetryChannel()
{
    requests.end();
    calls.close();
    logger.info(destroying, "Destroyed");
}

void* TelemetryChannel::FindContract(const char* name) noexcept
{
    using namespace Tavro8::GDRV;
    if (void* const found = Tavro8::findContractIn<ITelemetry, ITelemetryAdjuster, ITelemetryPointClick,
                                                   IAbsoluteTelemetry, LoggerOwner, LogCollapserMaker>(this, name))
        return found;
    return TelemetryBase::FindContract(name);
}

bool TelemetryChannel::isRecorder() const noexcept
{
    return device->GetDeviceKind() == static_cast<std::uint32_t>(Tavro8::GDRV::DeviceKind::recorder);
}

std::string TelemetryChannel::getControlPath(const char* resource) const
{
    return telemetry::controlPath(isRecorder(), device->channelNumber(pathChannel)) + resource;
}

std::string TelemetryChannel::getResourcePath(const char* resource) const
{
    return telemetry::resourcePath(device->channelNumber(pathChannel)) + resource;
}

void TelemetryChannel::MoveContinuous(std::int32_t pan, std::int32_t tilt) noexcept
{
    perform(moving, [&] { return move(pan, tilt); });
}

std::int32_t TelemetryChannel::move(std::int32_t pan, std::int32_t tilt)
{
    if (model.trackLog)
        logger.info(moving, "TRACE: ", "ps-", pan, ",ts-", tilt);
    const std::uint32_t panning = telemetry::magnitude(pan);
    const std::uint32_t tilting = telemetry::magnitude(tilt);
    if (panning > model.panSpeed || tilting > model.tiltSpeed) {
        logger.error(moving, "Error: pan or tilt speed value out of range");
        return toResult(ResultCode::outOfRange);
    }
    return sendPtzControl(telemetry::controlBody(telemetry::moveCommand(pan, tilt), panning, tilting));
}

void TelemetryChannel::ZoomContinuous(std::int32_t speed) noexcept
{
    perform(zooming, [&] {
        return moveLens(zooming, speed, model.zoomSpeed, "Error: zoom speed value out of range",
                        telemetry::zoomCommand(speed));
    });
}

void TelemetryChannel::FocusContinuous(std::int32_t speed) noexcept
{
    perform(focusing, [&] {
        return moveLens(focusing, speed, model.focusSpeed, "Error: focus speed value out of range",
                        telemetry::focusCommand(speed));
    });
}

void TelemetryChannel::IrisContinuous(std::int32_t speed) noexcept
{
    perform(turningIris, [&] {
        return moveLens(turningIris, speed, model.focusSpeed, "Error: focus speed value out of range",
                        telemetry::irisCommand(speed));
    });
}

/// The device gets the direction only: it turns its lens at one speed.
std::int32_t TelemetryChannel::moveLens(LogPlace operation, std::int32_t speed, std::uint32_t limit,
                                        const char* tooFast, telemetry::Command command)
{
    if (model.trackLog)
        logger.info(operation, "TRACE: ", "zs-", speed);
    if (telemetry::magnitude(speed) > limit) {
        logger.error(operation, tooFast);
        return toResult(ResultCode::outOfRange);
    }
    return sendPtzControl(telemetry::controlBody(command));
}

std::int32_t TelemetryChannel::sendPtzControl(const std::string& body)
{
    return sendPutRequest(getControlPath("PTZCtrl"), body);
}

std::int32_t TelemetryChannel::AbsoluteMoveEx(std::uint32_t pan, std::uint32_t panSpeed, std::uint32_t tilt,
                                              std::uint32_t tiltSpeed, std::uint32_t zoom, std::uint32_t zoomSpeed,
                                              std::uint32_t mask) noexcept
{
    using namespace Tavro8::GDRV;
    return perform(movingAbsolutely, [&] {
        if (!model.supportsDirectMove && !model.supportsDirectZoom)
            return notSupported;
        const std::uint32_t moveSpeed = std::max(panSpeed, tiltSpeed);
        if (moveSpeed > maxMoveSpeed) {
            logger.error(movingAbsolutely, "Pan or tilt speed value out of range");
            return toResult(ResultCode::outOfRange);
        }
        Direction direction{telemetry::degrees(pan), telemetry::degrees(tilt)};
        std::int32_t result = completeDirection(direction, mask);
        if (result != 0)
            return result;
        result = sendPutRequest(getResourcePath(absoluteMove),
                                telemetry::absoluteMoveBody(direction.longitude, direction.latitude, moveSpeed));
        if (result != 0) {
            logger.error(movingAbsolutely, "Failed to set current absolute position");
            return result;
        }
        if ((mask & AbsoluteMoveMask::absoluteZoom) != 0) {
            result =
                sendPutRequest(getResourcePath(absoluteZoom), telemetry::absoluteZoomBody(zoom / 100.0, zoomSpeed));
            if (result != 0)
                logger.error(movingAbsolutely, "Failed to set current zoom");
        }
        return result;
    });
}

/// Takes the axes that the host does not give from the device, which wants both.
std::int32_t TelemetryChannel::completeDirection(Direction& wanted, std::uint32_t mask)
{
    using namespace Tavro8::GDRV;
    const bool givesPan = (mask & absolutePan) != 0;
    const bool givesTilt = (mask & absoluteTilt) != 0;
    if (givesPan && givesTilt)
        return toResult(ResultCode::success);
    Direction current;
    const std::int32_t result = readDirection(movingAbsolutely, current);
    if (result != 0)
        return result;
    if (!givesPan)
        wanted.longitude = current.longitude;
    if (!givesTilt)
        wanted.latitude = current.latitude;
    return result;
}

std::int32_t TelemetryChannel::readDirection(LogPlace operation, Direction& direction)
{
    const std::string path = getResourcePath(absoluteMove);
    Json::Value data;
    std::int32_t result = sendGetRequest(path, data);
    if (result == 0)
        result = readNumber(path, data, "Longitude", direction.longitude);
    if (result == 0)
        result = readNumber(path, data, "Latitude", direction.latitude);
    if (result != 0)
        logger.error(operation, "Failed to get current absolute position");
    return result;
}

std::int32_t TelemetryChannel::readZoomRatio(LogPlace operation, double& ratio)
{
    const std::string path = getResourcePath(absoluteZoom);
    Json::Value data;
    std::int32_t result = sendGetRequest(path, data);
    if (result == 0)
        result = readNumber(path, data, "ZoomRatio", ratio);
    if (result != 0)
        logger.error(operation, "Failed to get current absolute zoom");
    return result;
}

/// A missing number is no 0: the device would be moved there.
std::int32_t TelemetryChannel::readNumber(const std::string& path, const Json::Value& data, const char* name,
                                          double& number)
{
    const auto found = telemetry::findNumber(data, name);
    if (!found)
        return failRequest(getting, toResult(ResultCode::malformedReply),
                           std::string("HTTP response has no number \"") + name + "\", request: " + path);
    number = *found;
    return toResult(ResultCode::success);
}

std::int32_t TelemetryChannel::GetPositionParams(std::uint32_t& pan, std::uint32_t& tilt, std::uint32_t& zoom) noexcept
{
    return perform(readingPosition, [&] {
        Direction direction;
        double ratio = 0;
        std::int32_t result = readDirection(readingPosition, direction);
        if (result == 0)
            result = readZoomRatio(readingPosition, ratio);
        if (result != 0)
            return result;
        const auto longitude = telemetry::hundredths(direction.longitude);
        const auto latitude = telemetry::hundredths(direction.latitude);
        const auto zoomRatio = telemetry::hundredths(ratio);
        if (!longitude || !latitude || !zoomRatio) {
            logger.error(readingPosition, "The position of the device is out of range");
            return toResult(ResultCode::outOfRange);
        }
        pan = *longitude;
        tilt = *latitude;
        zoom = *zoomRatio;
        return result;
    });
}

std::int32_t TelemetryChannel::AreaZoom(const Tavro8::GDRV::NormalizedRect& rect) noexcept
{
    return perform(zoomingArea, [&] {
        if (!model.supportsAreaZoom)
            return notSupported;
        return sendArea(zoomingArea, telemetry::areaZoom(rect), "Failed to set area zoom position");
    });
}

std::int32_t TelemetryChannel::PointMove(const Tavro8::GDRV::NormalizedPoint& point) noexcept
{
    return perform(movingToPoint, [&] {
        if (!model.supportsPointMove)
            return notSupported;
        return sendArea(movingToPoint, telemetry::pointMove(point), "Failed to set point click position");
    });
}

std::int32_t TelemetryChannel::sendArea(LogPlace operation, const std::optional<telemetry::AreaCommand>& command,
                                        const char* failure)
{
    const std::int32_t result =
        command ? sendPutRequest(getResourcePath(command->resource), command->body) : toResult(ResultCode::outOfRange);
    if (result != 0)
        logger.error(operation, failure);
    return result;
}

std::int32_t TelemetryChannel::sendPutRequest(const std::string& path, const std::string& body, Json::Value* replyData)
{
    return send(putting, path, replyData,
                [&](const ConnectionInfoPtr& info, boost::asio::io_context& context, CompletionHandler handler) {
                    return Tavro8::http::asyncPutEx(info, path, body, context, std::move(handler));
                });
}

std::int32_t TelemetryChannel::sendGetRequest(const std::string& path, Json::Value& replyData)
{
    return send(getting, path, &replyData,
                [&](const ConnectionInfoPtr& info, boost::asio::io_context& context, CompletionHandler handler) {
                    return Tavro8::http::asyncGetEx(info, path, context, std::move(handler));
                });
}

std::int32_t TelemetryChannel::sendPostRequest(const std::string& path, const std::string& body, Json::Value* replyData)
{
    return send(posting, path, replyData,
                [&](const ConnectionInfoPtr& info, boost::asio::io_context& context, CompletionHandler handler) {
                    return Tavro8::http::asyncPostEx(info, path, body, context, Tavro8::http::HttpHeaders{},
                                                     std::move(handler));
                });
}

std::int32_t TelemetryChannel::sendDeleteRequest(const std::string& path)
{
    return send(deleting, path, nullptr,
                [&](const ConnectionInfoPtr& info, boost::asio::io_context& context, CompletionHandler handler) {
                    return Tavro8::http::asyncDeleteEx(info, path, context, std::move(handler));
                });
}

template <typename Begin>
std::int32_t TelemetryChannel::send(LogPlace operation, const std::string& path, Json::Value* replyData, Begin&& begin)
{
    const ConnectionInfoPtr info = device->hasBeenConnected() ? device->getHttpConnectionInfo() : nullptr;
    if (info == nullptr)
        return failRequest(operation, toResult(ResultCode::invalidState),
                           " The device has not been connected, request: " + path);
    lapi::Reply reply =
        requests.run([&](boost::asio::io_context& context,
                         CompletionHandler handler) { return begin(info, context, std::move(handler)); },
                     replyData == nullptr ? lapi::Expect::status : lapi::Expect::success);
    const bool isBroken = reply.failure == lapi::Failure::transport;
    device->reportExchange({isBroken ? reply.result : 0, Tavro8::Utility::get_tavro8_category()});
    if (reply.failure == lapi::Failure::malformed)
        return failRequest(operation, reply.result, "HTTP response cannot be read, request: " + path);
    if (!reply)
        return failRequest(operation, reply.result, lapi::describe(reply, path, lapi::Wording::telemetry));
    if (replyData != nullptr)
        replyData->swap(reply.data);
    return toResult(ResultCode::success);
}

/// A joystick that is held while the device is down fails many times a second in the same way, or in ever new words of
/// the device.
std::int32_t TelemetryChannel::failRequest(LogPlace operation, std::int32_t result, const std::string& message)
{
    if (const std::uint32_t times = collapse(message, failuresFolded, operation.function, failureTexts); times != 0)
        logger.error(operation, "[collapsed ", times, "]", message);
    return result;
}
}  // namespace Uniview
