#include "SampleDevice.h"

#include "Clip.h"
#include "Events.h"
#include "Sources.h"
#include "Talk.h"
#include "Telemetry.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <atomic>
#include <cstring>

namespace Sample
{
namespace GDRV = Tavro8::GDRV;
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;
namespace
{
constexpr std::chrono::milliseconds retryDelay{20};

constexpr unsigned crowdedPlaces = 2;
std::atomic<unsigned> placesTaken{0};  // of the crowded device, to which every object of that name belongs

template <typename Object>
std::int32_t notSupported(Object** object) noexcept
{
    *object = nullptr;
    return toResult(ResultCode::notSupported);
}

/// What every factory operation does around the making: no exception leaves the module.
template <typename Object, typename Make>
std::int32_t create(Object** object, Make&& make) noexcept
try {
    *object = make();
    return toResult(ResultCode::success);
} catch (const std::exception&) {
    *object = nullptr;
    return toResult(ResultCode::noResources);
}
}  // namespace

SampleDevice::SampleDevice(const GDRV::IDeviceDescription& description, GDRV::IDeviceHandler* hostHandler,
                           Tavro8::ILogger* hostLogger)
    : handler(hostHandler), logger(hostLogger), channels(description.GetVideoChannelCount())
{
    const ParameterMap& properties = description.GetProperties();
    if (const auto found = properties.find("talkFile"); found != properties.end())
        if (const auto* text = boost::any_cast<std::string>(&found->second))
            talkFile = *text;
}

void* SampleDevice::FindContract(const char* name) noexcept
{
    // Both bases are contracts, so each is named through the pointer to exactly that base.
    if (void* device =
            Tavro8::findContractIn<GDRV::IDevice, Tavro8::IContract>(static_cast<GDRV::IDevice*>(this), name))
        return device;
    return Tavro8::findContractIn<GDRV::IDeviceInformation>(static_cast<GDRV::IDeviceInformation*>(this), name);
}

void SampleDevice::Destroy() noexcept
{
    loop->forget(this);
    retire(std::move(loop));
    delete this;
}

std::int32_t SampleDevice::Open(const char* address) noexcept
try {
    std::string rest = address;
    if (const auto scheme = rest.find("://"); scheme != std::string::npos)
        rest.erase(0, scheme + 3);
    if (const auto at = rest.rfind('@'); at != std::string::npos) {
        userInfo = rest.substr(0, at);
        rest.erase(0, at + 1);
    }
    hostName = rest.substr(0, rest.find_first_of(":/"));
    loop->post(this, [this] { attempt(); });
    return toResult(ResultCode::success);
} catch (const std::exception&) {
    return toResult(ResultCode::noResources);
}

void SampleDevice::Close() noexcept
{
    loop->forget(this);  // no attempt follows
    loop->post(this, [this] {
        if (handler != nullptr && hostName != "stuck")
            handler->Closed(this);
    });
}

std::int32_t SampleDevice::resultOfAttempt()
{
    const char* const working[] = {"camera",    "recorder", "multichannel", "dark",      "barred", "mute",
                                   "voiceless", "growing",  "changing",     "flaky",     "stuck",  "crowded",
                                   "tardy",     "hoarding", "momentary",    "unwilling", "dozing", "restless"};
    const bool works = std::find(std::begin(working), std::end(working), hostName) != std::end(working);
    const bool admitted = hostName == "guarded" && userInfo == "admin:p%40ss%3A%25";
    const bool atLast = hostName == "late" && attempts > 2;
    if (works || admitted || atLast)
        return toResult(ResultCode::success);
    const bool denied = hostName == "guarded" || hostName == "refusing";
    return toResult(denied ? ResultCode::accessDenied : ResultCode::deviceUnreachable);
}

void SampleDevice::attempt()
{
    ++attempts;
    if (hostName == "silent" || handler == nullptr)
        return;
    const std::int32_t result = resultOfAttempt();
    if (result != 0)
        loop->post(
            this, [this] { attempt(); }, Loop::Clock::now() + retryDelay);
    else if (hostName == "flaky" && attempts == 1)
        loop->post(
            this, [this] { loseConnection(); }, Loop::Clock::now() + 5 * retryDelay);

    if (result != 0)
        handler->ConnectFailed(this, result);
    else
        handler->Connected(this);
}

void SampleDevice::loseConnection()
{
    loop->post(
        this, [this] { attempt(); }, Loop::Clock::now() + retryDelay);
    handler->ConnectionLost(this, toResult(ResultCode::connectionLost));
}

std::int32_t SampleDevice::ApplySettings(const ParameterMap&, Tavro8::IAsyncActionHandler*) noexcept
{
    return toResult(ResultCode::notSupported);
}

std::int32_t SampleDevice::CreateVideoSource(std::uint32_t channel, std::uint32_t stream,
                                             GDRV::IAsyncDeviceChannelHandler* channelHandler,
                                             GDRV::IMediaFrameHandler* frames, const ParameterMap&, Tavro8::IContract*,
                                             GDRV::IVideoSource** source) noexcept
{
    *source = nullptr;
    if (channel >= channels)
        return toResult(ResultCode::notFound);
    return create(source, [&] {
        auto produce = hostName == "dark"       ? nothing()
                       : hostName == "tardy"    ? afterHardWork(testPicture())
                       : hostName == "growing"  ? growingPicture()
                       : hostName == "changing" ? changingPicture()
                                                : testPicture();
        const bool full = hostName == "crowded" && ++placesTaken > crowdedPlaces;
        const auto state = hostName == "barred" || full ? ResultCode::streamRefused : ResultCode::success;
        return new Source<GDRV::IVideoSource>(
            channel, std::make_shared<Stream>(*loop, channelHandler, frames, std::move(produce), toResult(state)),
            settingsOf("channel " + std::to_string(channel) + " stream " + std::to_string(stream), channelHandler,
                       hostName == "recorder" ? Settings::pictureOfRecorder() : Settings::picture()));
    });
}

std::int32_t SampleDevice::CreateAudioSource(std::uint32_t channel, GDRV::IAsyncDeviceChannelHandler* channelHandler,
                                             GDRV::IMediaFrameHandler* frames, const ParameterMap&, Tavro8::IContract*,
                                             GDRV::IAudioSource** source) noexcept
{
    if (hostName == "mute")
        return notSupported(source);
    return create(source, [&] {
        const auto state = hostName == "barred"      ? ResultCode::streamRefused
                           : hostName == "voiceless" ? ResultCode::noSuchStream
                                                     : ResultCode::success;
        return new Source<GDRV::IAudioSource>(
            channel, std::make_shared<Stream>(*loop, channelHandler, frames, testTone(), toResult(state)),
            settingsOf("channel " + std::to_string(channel) + " sound", channelHandler, Settings::sound()));
    });
}

std::unique_ptr<Settings> SampleDevice::settingsOf(const std::string& name,
                                                   GDRV::IAsyncDeviceChannelHandler* channelHandler,
                                                   Settings::Resources resources)
{
    return std::make_unique<Settings>(*loop, channelHandler, logger, name, std::move(resources),
                                      Settings::Manners{.takesThem = hostName != "mute",
                                                        .answers = hostName != "dark",
                                                        .hasExposure = hostName != "barred",
                                                        .isComplete = hostName != "tardy"});
}

std::int32_t SampleDevice::CreateAudioDestination(std::uint32_t channel,
                                                  GDRV::IAudioDestinationHandler* destinationHandler,
                                                  const ParameterMap&, GDRV::IAudioDestination** destination) noexcept
{
    *destination = nullptr;
    if (hostName == "mute")
        return notSupported(destination);
    if (channel >= channels)
        return toResult(ResultCode::notFound);
    return create(destination, [&] {
        return new AudioDestination(
            *loop, channel, destinationHandler, logger, talkFile,
            {.answers = hostName != "dark",
             .refusal = toResult(hostName == "barred" ? ResultCode::streamRefused : ResultCode::success),
             .breaks = hostName == "flaky"});
    });
}

std::int32_t SampleDevice::CreateIODevice(std::uint32_t channel, GDRV::IIODeviceHandler* ioHandler,
                                          GDRV::IIODevice** ioDevice) noexcept
{
    if (hostName == "mute")
        return notSupported(ioDevice);
    return create(ioDevice, [&] { return new IODevice(*loop, channel, ioHandler, hostName != "dark"); });
}

std::int32_t SampleDevice::CreateTelemetry(std::uint32_t channel, GDRV::ITelemetry** telemetry) noexcept
{
    *telemetry = nullptr;
    if (hostName == "mute")
        return notSupported(telemetry);
    if (channel >= channels)
        return toResult(ResultCode::notFound);
    return create(telemetry, [&] {
        return new Telemetry(channel, logger, {.moves = hostName != "dark", .positions = hostName != "voiceless"});
    });
}

std::int32_t SampleDevice::CreateDetector(std::uint32_t channel, const ParameterMap& parameters,
                                          GDRV::IDetectorHandler* detectorHandler, GDRV::IDetector** detector) noexcept
{
    *detector = nullptr;
    const auto found = parameters.find("detectionType");
    const auto* type = found == parameters.end() ? nullptr : boost::any_cast<std::string>(&found->second);
    if (type == nullptr || !Detector::knows(*type))
        return toResult(ResultCode::notFound);
    return create(detector, [&] { return new Detector(*loop, channel, *type, detectorHandler); });
}

Archive SampleDevice::archiveOf(std::uint32_t channel) const
{
    constexpr std::uint64_t minute = 60'000;
    if (channel != 0)
        return {0, 0};
    if (hostName == "hoarding")
        return {minute, minute * 2 / 3};
    return {60 * minute, hostName == "momentary" ? 0 : 50 * minute};
}

std::int32_t SampleDevice::CreateRecordingSearch(GDRV::IRecordingSearch** search) noexcept
{
    if (hostName == "mute")
        return notSupported(search);
    return create(search, [&] {
        const auto refusal = hostName == "barred"  ? ResultCode::resourceNotFound
                             : hostName == "flaky" ? ResultCode::connectionLost
                                                   : ResultCode::success;
        return new RecordingSearch(*loop, logger,
                                   {.channelCount = channels,
                                    .answers = hostName != "dark",
                                    .refusal = toResult(refusal),
                                    .archive = archiveOf(0)});
    });
}

std::int32_t SampleDevice::CreateRecordingPlayback(std::uint32_t channel,
                                                   GDRV::IRecordingPlaybackHandler* playbackHandler,
                                                   GDRV::IMediaFrameHandler* frames, const ParameterMap&,
                                                   GDRV::IRecordingPlayback** playback) noexcept
{
    *playback = nullptr;
    if (hostName == "mute")
        return notSupported(playback);
    if (channel >= channels)
        return toResult(ResultCode::notFound);
    if (playbackHandler == nullptr || frames == nullptr)
        return toResult(ResultCode::invalidArgument);
    return create(playback, [&] {
        return new RecordingPlayback(
            *loop, channel, playbackHandler, frames, logger,
            {.answers = hostName != "dark",
             .refusal = toResult(hostName == "barred" ? ResultCode::resourceNotFound : ResultCode::success),
             .playRefusal = toResult(hostName == "unwilling" ? ResultCode::streamRefused : ResultCode::success),
             .offersSpeed = hostName != "voiceless",
             .breaks = hostName == "flaky",
             .pictureEach = hostName == "dozing" ? 5 * framesPerSecond : 1,
             .overrunMs = hostName == "restless" ? 2000U : 0U,
             .hasSound = hostName != "voiceless",
             .archive = archiveOf(channel),
             .pictures = hostName == "changing" ? changingPicture() : testPicture()});
    });
}

std::uint32_t SampleDevice::GetDeviceKind() const noexcept
{
    const auto kind = hostName == "recorder"       ? GDRV::DeviceKind::recorder
                      : hostName == "multichannel" ? GDRV::DeviceKind::multichannelCamera
                                                   : GDRV::DeviceKind::camera;
    return static_cast<std::uint32_t>(kind);
}

std::size_t SampleDevice::GetLivePath(std::uint32_t channel, std::uint32_t stream, char* path,
                                      std::size_t capacity) const noexcept
{
    const std::string text = "/channel" + std::to_string(channel) + "/stream" + std::to_string(stream);
    if (path != nullptr && capacity > 0) {
        const std::size_t length = std::min(text.size(), capacity - 1);
        std::memcpy(path, text.c_str(), length);
        path[length] = '\0';
    }
    return text.size();
}
}  // namespace Sample
