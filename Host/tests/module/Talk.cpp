#include "Talk.h"

#include <Tavro8/ResultCode.h>
#include <utility>
#include <vector>

namespace Sample
{
namespace GDRV = Tavro8::GDRV;
using Tavro8::ResultCode;
using Tavro8::toResult;
namespace
{
constexpr std::chrono::milliseconds answerDelay{20};
constexpr std::uint64_t framesUntilBreak = 5;
}  // namespace

AudioDestination::AudioDestination(Loop& deviceLoop, std::uint32_t channelIndex,
                                   GDRV::IAudioDestinationHandler* destinationHandler, Tavro8::ILogger* hostLogger,
                                   const std::string& file, const Manners& speakerManners)
    : loop(deviceLoop), channel(channelIndex), handler(destinationHandler), logger(hostLogger), manners(speakerManners)
{
    if (!file.empty())
        output.open(file, std::ios::binary);
}

void* AudioDestination::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<GDRV::IAudioDestination, GDRV::IDeviceChannel, Tavro8::IContract>(this, name);
}

void AudioDestination::Destroy() noexcept
{
    loop.forget(this);
    delete this;
}

void AudioDestination::log(const std::string& message) const
{
    if (logger != nullptr && Tavro8::wants(logger->GetLevel(), Tavro8::LogSeverity::info))
        logger->Log(Tavro8::LogSeverity::info, "Sample::AudioDestination", "Talk", __LINE__,
                    ("channel " + std::to_string(channel) + ": " + message).c_str());
}

void AudioDestination::Call() noexcept
{
    loop.post(this, [this] {
        log("called");
        line = Line::calling;
        if (manners.refusal != 0)
            end(manners.refusal);
        else if (manners.answers)
            loop.post(
                this, [this] { answer(); }, Loop::Clock::now() + answerDelay);
    });
}

void AudioDestination::answer()
{
    if (line != Line::calling)
        return;
    line = Line::standing;
    stoodAt = Loop::Clock::now();
    frames = samplesTaken = 0;
    log("the line stands");
    if (handler != nullptr)
        handler->Started(this);
}

void AudioDestination::PushAudioFrame(const GDRV::AudioFrame& frame) noexcept
{
    loop.post(this, [this, samples = std::vector(frame.samples.begin(), frame.samples.end())] { take(samples); });
}

void AudioDestination::take(const std::vector<std::int16_t>& samples)
{
    if (line != Line::standing) {
        log("spoken to without a line");
        return;
    }
    ++frames;
    samplesTaken += samples.size();
    output.write(reinterpret_cast<const char*>(samples.data()),
                 static_cast<std::streamsize>(samples.size() * sizeof samples[0]));
    if (manners.breaks && frames == framesUntilBreak)
        end(toResult(ResultCode::connectionLost));
}

void AudioDestination::HangUp() noexcept
{
    loop.post(this, [this] {
        if (line == Line::standing)
            log("hung up after " + std::to_string(frames) + " frames, " + std::to_string(samplesTaken) + " samples, " +
                std::to_string(
                    std::chrono::duration_cast<std::chrono::milliseconds>(Loop::Clock::now() - stoodAt).count()) +
                " ms");
        if (line != Line::idle)
            end(toResult(ResultCode::success));
    });
}

void AudioDestination::end(std::int32_t result)
{
    line = Line::idle;
    output.flush();
    if (handler != nullptr)
        handler->CallEnded(this, result);
}
}  // namespace Sample
