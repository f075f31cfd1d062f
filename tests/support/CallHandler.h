#pragma once

#include "HostFakes.h"

#include <Tavro8/GDRV/IAudioDestination.h>
#include <functional>
#include <vector>

namespace kelvo::test
{
/// Keeps what a talk-back channel tells its host.
class CallHandler final : public Tavro8::GDRV::IAudioDestinationHandler, private Observations {
public:
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IAudioDestinationHandler, Tavro8::IContract>(this, name);
    }
    void Started(Tavro8::IContract* destination) noexcept override
    {
        change([&] { ++startedCount; });
        if (onStarted)
            onStarted(destination);
    }
    void Stopped(Tavro8::IContract*) noexcept override
    {
        change([&] { ++otherCount; });
    }
    void StatisticsUpdated(Tavro8::IContract*, const Tavro8::GDRV::StreamStatistics&) noexcept override
    {
        change([&] { ++otherCount; });
    }
    void SettingsApplied(Tavro8::IContract*, const char*, std::int32_t) noexcept override
    {
        change([&] { ++otherCount; });
    }
    void CallEnded(Tavro8::IContract* destination, std::int32_t result) noexcept override
    {
        change([&] { endResults.push_back(result); });
        if (onEnded)
            onEnded(destination);
    }

    bool waitStarted(std::size_t times = 1)
    {
        return wait([&] { return startedCount >= times; });
    }
    bool waitEnded(std::size_t times = 1)
    {
        return wait([&] { return endResults.size() >= times; });
    }
    std::size_t started() const { return read(startedCount); }
    std::vector<std::int32_t> ends() const { return read(endResults); }
    std::size_t others() const { return read(otherCount); }

    std::function<void(Tavro8::IContract*)> onStarted;  ///< set before the call, as is the next
    std::function<void(Tavro8::IContract*)> onEnded;

private:
    // All below only within change, wait and read.
    std::size_t startedCount = 0;
    std::size_t otherCount = 0;  // what talk-back does not tell
    std::vector<std::int32_t> endResults;
};
}  // namespace kelvo::test
