#pragma once

#include "RecordingLogger.h"

#include <Tavro8/GDRV.h>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

// What a host hands to a module, for tests.
namespace kelvo::test
{
constexpr std::chrono::seconds patience{20};  ///< after that a test gives up waiting for what should come at once

/// The host's side of `initModule`.
class HostContext final : public Tavro8::GDRV::IModuleContext, public Tavro8::GDRV::ILoggingContext {
public:
    explicit HostContext(std::filesystem::path repository = {}) : repository(repository.wstring()) {}

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IModuleContext, Tavro8::GDRV::ILoggingContext>(this, name);
    }
    Tavro8::GDRV::ILoggingContext* GetLoggingContext() noexcept override
    {
        ++loggingContextCalls;
        return this;
    }
    std::uint32_t GetSdkVersion() noexcept override { return version; }
    Tavro8::ILogger* GetLogger() noexcept override { return &logger; }
    const wchar_t* GetRepositoryDirectory() noexcept override { return repository.c_str(); }
    const wchar_t* GetLogFile() noexcept override { return nullptr; }

    RecordingLogger logger;
    std::wstring repository;
    std::uint32_t version = Tavro8::sdkVersion;
    int loggingContextCalls = 0;
};

/// A device as the host's configuration describes it.
class Description final : public Tavro8::GDRV::IDeviceDescription {
public:
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IDeviceDescription, Tavro8::IContract>(this, name);
    }
    const char* GetName() const noexcept override { return "test device"; }
    std::uint32_t GetVideoChannelCount() const noexcept override { return channels; }
    const Tavro8::ParameterMap& GetProperties() const noexcept override { return properties; }
    const Tavro8::ParameterMap& GetModelParameters() const noexcept override { return modelParameters; }
    const Tavro8::ParameterMap& GetChannelModelParameters(std::uint32_t) const noexcept override
    {
        return channelModelParameters;
    }

    std::uint32_t channels = 1;
    Tavro8::ParameterMap properties;
    Tavro8::ParameterMap modelParameters;
    Tavro8::ParameterMap channelModelParameters;
};

/// Values that a module's threads change and a test reads or waits for.
class Observations {
protected:
    Observations() = default;
    ~Observations() = default;
    Observations(const Observations&) = delete;
    Observations& operator=(const Observations&) = delete;

    template <typename Body>
    void change(Body&& body)
    {
        const std::lock_guard lock(mutex);
        body();
        changed.notify_all();
    }
    /// False when the condition has not come true within `patience`.
    template <typename Condition>
    bool wait(Condition&& condition)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, patience, condition);
    }
    template <typename Value>
    Value read(const Value& value) const
    {
        const std::lock_guard lock(mutex);
        return value;
    }

private:
    mutable std::mutex mutex;  // guards the members of the derived class
    std::condition_variable changed;
};

/// Counts what a device reports and lets a test wait for it.
class DeviceHandler final : public Tavro8::GDRV::IDeviceHandler, private Observations {
public:
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IDeviceHandler, Tavro8::IContract>(this, name);
    }
    void Connected(Tavro8::GDRV::IDevice* device) noexcept override
    {
        change([&] { ++connected; });
        if (onConnected)
            onConnected(device);
    }
    void ConnectFailed(Tavro8::GDRV::IDevice*, std::int32_t result) noexcept override
    {
        change([&] {
            ++failed;
            lastResult = result;
        });
    }
    void ConnectionLost(Tavro8::GDRV::IDevice*, std::int32_t result) noexcept override
    {
        change([&] {
            ++lost;
            lastResult = result;
        });
    }
    void Closed(Tavro8::GDRV::IDevice*) noexcept override
    {
        change([&] { ++closed; });
    }

    bool waitConnected(int times = 1)
    {
        return wait([&] { return connected >= times; });
    }
    bool waitFailed(int times = 1)
    {
        return wait([&] { return failed >= times; });
    }
    int lostTotal() const { return read(lost); }
    bool waitLost(int times = 1)
    {
        return wait([&] { return lost >= times; });
    }
    bool waitClosed(int times = 1)
    {
        return wait([&] { return closed >= times; });
    }
    std::int32_t result() const { return read(lastResult); }

    std::function<void(Tavro8::GDRV::IDevice*)> onConnected;  ///< set before the device is opened

