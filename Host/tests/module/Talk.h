#pragma once

#include "Loop.h"

#include <Tavro8/GDRV/IAudioDestination.h>
#include <Tavro8/ILogger.h>
#include <fstream>
#include <string>

namespace Sample
{
/// A speaker. What happens to it is a line of severity "info" in the log, and what is spoken goes to a file.
class AudioDestination final : public Tavro8::GDRV::IAudioDestination {
public:
    struct Manners {
        bool answers;          ///< without it the line never stands
        std::int32_t refusal;  ///< unless 0, how every call ends
        bool breaks;           ///< the line breaks at the fifth frame, with 257
    };

    /// Handler and logger are the host's and may be null. `file` gets the samples as they come; empty for none.
    AudioDestination(Loop& deviceLoop, std::uint32_t channelIndex,
                     Tavro8::GDRV::IAudioDestinationHandler* destinationHandler, Tavro8::ILogger* hostLogger,
                     const std::string& file, const Manners& speakerManners);

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override;
    std::uint32_t GetChannelIndex() const noexcept override { return channel; }
    void Call() noexcept override;
    void PushAudioFrame(const Tavro8::GDRV::AudioFrame& frame) noexcept override;
    void HangUp() noexcept override;

private:
    ~AudioDestination() override = default;

    enum class Line { idle, calling, standing };
    void answer();
    void take(const std::vector<std::int16_t>& samples);
    void end(std::int32_t result);
    void log(const std::string& message) const;

    Loop& loop;  // the device's, which outlives it
    const std::uint32_t channel;
    Tavro8::GDRV::IAudioDestinationHandler* const handler;
    Tavro8::ILogger* const logger;
    const Manners manners;

    // The loop's thread.
    std::ofstream output;
    Line line = Line::idle;
    Loop::Clock::time_point stoodAt;
    std::uint64_t frames = 0;
    std::uint64_t samplesTaken = 0;
};
}  // namespace Sample
