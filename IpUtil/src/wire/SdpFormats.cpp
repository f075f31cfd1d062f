#include "wire/Base64.h"
#include "wire/Sdp.h"
#include "wire/Text.h"

#include <algorithm>
#include <array>

namespace Tavro8::wire
{
namespace
{
constexpr std::size_t maxParameterSets = 32;

/// Some encoders leave the start code of their byte stream in front of a parameter set, or zero bytes behind it.
void stripStartCode(Bytes& unit)
{
    constexpr std::array<std::uint8_t, 3> startCode = {0, 0, 1};
    const auto one = std::find_if(unit.begin(), unit.end(), [](std::uint8_t byte) { return byte != 0; });
    if (one - unit.begin() >= 2 && one != unit.end() && *one == startCode.back())
        unit.erase(unit.begin(), one + 1);
    while (!unit.empty() && unit.back() == 0)
        unit.pop_back();
}

/// NAL units in base64 with commas between. What cannot be read is left out: the stream may still bring it.
std::vector<Bytes> decodeUnits(const SdpFormat& format, std::string_view parameter)
{
    std::vector<Bytes> units;
    std::string_view list = format.parameter(parameter).value_or(std::string_view{});
    while (!list.empty() && units.size() < maxParameterSets) {
        auto unit = decodeBase64(trim(cutAt(list, ',')));
        if (!unit)
            continue;
        stripStartCode(*unit);
        if (!unit->empty())
            units.push_back(std::move(*unit));
    }
    return units;
}

std::optional<unsigned> numberOf(const SdpFormat& format, std::string_view parameter, int base = 10)
{
    return parseNumber<unsigned>(format.parameter(parameter).value_or(std::string_view{}), base);
}
}  // namespace

H264Format h264Format(const SdpFormat& format)
{
    H264Format result;
    result.packetizationMode = numberOf(format, "packetization-mode").value_or(0);
    result.profileLevelId = numberOf(format, "profile-level-id", 16);
    result.parameterSets = decodeUnits(format, "sprop-parameter-sets");
    return result;
}

H265Format h265Format(const SdpFormat& format)
{
    H265Format result;
    result.vps = decodeUnits(format, "sprop-vps");
    result.sps = decodeUnits(format, "sprop-sps");
    result.pps = decodeUnits(format, "sprop-pps");
    result.donFields = numberOf(format, "sprop-max-don-diff").value_or(0) > 0;
    return result;
}

Bytes aacConfig(const SdpFormat& format)
{
    std::string_view config = format.parameter("config").value_or(std::string_view{});
    if (config.size() >= 2 && config.front() == '"' && config.back() == '"')
        config = config.substr(1, config.size() - 2);
    return decodeHex(config).value_or(Bytes{});
}
}  // namespace Tavro8::wire
