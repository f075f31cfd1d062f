// Presets and tours of a telemetry channel.
#include "TelemetryChannel.h"

#include <limits>
#include <utility>

namespace Uniview
{
namespace
{
using Tavro8::LogPlace;
using Tavro8::ResultCode;
using Tavro8::toResult;

constexpr const char* storingPreset = "Uniview::TelemetryChannel::SetPreset";
constexpr const char* removingPreset = "Uniview::TelemetryChannel::RemovePreset";
constexpr const char* goingToPreset = "Uniview::TelemetryChannel::GoToPreset";
constexpr const char* checkingPreset = "Uniview::TelemetryChannel::presetValueOutOfRange";
constexpr const char* writingPreset = "Uniview::TelemetryChannel::invokeSetPresetCommand";
constexpr const char* playingTourOperation = "Uniview::TelemetryChannel::PlayTour";
constexpr const char* stoppingTour = "Uniview::TelemetryChannel::StopTour";
constexpr const char* fillingTour = "Uniview::TelemetryChannel::StartFillTour";
constexpr const char* settingPoint = "Uniview::TelemetryChannel::SetPoint";
constexpr const char* storingTour = "Uniview::TelemetryChannel::StopFillTour";

constexpr const char* presets = "Presets";
constexpr const char* presetList = "PresetInfos";
constexpr const char* patrols = "Patrols";
constexpr const char* patrolList = "PatrolInfos";

constexpr std::uint32_t greatest = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t msPerSecond = 1000;

/// One entry of a list resource.
std::string elementOf(const std::string& path, std::uint32_t number)
{
    return path + '/' + std::to_string(number);
}
}  // namespace

/// The bound is inclusive on purpose: the greatest preset number of a device is the count plus one.
bool TelemetryChannel::presetValueOutOfRange(std::uint32_t index) const
{
    if (index <= model.presetCount)
        return false;
    logger.error(checkingPreset, "Error: preset value out of range");
    return true;
}

std::int32_t TelemetryChannel::SetPreset(std::uint32_t index) noexcept
{
    return perform(storingPreset, [&] {
        if (presetValueOutOfRange(index))
            return toResult(ResultCode::outOfRange);
        const std::uint32_t number = index + 1;
        if (model.trackLog)
            logger.info(storingPreset, "TRACE: ", "preset-", number);
        return invokeSetPresetCommand(number);
    });
}

std::int32_t TelemetryChannel::invokeSetPresetCommand(std::uint32_t presetNumber)
{
    const std::string path = getResourcePath(presets);
    const std::string body = telemetry::presetBody(presetNumber);
    if (isRecorder())
        return sendPutRequest(elementOf(path, presetNumber), body);

    Json::Value data;
    const std::int32_t result = readList(path, presetList, data);
    if (result != 0) {
        logger.error(writingPreset, "Failed to get existing presets!");
        return result;
    }
    if (telemetry::findEntry(data, presetList, presetNumber) == nullptr)
        return sendPostRequest(path, body);
    return sendPutRequest(path, body);
}

/// A device with an empty list may leave it out.
std::int32_t TelemetryChannel::readList(const std::string& path, const char* listName, Json::Value& data)
{
    const std::int32_t result = sendGetRequest(path, data);
    if (result != 0 || telemetry::mayHoldList(data, listName))
        return result;
    return failRequest("Uniview::TelemetryChannel::readList", toResult(ResultCode::malformedReply),
                       std::string("HTTP response has no list \"") + listName + "\", request: " + path);
}

std::int32_t TelemetryChannel::GoToPreset(std::uint32_t index) noexcept
{
    return perform(goingToPreset, [&] {
        if (presetValueOutOfRange(index))
            return toResult(ResultCode::outOfRange);
        return sendPutRequest(elementOf(getControlPath(presets), index + 1) + "/goto", {});
    });
}

std::int32_t TelemetryChannel::RemovePreset(std::uint32_t index) noexcept
{
    return perform(removingPreset, [&] {
        if (presetValueOutOfRange(index))
            return toResult(ResultCode::outOfRange);
        return sendDeleteRequest(elementOf(getControlPath(presets), index + 1));
    });
}

bool TelemetryChannel::tourOutOfRange(LogPlace operation, std::uint32_t index) const
{
    if (index < tourCount)
        return false;
    logger.error(operation, "Tour number out of range");
    return true;
}

std::int32_t TelemetryChannel::PlayTour(std::uint32_t index) noexcept
{
    return perform(playingTourOperation, [&] {
        if (!model.supportsPresetTour)
            return notSupported;
        logger.info(playingTourOperation, "Play tour with index '", index, "'");
        if (tourOutOfRange(playingTourOperation, index))
            return toResult(ResultCode::outOfRange);
        {
            // Before the device is asked: it may play although its answer is lost, and can be stopped then.
            const std::lock_guard lock(tourMutex);
            playingTour = index;
            tourPlaying = true;
            ++plays;
        }
        return sendPutRequest(elementOf(getResourcePath(patrols), index) + "/Start", {});
    });
}

std::int32_t TelemetryChannel::StopTour() noexcept
{
    return perform(stoppingTour, [&] {
        if (!model.supportsPresetTour)
            return notSupported;
        std::unique_lock lock(tourMutex);
        const bool isPlaying = tourPlaying;
        const std::uint32_t index = playingTour;
        const std::uint64_t play = plays;
        lock.unlock();
        if (!isPlaying) {
            logger.error(stoppingTour, "No active tour to stop");
            return toResult(ResultCode::invalidState);
        }
        logger.info(stoppingTour, "Stop tour");
        const std::int32_t result = sendPutRequest(elementOf(getResourcePath(patrols), index) + "/Stop", {});
        lock.lock();
        if (result == 0 && plays == play)
            tourPlaying = false;
        return result;
    });
}

std::int32_t TelemetryChannel::StartFillTour(std::uint32_t index) noexcept
{
    return perform(fillingTour, [&] {
        if (!model.supportsPresetTour)
            return notSupported;
        if (tourOutOfRange(fillingTour, index))
            return toResult(ResultCode::outOfRange);
        {
            // Before the device is asked, of an unfinished tour too: what the device has is unknown until it answers.
            const std::lock_guard lock(tourMutex);
            tourExists = false;
        }
        Json::Value data;
        const std::int32_t result = readList(getResourcePath(patrols), patrolList, data);
        if (result != 0) {
            logger.error(fillingTour, "Failed to get existing tours!");
            return result;
        }
        logger.info(fillingTour, "Start filling tour with index '", index, "'");
        beginFilling(index, telemetry::findEntry(data, patrolList, index));
        return result;
    });
}

/// `known` is the tour on the device, null when there is none. The points of an unfinished filling are dropped.
void TelemetryChannel::beginFilling(std::uint32_t index, const Json::Value* known)
{
    std::string name;
    if (known != nullptr && (*known)["Name"].isString())
        name = (*known)["Name"].asString();
    const std::lock_guard lock(tourMutex);
    tourExists = known != nullptr;
    tourName = std::move(name);
    filledTour = index;
    tourFilling = true;
    tourPoints.clear();
    ++fillings;
}

std::int32_t TelemetryChannel::SetPoint(std::uint32_t speed, std::uint32_t presetIndex,
                                        std::uint32_t dwellSeconds) noexcept
{
    return perform(settingPoint, [&] {
        if (!model.supportsPresetTour)
            return notSupported;
        logger.info(settingPoint, "Setting tour point with index '", presetIndex, "', speed '", speed,
                    "', dwell time '", dwellSeconds, "'");
        std::unique_lock lock(tourMutex);
        const bool isFilling = tourFilling;
        const bool fits =
            presetIndex < greatest && dwellSeconds <= greatest / msPerSecond && tourPoints.size() < maxTourPoints;
        if (isFilling && fits) {
            tourPoints.push_back({presetIndex + 1, dwellSeconds * msPerSecond, speed});
            return toResult(ResultCode::success);
        }
        lock.unlock();
        if (!isFilling) {
            logger.error(settingPoint, "Trying to set tour point without starting filling tour!");
            return toResult(ResultCode::noTourBeingFilled);
        }
        logger.error(settingPoint, "Tour point out of range");
        return toResult(ResultCode::outOfRange);
    });
}

std::int32_t TelemetryChannel::StopFillTour() noexcept
{
    return perform(storingTour, [&] {
        if (!model.supportsPresetTour)
            return notSupported;
        std::unique_lock lock(tourMutex);
        if (!tourFilling) {
            lock.unlock();
            logger.error(storingTour, "No active tour to stop");
            return toResult(ResultCode::noTourBeingFilled);
        }
        const std::uint32_t index = filledTour;
        const bool exists = tourExists;
        const std::uint64_t filling = fillings;
        const std::string body = telemetry::tourBody(index, tourName, tourPoints);
        lock.unlock();
        logger.info(storingTour, "StopFillTour with index '", index, "'");
        const std::int32_t result = storeTour(index, exists, body);
        lock.lock();
        if (result == 0 && fillings == filling)
            tourFilling = false;
        return result;
    });
}

std::int32_t TelemetryChannel::storeTour(std::uint32_t index, bool exists, const std::string& body)
{
    const std::string path = getResourcePath(patrols);
    Json::Value replyData;
    const std::int32_t result = isRecorder() || exists ? sendPutRequest(elementOf(path, index), body, &replyData)
                                                       : sendPostRequest(path, body, &replyData);
    if (result == 0)
        logger.info(storingTour, "Stop fill tour");
    return result;
}
}  // namespace Uniview
