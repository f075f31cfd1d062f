#include "SettingsGroup.h"

#include <Tavro8/GDRV/IDeviceInformation.h>
#include <array>

namespace Uniview::settings
{
namespace
{
// Devices have the streams of a channel under another name than the rest of it.
constexpr const char* channel = "/LAPI/V1.0/Channel/";
constexpr const char* channels = "/LAPI/V1.0/Channels/";

constexpr std::array<GroupTraits, groupCount> table{{
    {Group::stream, "stream", channel, "/Media/Video/Streams/DetailInfos",
     "Uniview::VideoSource::handleGetStreamSettings", "Uniview::VideoSource::streamSettings",
     "Uniview::VideoSource::handlePutStreamSettings", "Bad response while tried to get streaming settings",
     "Can't apply streaming settings", "Streaming settings is empty"},
    {Group::captureMode, "captureMode", channels, "/Media/VideoInMode",
     "Uniview::VideoSource::handleGetCaptureModeSettings", "Uniview::VideoSource::captureModeSettings",
     "Uniview::VideoSource::handlePutCaptureModeSettings", "Bad response while tried to get capture mode settings",
     "Can't apply capture mode settings", "Capture mode settings is empty"},
    {Group::exposure, "exposure", channels, "/Image/Advanced/Exposure",
     "Uniview::VideoSource::handleGetExposureSettings", "Uniview::VideoSource::exposureSettings",
     "Uniview::VideoSource::handlePutExposureSettings", "Bad response while tried to get exposure settings",
     "Can't apply exposure settings", "Exposure settings is empty"},
    {Group::illumination, "illumination", channels, "/Image/LampCtrl",
     "Uniview::VideoSource::handleGetIlluminationSettings", "Uniview::VideoSource::illuminationSettings",
     "Uniview::VideoSource::handlePutIlluminationSettings", "Bad response while tried to get illumination settings",
     "Can't apply illumination settings", "Illumination settings is empty"},
    {Group::whiteBalance, "whiteBalance", channels, "/Image/WhiteBalance/Video",
     "Uniview::VideoSource::handleGetWhiteBalanceSettings", "Uniview::VideoSource::whiteBalanceSettings",
     "Uniview::VideoSource::handlePutWhiteBalanceSettings", "Bad response while tried to get white balance settings",
     "Can't apply white balance settings", "White balance settings is empty"},
    {Group::defog, "defog", channels, "/Image/Defog/Video", "Uniview::VideoSource::handleGetDefogSettings",
     "Uniview::VideoSource::defogSettings", "Uniview::VideoSource::handlePutDefogSettings",
     "Bad response while tried to get defog settings", "Can't apply defog settings", "Defog settings is empty"},
    {Group::ldc, "ldc", channels, "/Image/LDC", "Uniview::VideoSource::handleGetLdcSettings",
     "Uniview::VideoSource::ldcSettings", "Uniview::VideoSource::handlePutLdcSettings",
     "Bad response while tried to get ldc settings", "Can't apply ldc settings", "Ldc settings is empty"},
    {Group::imageEnhance, "imageEnhance", channels, "/Image/Enhance",
     "Uniview::VideoSource::handleGetImageEnhanceSettings", "Uniview::VideoSource::imageEnhanceSettings",
     "Uniview::VideoSource::handlePutImageEnhanceSettings", "Bad response while tried to get image enhance settings",
     "Can't apply image enhance settings", "Image enhance settings is empty"},
}};
}  // namespace

std::span<const GroupTraits, groupCount> allGroups() noexcept
{
    return table;
}

const GroupTraits& traitsOf(Group group) noexcept
{
    return table[static_cast<std::size_t>(group)];
}

std::span<const GroupTraits> groupsOf(std::uint32_t deviceKind) noexcept
{
    if (deviceKind == static_cast<std::uint32_t>(Tavro8::GDRV::DeviceKind::recorder))
        return {&traitsOf(Group::imageEnhance), 1};
    return table;
}

std::string pathOf(const GroupTraits& traits, std::uint32_t channelNumber)
{
    return traits.collection + std::to_string(channelNumber) + traits.suffix;
}
}  // namespace Uniview::settings
