#include "ObjectName.h"

#include <boost/format.hpp>
#include <locale>

namespace Uniview
{
namespace
{
/// Parsed once and copied for each name: parsing a template fills a cache inside the standard library's classic locale
/// that all threads share without a lock.
struct Templates {
    boost::format video{"vs %1%.%2%", std::locale::classic()};
    boost::format audio{"chan %1%", std::locale::classic()};
    boost::format destination{"ad %1%", std::locale::classic()};
    boost::format io{"io: %1%", std::locale::classic()};
    boost::format ioOfNamed{"io: %1%, %2%", std::locale::classic()};
    boost::format detector{"detector %1%.%2%", std::locale::classic()};
    boost::format telemetry{"tc %1%", std::locale::classic()};
    boost::format playback{"rp %1%", std::locale::classic()};
};

const Templates& templates()
{
    static const Templates parsed;
    return parsed;
}
}  // namespace

std::string videoObjectName(std::uint32_t channel, std::uint32_t stream)
{
    boost::format name = templates().video;
    return (name % channel % stream).str();
}

std::string audioObjectName(std::uint32_t channel)
{
    boost::format name = templates().audio;
    return (name % channel).str();
}

std::string destinationObjectName(std::uint32_t channel)
{
    boost::format name = templates().destination;
    return (name % channel).str();
}

std::string ioObjectName(const std::string& deviceName, std::uint32_t channelIndex)
{
    boost::format name = deviceName.empty() ? templates().io : templates().ioOfNamed;
    if (!deviceName.empty())
        name % deviceName;
    return (name % channelIndex).str();
}

std::string detectorObjectName(const char* detectionType, std::uint32_t channel)
{
    boost::format name = templates().detector;
    return (name % detectionType % channel).str();
}

std::string telemetryObjectName(std::uint32_t channel)
{
    boost::format name = templates().telemetry;
    return (name % channel).str();
}

std::string playbackObjectName(std::uint32_t channel)
{
    boost::format name = templates().playback;
    return (name % channel).str();
}
}  // namespace Uniview
