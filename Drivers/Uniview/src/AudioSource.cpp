#include <utility>

#include "AudioSource.h"

#include "AudioSettings.h"
#include "ObjectName.h"

#include <IpUtil/Http.h>
#include <Tavro8/GDRV/IDeviceInformation.h>
#include <Tavro8/ResultCode.h>
#include <boost/asio/io_context.hpp>
#include <stdexcept>
#include <vector>

template class Tavro8::Utility::RTSPReceiverBase<Tavro8::GDRV::IAudioSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverSource<Tavro8::GDRV::IAudioSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverAdjustable<Tavro8::GDRV::IAudioSource, Uniview::Device>;
template class Tavro8::Utility::RTSPReceiverAudioSource<Uniview::Device>;

namespace Uniview
{
namespace
{
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::Utility::AudioSinkParams;

constexpr const char* sourcePath = "Drivers/Uniview/src/AudioSource";
constexpr const char* starting = "Uniview::AudioSource::Start";
constexpr const char* startingIPC = "Uniview::AudioSource::startIPC";
constexpr const char* applyingSettings = "Uniview::AudioSource::applyAudioSettings";

constexpr const char* cameraPath = "/LAPI/V1.0/Media/Audio/Input";
constexpr const char* unmuteBody = "{\"IsMute\": 0}";

constexpr std::size_t loggedBytes = 1024;  // of a request that failed; it repeats what the device has said

/// The stream whose connection the sound shares: the parameter `stream`, else the main stream.
std::uint32_t sharedStream(const ParameterMap& parameters)
{
    const auto found = parameters.find("stream");
    if (found == parameters.end())
        return 0;
    const int stream = boost::any_cast<int>(found->second);
    if (stream < 0)
        throw std::out_of_range("the parameter \"stream\" is negative");
    return static_cast<std::uint32_t>(stream);
}

bool isRecorder(const Device& device)
{
    return device.GetDeviceKind() == static_cast<std::uint32_t>(Tavro8::GDRV::DeviceKind::recorder);
}

/// A recorder has an audio input for each channel, a camera one for all.
std::string audioInputPath(const Device& device, std::uint32_t channel)
{
    if (!isRecorder(device))
        return cameraPath;
    return "/LAPI/V1.0/Channels/" + std::to_string(channel + 1) + "/Media/Audio/Input";
}

constexpr std::uint64_t formatOf(Tavro8::GDRV::MediaCodec codec, std::uint32_t sampleRate) noexcept
{
    return static_cast<std::uint64_t>(codec) << 32U | sampleRate;
}

/// Whether what comes is what is wanted.
bool satisfies(std::uint64_t format, const AudioSinkParams& wanted) noexcept
{
    const auto codec = static_cast<Tavro8::GDRV::MediaCodec>(format >> 32U);
    return format != 0 && wanted.accepts(codec, static_cast<std::uint32_t>(format));
}

/// Whether what the device is asked now holds for its next stream. One that is lost is asked as well, but it may have
/// restarted when it is found again.
bool isThere(const std::shared_ptr<Device>& device)
{
    return device != nullptr && device->isConnected();
}

/// No data are expected of a write; those that come are judged.
lapi::Expect writeExpectation(const std::vector<char>& body) noexcept
{
    return body.empty() ? lapi::Expect::status : lapi::Expect::success;
}
}  // namespace

/// What belongs to one turn at the audio input. The next begins once the last request of this one is gone.
struct AudioSource::Run {
    Run(std::shared_ptr<Device> of, std::string path, SettingsQueue::Turn turn)
        : device(std::move(of)),
          connection(device->getHttpConnectionInfo()),
          path(std::move(path)),
          turn(std::move(turn))
    {}

    /// Another connection may be one to another device.
    bool isOfPresentConnection() const { return connection == device->getHttpConnectionInfo(); }
    /// What one device has answered is not written to another, and nothing to one that was closed.
    bool mayGoOn() const { return isOfPresentConnection() && device->hasBeenConnected(); }

