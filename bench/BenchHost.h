#pragma once

#include <Tavro8/GDRV.h>
#include <filesystem>
#include <memory>
#include <string>

// The least that a program of the bench needs in order to load the module as a host does: through its three entry
// points and the SDK alone.
namespace kelvo::bench
{
/// The module, from loading to unloading, with an empty settings repository. Its warnings go to standard error.
class HostedModule {
public:
    /// Throws `std::runtime_error` when the module cannot be used.
    explicit HostedModule(const std::string& path);
    ~HostedModule();
    HostedModule(const HostedModule&) = delete;
    HostedModule& operator=(const HostedModule&) = delete;

    Tavro8::GDRV::IModule& operator*() const noexcept { return *module; }

    static std::string builtPath();  ///< where the build has left the module

private:
    class Repository;
    class Context;

    std::unique_ptr<Repository> repository;
    std::unique_ptr<Context> context;
    void* library = nullptr;
    Tavro8::GDRV::FiniModule finiModule = nullptr;
    Tavro8::GDRV::IModule* module = nullptr;
};

/// A camera with one channel.
class CameraDescription final : public Tavro8::GDRV::IDeviceDescription {
public:
    explicit CameraDescription(Tavro8::ParameterMap deviceProperties = {}) : properties(std::move(deviceProperties)) {}

    void* FindContract(const char* name) noexcept override;
    const char* GetName() const noexcept override { return "camera"; }
    std::uint32_t GetVideoChannelCount() const noexcept override { return 1; }
    const Tavro8::ParameterMap& GetProperties() const noexcept override { return properties; }
    const Tavro8::ParameterMap& GetModelParameters() const noexcept override { return none; }
    const Tavro8::ParameterMap& GetChannelModelParameters(std::uint32_t) const noexcept override { return none; }

private:
    const Tavro8::ParameterMap properties;
    const Tavro8::ParameterMap none;
};
}  // namespace kelvo::bench
