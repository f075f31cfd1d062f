#pragma once

#include <Tavro8/GDRV/IDeviceDescription.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace Host
{
/// What the host's configuration says of the device: channels, properties and model parameters.
///
/// Without a model file every channel has generous parameters, so that nothing that a device may be able to do
/// is held back: 255 presets, the full speeds, all movements. A model file is a JSON object. Its members are
/// parameters of the model as a whole and of every channel; member "channels", an array of such objects, says
/// what differs for the first channel, the second and so on.
///
///     { "presetCount": 64, "maxFpsForCodec": { "H.264": "25" }, "channels": [ {}, { "rayCount": 4 } ] }
///
/// Whole numbers, flags, fractions and texts keep their type; an object becomes a table of texts.
class DeviceDescription final : public Tavro8::GDRV::IDeviceDescription {
public:
    explicit DeviceDescription(std::uint32_t videoChannelCount);

    /// Lays the model file's parameters over the defaults. Throws `Failure` (usage) with what is wrong where, such as a
    /// known parameter of the wrong type. What this host does not know it passes on all the same: modules may.
    void readModel(const std::filesystem::path& file);

    /// Sentences about parameters of the model file that this host does not know.
    const std::vector<std::string>& getWarnings() const noexcept { return warnings; }

    /// Takes "KEY=VALUE" as the device property KEY with the text VALUE. Throws `Failure` (usage).
    void setProperty(std::string_view assignment);

    void* FindContract(const char* contract) noexcept override;
    const char* GetName() const noexcept override { return name.c_str(); }
    std::uint32_t GetVideoChannelCount() const noexcept override;
    const Tavro8::ParameterMap& GetProperties() const noexcept override { return properties; }
    const Tavro8::ParameterMap& GetModelParameters() const noexcept override { return modelParameters; }
    const Tavro8::ParameterMap& GetChannelModelParameters(std::uint32_t channel) const noexcept override;

    void setName(const std::string& deviceName) { name = deviceName; }

private:
    std::string name;
    Tavro8::ParameterMap properties;
    Tavro8::ParameterMap modelParameters;
    std::vector<Tavro8::ParameterMap> channels;
    std::vector<std::string> warnings;
};
}  // namespace Host