    const std::shared_ptr<Device> device;  // the host may release it before the last reply
    const Device::ConnectionInfoPtr connection;
    const std::string path;
    const SettingsQueue::Turn turn;
};

struct AudioSource::SettingsRun : Run {
    SettingsRun(Run run, ParameterMap given) : Run(std::move(run)), given(std::move(given)) {}

    const ParameterMap given;
};

struct AudioSource::Attempt : Run {
    Attempt(Run run, std::shared_ptr<AudioSource> of)
        : Run(std::move(run)), source(std::move(of)), start(source->starts), quiet(source->failureToldOf == start)
    {}
    ~Attempt() { source->failureToldOf = failed ? start : 0; }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    const std::shared_ptr<AudioSource> source;
    const std::uint64_t start;  // which one of the source it is for
    const bool quiet;           // the last one failed too, and that was said
    bool failed = quiet;        // until an answer says more
};

Tavro8::GDRV::IAudioSource* AudioSource::create(Device* device, std::uint32_t channel,
                                                Tavro8::GDRV::IAsyncDeviceChannelHandler* handler,
                                                Tavro8::GDRV::IMediaFrameHandler* frames,
                                                const ParameterMap& parameters, Tavro8::IContract* parent)
{
    Tavro8::Utility::LiveSourceContext context;
    context.frames = frames;
    context.parameters = parameters;
    context.objectName = audioObjectName(channel);
    context.channel = channel;
    context.stream = sharedStream(parameters);
    const auto source = std::make_shared<AudioSource>(device, handler, parent, std::move(context));
    source->adopt();
    return source.get();
}

AudioSource::AudioSource(Device* device, Tavro8::GDRV::IAsyncDeviceChannelHandler* handler, Tavro8::IContract* parent,
                         Tavro8::Utility::LiveSourceContext sourceContext)
    : RTSPReceiverAudioSource(device, handler, parent, std::move(sourceContext)),
      weakDevice(device->weak_from_this()),
      log(device->getLogger().get(), sourcePath, context.objectName)
{}

void AudioSource::Start() noexcept
{
    const auto keep = shared_from_this();  // the host may destroy the source from inside `Started`
    ++startsUnderWay;
    Tavro8::guardedVoid(log, starting, [this] {
        if (currentStream() != nullptr)
            return;  // runs already
        ++starts;
        startCoversConnection = true;
        turnMicrophoneOn();
    });
    RTSPReceiverAudioSource::Start();
    --startsUnderWay;
}

void AudioSource::Destroy() noexcept
{
    const auto keep = shared_from_this();
    requests.end();
    Tavro8::guardedVoid(log, "Uniview::AudioSource::Destroy", [&] { device->dropSettings(this); });
    RTSPReceiverAudioSource::Destroy();
}

void AudioSource::onConnectionStart()
{
    RTSPReceiverAudioSource::onConnectionStart();
    if (!startCoversConnection.exchange(false))
        Tavro8::guardedVoid(log, starting, [this] { turnMicrophoneOn(); });
}

void AudioSource::onStreamState(const Tavro8::error_code& ec)
{
    // A stream that played before this source came has made no connection for it.
    startCoversConnection = false;
    RTSPReceiverAudioSource::onStreamState(ec);
}

void AudioSource::onFrame(const Tavro8::GDRV::MediaFrame& frame) noexcept
{
    lastFormat.store(formatOf(frame.codec, frame.sampleRate), std::memory_order_relaxed);
    RTSPReceiverAudioSource::onFrame(frame);
}

// ---- requests -------------------------------------------------------------------------------------------------

void AudioSource::Requests::note(const std::string& path, Tavro8::http::CancellationPtr request)
{
    const std::lock_guard lock(mutex);
    if (ended)
        request->cancel();
    underWay[path] = std::move(request);
}

void AudioSource::Requests::end() noexcept
{
    const std::lock_guard lock(mutex);
    ended = true;
    for (const auto& [path, request] : underWay)
        request->cancel();
}

bool AudioSource::Requests::haveEnded() const noexcept
{
    const std::lock_guard lock(mutex);
    return ended;
}

template <typename RunPtr, typename Next>
Tavro8::http::CompletionHandler AudioSource::onReply(RunPtr run, const char* place, Next next)
{
    return [self = sharedSelf(), run = std::move(run), place,
            next = std::move(next)](const Tavro8::error_code& ec, const std::vector<char>& body,
                                    const Tavro8::http::HttpResponse& response) {
        Tavro8::guardedVoid(self->log, place, [&] {
            if (self->requests.haveEnded())
                return;
            if (run->isOfPresentConnection())
                run->device->reportResourceExchange(ec);
            next(*self, run, ec, body, response);
        });
    };
}

// ---- the microphone -------------------------------------------------------------------------------------------

/// Nothing while the device is not connected.
std::shared_ptr<Device> AudioSource::connectedDevice() const
{
    auto of = weakDevice.lock();
    return of != nullptr && of->hasBeenConnected() ? of : nullptr;
}

/// Also while it is being started.
bool AudioSource::isStarted() const
{
    return startsUnderWay > 0 || currentStream() != nullptr;  // in this order: a start leaves with a stream
}

/// When its turn has come, unless the source has been stopped by then. Any thread.
void AudioSource::turnMicrophoneOn()
{
    const auto of = connectedDevice();
    if (!isThere(of))
        startCoversConnection = false;
    if (of == nullptr || microphoneWaits.exchange(true))
        return;
    const std::int32_t taken = Tavro8::guarded(log, starting, toResult(ResultCode::unexpected), [&] {
        const std::string path = audioInputPath(*of, context.channel);
        const auto begin = [self = sharedSelf(), path](SettingsQueue::Turn turn) {
            self->beginMicrophone(path, std::move(turn));
        };
        return of->settingsQueue(path)->take({.owner = this,
                                              .logger = &log,
                                              .place = starting,
                                              .begin = begin,
                                              .concernsDevice = false,
                                              .counts = false});
    });
    if (taken != 0)
        microphoneWaits = false;
}

/// On the I/O thread, as all requests are made: there one is noted before its answer can lead to the next, so that
/// `Destroy` finds the latest.
void AudioSource::beginMicrophone(const std::string& path, SettingsQueue::Turn turn)
{
    microphoneWaits = false;  // first: a start that still found it waiting is found started
    const auto of = connectedDevice();
    if (!isThere(of))
        startCoversConnection = false;  // closed or lost while it waited
    if (of == nullptr || requests.haveEnded() || !isStarted())
        return;
    if (path != audioInputPath(*of, context.channel))
        return turnMicrophoneOn();  // a device of another kind was opened while it waited
    const auto attempt = std::make_shared<Attempt>(Run(of, path, std::move(turn)), sharedSelf());
    const auto reply =
        onReply(attempt, starting,
                [](AudioSource& self, const auto& run, const auto& ec, const auto& body, const auto& response) {
                    self.onMicrophoneState(run, lapi::judge(ec, response, body));
                });
    requests.note(path, Tavro8::http::asyncGetEx(attempt->connection, path, of->service(), reply));
}

void AudioSource::onMicrophoneState(const AttemptPtr& attempt, const lapi::Reply& reply)
{
    if (!attempt->mayGoOn())
        return turnMicrophoneOn();  // that of the present connection, which the start may have seemed to cover
    if (!reply) {
        reportFailure(*attempt, starting, reply, attempt->path, "Bad request to turn on the microphone.");
        // A camera that is there and does not say how its microphone stands may listen all the same.
        if (reply.failure != lapi::Failure::transport && !isRecorder(*attempt->device))
            startIPC(attempt);
        return;
    }
    const bool isObject = reply.data.isObject();
    if (isObject && reply.data["IsMute"].isInt() && reply.data["IsMute"].asInt() == 0) {
        attempt->failed = false;
        log.info(starting, "Microphone is already turned on");
        return;
    }
    unmute(attempt, attempt->path, starting);
}

void AudioSource::startIPC(const AttemptPtr& attempt)
{
    unmute(attempt, cameraPath, startingIPC);
}

void AudioSource::unmute(const AttemptPtr& attempt, const std::string& path, const char* place)
{
    const auto reply = onReply(
        attempt, place,
        [path, place](AudioSource& self, const auto& run, const auto& ec, const auto& body, const auto& response) {
            const auto judged = lapi::judge(ec, response, body, writeExpectation(body));
            if (!judged)
                return self.reportFailure(*run, place, judged, path, "Bad request to turn on the microphone");
            run->failed = false;
            self.log.info(place, "Microphone is turned on");
        });
    requests.note(path,
                  Tavro8::http::asyncPutEx(attempt->connection, path, unmuteBody, attempt->device->service(), reply));
}

/// Until it works again this is said once: a device that has no microphone is asked at each connection.
void AudioSource::reportFailure(Attempt& attempt, const char* place, const lapi::Reply& reply, const std::string& path,
                                const char* words)
{
    attempt.failed = true;
    if (reply.failure == lapi::Failure::transport && attempt.start == starts)
        startCoversConnection = false;  // not even heard
    if (attempt.quiet)
        return;
    log.error(place, lapi::explain(reply, path));
    log.error(place, words);
}

// ---- settings -------------------------------------------------------------------------------------------------

std::int32_t AudioSource::ApplySettings(const ParameterMap& changed) noexcept
{
    return Tavro8::guarded(log, applyingSettings, toResult(ResultCode::unexpected), [&] {
        try {
            return takeSettings(changed);
        } catch (const settings::Refusal& e) {
            log.error(applyingSettings, e.what());
            return e.getResult();
        }
    });
}

std::int32_t AudioSource::takeSettings(const ParameterMap& changed)
{
    const bool concernsDevice = settings::readAudioInput(changed).any();
    settings::checkAudioSink(changed);
    // Not earlier: which input it is shows when the device has connected.
    const std::string path = audioInputPath(*device, context.channel);
    const auto begin = [self = sharedSelf(), of = device->shared_from_this(), changed,
                        path](const SettingsQueue::Turn& turn) { self->beginSettings(changed, of, path, turn); };
    return device->settingsQueue(path)->take({this, &log, applyingSettings, begin, concernsDevice});
}

void AudioSource::beginSettings(const ParameterMap& given, const std::shared_ptr<Device>& of, const std::string& path,
                                const SettingsQueue::Turn& turn)
{
    if (requests.haveEnded())
        return;
    const auto failed = Tavro8::guarded(log, applyingSettings, toResult(ResultCode::unexpected), [&] {
        applyAudioSettings(std::make_shared<SettingsRun>(Run(of, path, turn), given));
        return toResult(ResultCode::success);
    });
    if (failed != 0)
        finishSettings(failed);
}

/// A step of a settings request, which ends with a result whatever happens.
template <typename Step>
void AudioSource::finishOnThrow(Step&& step)
{
    const auto failed = Tavro8::guarded(log, applyingSettings, toResult(ResultCode::unexpected), [&] {
        std::forward<Step>(step)();
        return toResult(ResultCode::success);
    });
    if (failed != 0)
        finishAudioInput(failed);
}

void AudioSource::applyAudioSettings(const SettingsRunPtr& run)
{
    adjust(run->given);
    if (!settings::readAudioInput(run->given).any())
        return finishSettings(toResult(ResultCode::success));
    // Closed while it waited; or a device of another kind was opened, which has its inputs elsewhere.
    if (!run->mayGoOn() || run->path != audioInputPath(*run->device, context.channel))
        return finishAudioInput(toResult(ResultCode::invalidState));
    const auto reply =
        onReply(run, applyingSettings,
                [](AudioSource& self, const auto& of, const auto& ec, const auto& body, const auto& response) {
                    lapi::Reply judged = lapi::judge(ec, response, body);
                    self.finishOnThrow([&] { self.onSettingsRead(of, judged); });
                });
    requests.note(run->path, Tavro8::http::asyncGetEx(run->connection, run->path, run->device->service(), reply));
}

void AudioSource::onSettingsRead(const SettingsRunPtr& run, lapi::Reply& reply)
{
    if (!reply && reply.failure != lapi::Failure::malformed) {
        log.error(applyingSettings, lapi::describe(reply, run->path));
        log.error(applyingSettings, "Bad response while tried to get audio settings");
        return finishAudioInput(reply.result);
    }
    const settings::Edit edit =
        reply ? settings::editAudioInput(reply.data, settings::readAudioInput(run->given), parameters.snapshot())
              : settings::Edit{false, reply.result, reply.message};
    if (!reply || edit.result == toResult(ResultCode::malformedReply))
        log.error(applyingSettings, "Can't parse audio settings: ", edit.message);
    else if (edit.result != 0)
        log.error(applyingSettings, edit.message);
    if (!edit)
        return finishAudioInput(edit.result);
    if (!run->mayGoOn()) {
        log.error(applyingSettings, "The device was closed before its settings were written");
        return finishAudioInput(toResult(ResultCode::invalidState));
    }
    writeSettings(run, lapi::writeJson(reply.data));
}

void AudioSource::writeSettings(const SettingsRunPtr& run, const std::string& edited)
{
    const auto written =
        onReply(run, applyingSettings,
                [edited](AudioSource& self, const auto& of, const auto& ec, const auto& body, const auto& response) {
                    const auto judged = lapi::judge(ec, response, body, writeExpectation(body));
                    self.finishOnThrow([&] { self.onSettingsWritten(*of, edited, judged); });
                });
    requests.note(run->path,
                  Tavro8::http::asyncPutEx(run->connection, run->path, edited, run->device->service(), written));
}

void AudioSource::onSettingsWritten(const SettingsRun& run, const std::string& body, const lapi::Reply& reply)
{
    if (reply) {
        adjustWritten(run.given);
    } else {
        log.error(applyingSettings, lapi::explain(reply, run.path));
        log.error(applyingSettings, "Failed to apply settings");
        log.error(applyingSettings, "Failed request details:\n", "PUT ", run.path, '\n',
                  lapi::printable(body, loggedBytes));
    }
    finishAudioInput(reply.result);
}

void AudioSource::finishAudioInput(std::int32_t result)
{
    reportSettings("audioInput", result);
    finishSettings(result);
}

void AudioSource::finishSettings(std::int32_t result)
{
    reportSettings("all", result);
}

// ---- what is received -----------------------------------------------------------------------------------------

void AudioSource::initializeAudioFilter(Tavro8::Utility::RTSPClient& client)
{
    client.setAudioSinkParams(settings::readAudioSink(parameters.snapshot()));
}

bool AudioSource::isHeldByDevice(const std::string& key) const
{
    return settings::isAudioInput(key);
}

/// Values that ask for what comes anyway need no new connection.
bool AudioSource::parametersRequireRTSPClientReconnect(const ParameterMap& changed) const
{
    if (Tavro8::Utility::changesTransport(parameters, changed))
        return true;
    ParameterMap all = parameters.snapshot();
    const AudioSinkParams before = settings::readAudioSink(all);
    for (const auto& [name, value] : changed)
        all[name] = value;
    const AudioSinkParams after = settings::readAudioSink(all);
    return before != after && !satisfies(lastFormat, after);
}
}  // namespace Uniview
