#pragma once

#include <IpUtil/AudioDumpFile.h>
#include <IpUtil/AudioWorker.h>
#include <IpUtil/GlobalService.h>
#include <IpUtil/LoggerHelper.h>
#include <IpUtil/ParametersContainer.h>
#include <Tavro8/GDRV/IAudioDestination.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace Tavro8::Utility
{
inline constexpr std::uint32_t talkBackRate = 8000;  ///< samples a second of what hosts push

constexpr std::size_t talkBackSamples(std::chrono::milliseconds duration) noexcept
{
    return static_cast<std::size_t>(duration.count()) * talkBackRate / 1000;
}

/// How much pushed sound is held; what is more is left out and counted.
struct TalkBackLimits {
    /// That the destination's thread has not taken up yet. The newest is left out.
    std::chrono::milliseconds queued{5000};
    /// While the line is being opened, or that of the call before closed. The oldest is left out: whoever listens wants
    /// to hear what is said now.
    std::chrono::milliseconds beforeTheLineStands{1000};
    /// How far the sound that was sent may be ahead of the time that it takes to play. The newest is left out. Behind
    /// it the connection holds another half minute for a device that does not read, and then breaks off.
    std::chrono::milliseconds ahead{5000};
};

/// Where a talk-back channel is made: what the host and the environment give for it.
struct TalkBackContext {
    ParameterMap parameters;              ///< the channel's
    std::string objectName;               ///< "ad 0"
    std::uint32_t channel = 0;            ///< counted from 0
    std::filesystem::path dumpDirectory;  ///< empty: the sound is not kept
    TalkBackLimits limits = {};
};

/// Life cycle of a talk-back channel towards the host: call, push, hang up, destroy; the worker; the bounds of what
/// waits. The driver's class opens and closes the line and sends the sound.
///
/// Threads: host threads call the `GDRV` operations, which post to the worker; everything else runs on the worker, so
/// that neither the state of the call nor the driver's class needs a lock. The host's handler is called on the worker,
/// through `gate`, which `Destroy` closes. `device` may only be used inside `openLine`, since the host destroys it
/// after the destination.
template <typename Device>
class AudioDestinationBase : public GDRV::IAudioDestination,
                             public std::enable_shared_from_this<AudioDestinationBase<Device>> {
public:
    /// `device` is not owned; `handler` is not owned and may be null.
    AudioDestinationBase(Device* device, GDRV::IAudioDestinationHandler* handler, TalkBackContext context)
        : lifetime(device->getLifetimeToken()),
          device(device),
          context(std::move(context)),
          parameters(this->context.parameters),
          deviceLogger(device->getLogger()),
          logger(deviceLogger.get(), "IpUtil/include/AudioDestinationBase", this->context.objectName),
          handler(handler)
    {}

    /// Gives the host's ownership to the object itself; `Destroy` drops it. Once, right after construction.
    void adopt() { self = this->shared_from_this(); }

    void* FindContract(const char* name) noexcept override
    {
        return findContractIn<GDRV::IAudioDestination, GDRV::IDeviceChannel, IContract>(
            static_cast<GDRV::IAudioDestination*>(this), name);
    }
    std::uint32_t GetChannelIndex() const noexcept override { return context.channel; }

    void Call() noexcept override
    {
        if (!post(names().call.c_str(), &AudioDestinationBase::processCall)) {
            logger.error(names().call.c_str(), "no thread can be started for the call");
            tellEnd(toResult(ResultCode::noResources));
        }
    }

    void PushAudioFrame(const GDRV::AudioFrame& frame) noexcept override
    {
        guardedVoid(logger, names().push.c_str(), [&] {
            if (!worker.isRunning())
                return;  // nobody has called
            const auto accepted = frame.samples.first(reserve(frame.samples.size()));
            leftOut(frame.samples.size() - accepted.size());
            if (!accepted.empty() && !postFrame(accepted)) {
                queued -= accepted.size();
                leftOut(accepted.size());
            }
        });
    }

    void HangUp() noexcept override
    {
        if (worker.isRunning())
            post(names().hangUp.c_str(), &AudioDestinationBase::processHangUp);
        else
            tellHangUp(0);  // of a call that never was
    }

    /// Ends the line if it stands; whatever that takes is done without the host.
    void Destroy() noexcept override
    {
        const auto last = std::move(self);
        guardedVoid(logger, names().destroy.c_str(), [&] {
            gate->close();
            if (worker.isRunning())
                worker.post([last] {
                    guardedVoid(last->logger, names().destroy.c_str(), [&last] { last->processDestroy(); });
                });
        });
    }

    /// Stops the worker and joins its thread. What goes wrong is logged.
    void joinThread() noexcept
    {
        worker.stop();
        if (const std::string failure = worker.join(); !failure.empty())
            logger.error(names().joinThread.c_str(), "std::exception:", failure);
    }

protected:
    /// Opens the line and tells how that went with `lineStands` or `lineEnded`, later or at once.
    virtual void openLine() = 0;
    /// Closes the line, whatever has come of it, and then calls `done`, later or at once. Nothing of the line may
    /// follow.
    virtual void closeLine(std::function<void()> done) = 0;
    /// Sends a piece of sound on a line that stands.
    virtual void sendSound(std::span<const std::int16_t> samples) = 0;

    /// The device takes sound from now on.
    void lineStands()
    {
        if (state != State::calling)
            return;
        state = State::talking;
        if (handler != nullptr)
            gate->call([this] { handler->Started(this); });
        for (auto early = std::exchange(waiting, {}); !early.empty() && state == State::talking; early.pop_front())
            sendFrame(early.front());
        waitingSamples = 0;
    }

    /// The line could not be opened or is broken; logged by who tells it.
    void lineEnded(std::int32_t result)
    {
        if (isUnderWay())
            endCall(result);
    }

    /// Whether there is a call that nobody has ended yet.
    bool isUnderWay() const noexcept { return state == State::calling || state == State::talking; }

private:
    const std::shared_ptr<void> lifetime;  // keeps `finiModule` waiting; goes last

protected:
    Device* const device;
    const TalkBackContext context;
    const ParametersContainer parameters;         // the channel's
    const std::shared_ptr<ILogger> deviceLogger;  // shared with the device, which may go first
    AudioWorker worker;

private:
    using Clock = std::chrono::steady_clock;
    using Samples = std::vector<std::int16_t>;

    enum class State { idle, calling, talking, hangingUp };

    struct OperationNames {
        std::string call, push, hangUp, destroy, joinThread;
    };
    static const OperationNames& names()
    {
        static const std::string prefix =
            std::string("Tavro8::Utility::AudioDestinationBase<") + Device::logName + ">::";
        static const OperationNames all{prefix + "Call", prefix + "PushAudioFrame", prefix + "processHangUp",
                                        prefix + "Destroy", prefix + "joinThread"};
        return all;
    }

    /// Runs `step` on the worker unless the object has gone by then.
    template <typename Step>
    bool post(const char* operation, Step step) noexcept
    try {
        return worker.post([weak = this->weak_from_this(), operation, step = std::move(step)]() mutable {
            if (const auto held = weak.lock())
                guardedVoid(held->logger, operation, [&] { std::invoke(step, *held); });
        });
    } catch (...) {  // no memory
        return false;
    }

    // On host threads:

    /// How many of so many samples may be queued; they count from now on.
    std::size_t reserve(std::size_t samples) noexcept
    {
        const std::size_t limit = talkBackSamples(context.limits.queued);
        std::size_t present = queued;
        std::size_t taken = 0;
        do
            taken = std::min(samples, limit - std::min(limit, present));
        while (!queued.compare_exchange_weak(present, present + taken));
        return taken;
    }

    /// False when there is no memory for the copy, or the worker has been stopped.
    bool postFrame(std::span<const std::int16_t> frame) noexcept
    try {
        return post(names().push.c_str(),
                    [samples = Samples(frame.begin(), frame.end())](AudioDestinationBase& destination) mutable {
                        destination.queued -= samples.size();
                        destination.processFrame(std::move(samples));
                    });
    } catch (...) {
        return false;
    }

    void leftOut(std::size_t samples) noexcept
    {
        if (samples != 0 && samplesLeftOut.fetch_add(samples) == 0)
            logger.warning(names().push.c_str(),
                           "more sound is pushed than the device can be sent in time, some is left out");
    }

    // On the worker:

    void processCall()
    {
        if (destroyed)
            return;
        if (isUnderWay() || callAgain) {
            logger.info(names().call.c_str(), "Skip Call as already called");
            return;
        }
        samplesLeftOut = 0;
        if (state == State::hangingUp)
            callAgain = true;
        else
            beginCall();
    }

    void beginCall()
    {
        logger.info(names().call.c_str(), "Calling...");
        framesSent = 0;
        playedUntil = {};
        state = State::calling;
        if (!context.dumpDirectory.empty() && !dump.open(context.dumpDirectory, context.channel))
            logger.error(names().call.c_str(), "Failed to open an output debug file!");
        for (const Samples& early : waiting)  // came while the line of the call before was being closed
            dump.write(early);
        const auto failed = guarded(logger, names().call.c_str(), toResult(ResultCode::unexpected), [this] {
            gate->call([this] { openLine(); });
            return toResult(ResultCode::success);
        });
        if (failed != 0)
            lineEnded(failed);
    }

    void processFrame(Samples samples)
    {
        if (!isUnderWay() && !callAgain)
            return;
        dump.write(samples);
        if (state == State::talking)
            return sendFrame(samples);
        waitingSamples += samples.size();
        waiting.push_back(std::move(samples));
        const std::size_t limit = talkBackSamples(context.limits.beforeTheLineStands);
        while (waitingSamples > limit && waiting.size() > 1) {
            waitingSamples -= waiting.front().size();
            leftOut(waiting.front().size());
            waiting.pop_front();
        }
    }

    void sendFrame(std::span<const std::int16_t> samples)
    {
        const auto now = Clock::now();
        playedUntil = std::max(playedUntil, now);
        const auto ahead = std::chrono::duration_cast<std::chrono::milliseconds>(playedUntil - now);
        const std::size_t room = talkBackSamples(std::max(context.limits.ahead - ahead, std::chrono::milliseconds(0)));
        const auto accepted = samples.first(std::min(samples.size(), room));
        leftOut(samples.size() - accepted.size());
        if (accepted.empty())
            return;
        playedUntil += std::chrono::microseconds(accepted.size() * 1'000'000 / talkBackRate);
        sendSound(accepted);
        logger.debug(names().push.c_str(), "sending frame ", ++framesSent);
    }

    void tellHangUp(std::uint64_t frames) const noexcept
    {
        logger.info(names().hangUp.c_str(), "HangUp, sent: ", frames);
    }

    void processHangUp()
    {
        tellHangUp(framesSent);
        if (isUnderWay()) {
            endCall(toResult(ResultCode::success));
        } else if (std::exchange(callAgain, false)) {
            givenUp = true;
            dropWaiting();
        }
    }

    void dropWaiting()
    {
        waiting.clear();
        waitingSamples = 0;
    }

    void endCall(std::int32_t result)
    {
        state = State::hangingUp;
        dropWaiting();
        dump.close();
        if (const std::uint64_t missing = samplesLeftOut.exchange(0); missing != 0)
            logger.warning(names().call.c_str(), "left out of the call: ", missing * 1000 / talkBackRate,
                           " ms of sound");
        closeLine([this, weak = this->weak_from_this(), result] {
            const auto held = weak.lock();
            if (held != nullptr && state == State::hangingUp)
                finishCall(result);
        });
    }

    void finishCall(std::int32_t result)
    {
        state = State::idle;
        tellEnd(result);
        if (std::exchange(givenUp, false))
            tellEnd(toResult(ResultCode::success));
        if (destroyed)
            retire();
        else if (std::exchange(callAgain, false))
            beginCall();
    }

    void tellEnd(std::int32_t result) noexcept
    {
        if (handler != nullptr)
            gate->call([&] { handler->CallEnded(this, result); });
    }

    void processDestroy()
    {
        destroyed = true;
        callAgain = false;
        untilRetired = this->shared_from_this();  // the line takes a moment to close
        if (isUnderWay())
            endCall(toResult(ResultCode::cancelled));
        else if (state == State::idle)
            retire();
    }

    /// The last handler: the thread is joined on another one, which then destroys the object.
    void retire()
    {
        const auto held = std::exchange(untilRetired, nullptr);
        if (!AudioWorker::runElsewhere([held] { held->joinThread(); }))
            worker.stop();
    }

protected:
    const LoggerHelper logger;

private:
    GDRV::IAudioDestinationHandler* const handler;
    const std::shared_ptr<HandlerGate> gate = std::make_shared<HandlerGate>();
    std::shared_ptr<AudioDestinationBase> self;  // the host's reference

    std::atomic<std::size_t> queued{0};            // samples
    std::atomic<std::uint64_t> samplesLeftOut{0};  // of this call, or of the one that is to follow

    // All below on the worker only.
    State state = State::idle;
    bool callAgain = false;  // as soon as the line of the call before is closed
    bool givenUp = false;    // the call that was to follow was ended before it began
    bool destroyed = false;
    std::shared_ptr<AudioDestinationBase> untilRetired;
    std::uint64_t framesSent = 0;  // in this call
    AudioDumpFile dump;
    std::deque<Samples> waiting;  // for the line to stand, that of the call to follow too
    std::size_t waitingSamples = 0;
    Clock::time_point playedUntil;  // when the device has played what was sent
};
}  // namespace Tavro8::Utility
