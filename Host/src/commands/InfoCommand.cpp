#include "Output.h"
#include "commands/Command.h"

#include <json/value.h>
#include <string>

namespace Host
{
namespace GDRV = Tavro8::GDRV;
namespace
{
constexpr std::uint32_t streamsPerChannel = 3;

const char* kindText(std::uint32_t kind) noexcept
{
    switch (static_cast<GDRV::DeviceKind>(kind)) {
    case GDRV::DeviceKind::camera:
        return "camera";
    case GDRV::DeviceKind::recorder:
        return "recorder";
    case GDRV::DeviceKind::multichannelCamera:
        return "multichannel camera";
    }
    return "unknown";
}

std::string livePath(const GDRV::IDeviceInformation& information, std::uint32_t channel, std::uint32_t stream)
{
    std::string path(information.GetLivePath(channel, stream, nullptr, 0), '\0');
    information.GetLivePath(channel, stream, path.data(), path.size() + 1);  // the string has room for the NUL
    return path;
}

/// What a player needs besides user and password, which are left out on purpose.
std::string liveUrl(const GDRV::IDeviceInformation& information, const std::string& host, std::uint32_t channel,
                    std::uint32_t stream)
{
    const std::string path = livePath(information, channel, stream);
    return "rtsp://" + host + ':' + std::to_string(information.GetRtspPort()) + (path.starts_with('/') ? "" : "/") +
           path;
}

class InfoCommand final : public Command {
public:
    const char* getName() const override { return "info"; }
    const char* getSummary() const override { return "Connect and tell what the device is"; }
    void describeOptions(CLI::App&) override {}

    ExitStatus run(const Surroundings& surroundings) override
    {
        const ConnectedDevices devices(surroundings);
        const GDRV::IDeviceInformation* information = devices.getFirst().getInformation();
        if (information == nullptr)
            throw Failure(ExitStatus::failed, "the module does not tell what the device is");
        report(surroundings.output, devices.getAddress(), *information);
        return ExitStatus::done;
    }

private:
    static void report(Output& output, const DeviceAddress& address, const GDRV::IDeviceInformation& information)
    {
        const std::uint32_t kind = information.GetDeviceKind();
        const std::uint32_t channels = information.GetChannelCount();
        Json::Value fields(Json::objectValue);
        fields["deviceKind"] = kind;
        fields["kind"] = kindText(kind);
        fields["channelCount"] = channels;
        fields["rtspPort"] = information.GetRtspPort();
        Json::Value& urls = fields["urls"] = Json::Value(Json::arrayValue);

        std::string readable = "Connected  " + address.masked() + "\nKind       " + kindText(kind) + "\nChannels   " +
                               std::to_string(channels) + "\nRTSP port  " + std::to_string(information.GetRtspPort()) +
                               "\nLive\n";
        for (std::uint32_t channel = 0; channel < channels; ++channel) {
            for (std::uint32_t stream = 0; stream < streamsPerChannel; ++stream) {
                const std::string url = liveUrl(information, address.hostName(), channel, stream);
                urls.append(url);
                readable +=
                    "  channel " + std::to_string(channel) + " stream " + std::to_string(stream) + "  " + url + '\n';
            }
        }
        output.event("connected", fields, readable);
    }
};
}  // namespace

std::unique_ptr<Command> makeInfoCommand()
{
    return std::make_unique<InfoCommand>();
}
}  // namespace Host