private:
    // All below only within change, wait and read.
    int connected = 0;
    int failed = 0;
    int lost = 0;
    int closed = 0;
    std::int32_t lastResult = 0;
};

/// Channel and frame handler of a live source in one.
class ChannelHandler final : public Tavro8::GDRV::IAsyncDeviceChannelHandler,
                             public Tavro8::GDRV::IMediaFrameHandler,
                             private Observations {
public:
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IAsyncDeviceChannelHandler, Tavro8::GDRV::IMediaFrameHandler>(this,
                                                                                                                  name);
    }
    void Started(Tavro8::IContract* source) noexcept override
    {
        change([&] { ++startedCount; });
        if (onStarted)
            onStarted(source);
    }
    void Stopped(Tavro8::IContract* source) noexcept override
    {
        change([&] { ++stoppedCount; });
        if (onStopped)
            onStopped(source);
    }
    void StatisticsUpdated(Tavro8::IContract*, const Tavro8::GDRV::StreamStatistics& statistics) noexcept override
    {
        change([&] {
            ++statisticsCount;
            lastStatistics = statistics;
        });
    }
    void SettingsApplied(Tavro8::IContract* source, const char* resource, std::int32_t result) noexcept override
    {
        change([&] { settings.emplace_back(resource, result); });
        if (onSettings)
            onSettings(source, resource);
    }
    void OnFrame(Tavro8::IContract* source, const Tavro8::GDRV::MediaFrame& frame) noexcept override
    {
        change([&] {
            ++frameCount;
            if (keepFrames)
                frames.emplace_back(frame);
        });
        if (onFrame)
            onFrame(source);
    }

    void OnStreamState(Tavro8::IContract*, std::int32_t result) noexcept override
    {
        change([&] { states.push_back(result); });
    }

    bool waitState(std::int32_t result)
    {
        return wait([&] { return std::find(states.begin(), states.end(), result) != states.end(); });
    }
    bool waitFrames(std::size_t times)
    {
        return wait([&] { return frameCount >= times; });
    }
    /// Waits until the host has been told so often of that resource.
    bool waitSettings(const std::string& resource, std::size_t times = 1)
    {
        return wait([&] {
            return static_cast<std::size_t>(std::ranges::count(settings, resource, &SettingsResult::first)) >= times;
        });
    }
    std::vector<std::pair<std::string, std::int32_t>> settingsResults() const { return read(settings); }
    std::vector<std::int32_t> streamStates() const { return read(states); }
    bool waitStopped(std::size_t times = 1)
    {
        return wait([&] { return stoppedCount >= times; });
    }
    bool waitStatistics(const std::function<bool(const Tavro8::GDRV::StreamStatistics&)>& condition)
    {
        return wait([&] { return statisticsCount > 0 && condition(lastStatistics); });
    }
    std::size_t started() const { return read(startedCount); }
    std::size_t stopped() const { return read(stoppedCount); }
    std::size_t frameTotal() const { return read(frameCount); }
    Tavro8::GDRV::StreamStatistics statistics() const { return read(lastStatistics); }
    std::vector<Tavro8::GDRV::FrameReference> takeFrames()
    {
        std::vector<Tavro8::GDRV::FrameReference> taken;
        change([&] { taken.swap(frames); });
        return taken;
    }

    // Set before the source is started.
    bool keepFrames = false;
    std::function<void(Tavro8::IContract*)> onStarted;
    std::function<void(Tavro8::IContract*)> onStopped;
    std::function<void(Tavro8::IContract*)> onFrame;
    std::function<void(Tavro8::IContract*, const std::string& resource)> onSettings;

private:
    using SettingsResult = std::pair<std::string, std::int32_t>;

    // All below only within change, wait and read.
    std::size_t startedCount = 0;
    std::size_t stoppedCount = 0;
    std::size_t statisticsCount = 0;
    std::size_t frameCount = 0;
    Tavro8::GDRV::StreamStatistics lastStatistics;
    std::vector<Tavro8::GDRV::FrameReference> frames;
    std::vector<SettingsResult> settings;
    std::vector<std::int32_t> states;
};
}  // namespace kelvo::test
