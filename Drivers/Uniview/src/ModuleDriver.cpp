#include "AudioDestination.h"
#include "AudioSource.h"
#include "Detector.h"
#include "Device.h"
#include "IODevice.h"
#include "ModuleSettings.h"
#include "ProcessRecord.h"
#include "RecordingPlayback.h"
#include "RecordingSearch.h"
#include "TelemetryChannel.h"
#include "VideoSource.h"

#include <IpUtil/GlobalService.h>
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/ModuleDriver.h>
#include <IpUtil/RepositoryReader.h>
#include <IpUtil/Version.h>
#include <exception>
#include <utility>

namespace Uniview
{
namespace
{
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::GDRV::IModuleContext;
using Tavro8::Utility::GlobalService;
using Tavro8::Utility::notImplemented;

constexpr const char* sourcePath = "Drivers/Uniview/src/ModuleDriver";
constexpr const char* repositoryName = "Kelvo.Uniview.rep";

using Module = Tavro8::Utility::ModuleDriver<
    Tavro8::Utility::ModuleDriverTraits<ModuleSettings, notImplemented, notImplemented, notImplemented>>;

/// The module of the process. The host calls the entry points from one thread, so no lock guards it.
struct ModuleHolder {
    std::unique_ptr<Tavro8::GDRV::IModule> module;
    std::shared_ptr<GlobalService> globalService;  // the shared worker threads live as long as the module
};

ModuleHolder& moduleHolder()
{
    return processRecord<ModuleHolder>();
}

void describeVersion(std::ostream& text, std::uint32_t version)
{
    text << Tavro8::sdkMajor(version) << '.' << Tavro8::sdkMinor(version);
}

/// Empty when host, IpUtil and module fit together, otherwise why not.
std::string findVersionMismatch(std::uint32_t hostSdk, std::uint32_t loadedIpUtil)
{
    std::ostringstream reason;
    reason.imbue(std::locale::classic());
    if (!Tavro8::sdkServes(hostSdk, Tavro8::sdkVersion)) {
        reason << "Kelvo.Uniview.ipd needs host SDK ";
        describeVersion(reason, Tavro8::sdkVersion);
        reason << ", the host offers ";
        describeVersion(reason, hostSdk);
    } else if (!Tavro8::sdkServes(loadedIpUtil, Tavro8::Utility::ipUtilVersion)) {
        reason << "Kelvo.Uniview.ipd needs IpUtil ";
        describeVersion(reason, Tavro8::Utility::ipUtilVersion);
        reason << ", the library that was loaded is ";
        describeVersion(reason, loadedIpUtil);
    }
    return reason.str();
}

bool refuse(IModuleContext& host, const std::string& reason)
{
    auto* const context = host.GetLoggingContext();
    const Tavro8::LoggerHelper logger(context == nullptr ? nullptr : context->GetLogger(), sourcePath);
    logger.error("initModule", reason);
    return false;
}

bool start(IModuleContext* host, const char* moduleIdentifier)
{
    const auto settings = std::make_shared<ModuleSettings>();
    ModuleHolder& holder = moduleHolder();
    if (host == nullptr || moduleIdentifier == nullptr || holder.module != nullptr)
        return false;
    if (const auto mismatch = findVersionMismatch(host->GetSdkVersion(), Tavro8::Utility::loadedIpUtilVersion());
        !mismatch.empty())
        return refuse(*host, mismatch);

    const Tavro8::Utility::RepositoryReader reader(host->GetLoggingContext());
    const auto path = reader.join(Tavro8::Utility::toWide(moduleIdentifier), Tavro8::Utility::toWide(repositoryName));
    if (reader.load(path, settings->properties) != 0)
        return false;

    // What may fail comes first, so that a start that fails leaves nothing behind.
    auto module = std::make_unique<Module>(settings);
    auto service = GlobalService::instance();
    auto& loggers = ModuleSettings::loggerHolder();
    loggers.host = host;
    loggers.loggingContext = host->GetLoggingContext();
    loggers.fileLogger = {Tavro8::LoggerDetail::initFileLogger(loggers.loggingContext),
                          Tavro8::LoggerOwner::Ownership::owned};
    holder.globalService = std::move(service);
    holder.module = std::move(module);
    return true;
}

/// Afterwards no thread and no pending handler holds code or data of the module, so that it may be unloaded.
void finish()
{
    ModuleHolder& holder = moduleHolder();
    if (holder.module == nullptr)
        return;
    // While the threads still run, so that streams can say goodbye: cameras have few sessions to give away. The
    // thread that let go of the last object may still be leaving our code, hence the barrier.
    ModuleSettings::lifetimeGate().waitUntilEmpty();
    holder.globalService->barrier();
    holder.globalService.reset();
    holder.module.reset();

    auto& loggers = ModuleSettings::loggerHolder();
    loggers.fileLogger = {};
    loggers.loggingContext = nullptr;
    loggers.host = nullptr;
}
}  // namespace

std::int32_t ModuleSettings::createDevice(const Tavro8::GDRV::IDeviceDescription& description,
                                          Tavro8::GDRV::IDeviceHandler* handler, Tavro8::GDRV::IDevice** device) const
{
    // The module holds the service as long as it exists, so the reference outlives the device.
    *device = Device::create(handler, loggerHolder().fileLogger.get(),
                             std::make_shared<DeviceTraits>(description, properties), *GlobalService::instance())
                  .get();
    return toResult(ResultCode::success);
}

std::int32_t ModuleSettings::createDiscovery(Tavro8::GDRV::IDeviceDiscoveryHandler*,
                                             Tavro8::GDRV::IDeviceDiscovery**) const noexcept
{
    return toResult(ResultCode::notSupported);
}

namespace
{
/// What every factory operation does first; `create` makes the object, or gives null when there is none of the kind
/// asked for.
template <typename Interface, typename Create>
std::int32_t createChild(const Device& device, Interface** object, Tavro8::LogPlace operation, Create&& create) noexcept
{
    if (object == nullptr)
        return toResult(ResultCode::invalidArgument);
    *object = nullptr;
    const Tavro8::LoggerHelper logger(device.getLogger().get(), sourcePath);
    return Tavro8::guarded(logger, operation, toResult(ResultCode::unexpected), [&] {
        *object = std::forward<Create>(create)();
        return toResult(*object == nullptr ? ResultCode::notFound : ResultCode::success);
    });
}

/// The same for an object of a channel, which must exist.
template <typename Interface, typename Create>
std::int32_t createChild(const Device& device, std::uint32_t channel, Interface** object, Tavro8::LogPlace operation,
                         Create&& create) noexcept
{
    return createChild(device, object, operation, [&]() -> Interface* {
        return channel < device.GetChannelCount() ? std::forward<Create>(create)() : nullptr;
    });
}

/// The kind of detector that the host asks for; null when there is none such.
const DetectorType* findRequestedType(const Tavro8::ParameterMap& parameters)
{
    const auto found = parameters.find("detectionType");
    const auto* const name = found == parameters.end() ? nullptr : boost::any_cast<std::string>(&found->second);
    return name == nullptr ? nullptr : findDetectorType(*name);
}
}  // namespace

std::int32_t Device::CreateVideoSource(std::uint32_t channel, std::uint32_t stream,
                                       Tavro8::GDRV::IAsyncDeviceChannelHandler* channelHandler,
                                       Tavro8::GDRV::IMediaFrameHandler* frames,
                                       const Tavro8::ParameterMap& channelParameters, Tavro8::IContract* parent,
                                       Tavro8::GDRV::IVideoSource** source) noexcept
{
    return createChild(*this, channel, source, "Uniview::Device::CreateVideoSource", [&] {
        return VideoSource::create(this, channel, stream, channelHandler, frames, channelParameters, parent);
    });
}

std::int32_t Device::CreateAudioSource(std::uint32_t channel, Tavro8::GDRV::IAsyncDeviceChannelHandler* channelHandler,
                                       Tavro8::GDRV::IMediaFrameHandler* frames,
                                       const Tavro8::ParameterMap& channelParameters, Tavro8::IContract* parent,
                                       Tavro8::GDRV::IAudioSource** source) noexcept
{
    return createChild(*this, channel, source, "Uniview::Device::CreateAudioSource", [&] {
        return AudioSource::create(this, channel, channelHandler, frames, channelParameters, parent);
    });
}

std::int32_t Device::CreateAudioDestination(std::uint32_t channel, Tavro8::GDRV::IAudioDestinationHandler* callHandler,
                                            const Tavro8::ParameterMap& channelParameters,
                                            Tavro8::GDRV::IAudioDestination** destination) noexcept
{
    return createChild(*this, channel, destination, "Uniview::Device::CreateAudioDestination",
                       [&] { return AudioDestination::create(this, channel, callHandler, channelParameters); });
}

std::int32_t Device::CreateIODevice(std::uint32_t channel, Tavro8::GDRV::IIODeviceHandler* ioHandler,
                                    Tavro8::GDRV::IIODevice** ioDevice) noexcept
{
    return createChild(*this, channel, ioDevice, "Uniview::Device::CreateIODevice",
                       [&] { return IODevice::create(this, channel, ioHandler); });
}

std::int32_t Device::CreateDetector(std::uint32_t channel, const Tavro8::ParameterMap& detectorParameters,
                                    Tavro8::GDRV::IDetectorHandler* detectorHandler,
                                    Tavro8::GDRV::IDetector** detector) noexcept
{
    constexpr const char* operation = "Uniview::Device::CreateDetector";
    return createChild(*this, channel, detector, operation, [&]() -> Tavro8::GDRV::IDetector* {
        if (const DetectorType* const type = findRequestedType(detectorParameters))
            return Detector::create(this, channel, *type, detectorHandler);
        logger.error(operation, "There is no detector of the detectionType that was asked for");
        return nullptr;
    });
}

std::int32_t Device::CreateTelemetry(std::uint32_t channel, Tavro8::GDRV::ITelemetry** telemetry) noexcept
{
    return createChild(*this, channel, telemetry, "Uniview::Device::CreateTelemetry",
                       [&] { return std::make_unique<TelemetryChannel>(channel, this).release(); });
}

std::int32_t Device::CreateRecordingSearch(Tavro8::GDRV::IRecordingSearch** search) noexcept
{
    return createChild(*this, search, "Uniview::Device::CreateRecordingSearch",
                       [&] { return RecordingSearch::create(this); });
}

std::int32_t Device::CreateRecordingPlayback(std::uint32_t channel,
                                             Tavro8::GDRV::IRecordingPlaybackHandler* playbackHandler,
                                             Tavro8::GDRV::IMediaFrameHandler* frames,
                                             const Tavro8::ParameterMap& channelParameters,
                                             Tavro8::GDRV::IRecordingPlayback** playback) noexcept
{
    return createChild(*this, channel, playback, "Uniview::Device::CreateRecordingPlayback", [&] {
        return RecordingPlayback::create(this, channel, playbackHandler, frames, channelParameters);
    });
}
}  // namespace Uniview

extern "C" {
/// Loads the settings repository and makes the module object. False when an argument is null, when a module exists
/// already, when host, IpUtil and module do not fit together, or when the repository cannot be loaded; the reason is
/// in the host's log. All three entry points are called from one thread and never at the same time.
UNIVIEW_API bool initModule(Tavro8::GDRV::IModuleContext* host, const char* moduleIdentifier)
{
    try {
        return Uniview::start(host, moduleIdentifier);
    } catch (...) {  // no memory: nothing was stored that a later call would trip over
        return false;
    }
}

/// The module object, or null when there is none. Not to be used after `finiModule`.
UNIVIEW_API Tavro8::GDRV::IModule* getModule()
{
    return Uniview::moduleHolder().module.get();
}

/// Ends the module; harmless when there is none. Returns when the library may be unloaded.
UNIVIEW_API void finiModule()
{
    try {
        Uniview::finish();
    } catch (...) {  // a thread that cannot be joined: nothing is left to be done about it here
    }
}
}
