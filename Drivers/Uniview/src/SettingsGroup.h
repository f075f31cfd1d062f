#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

/// The settings of a video channel: which resources of the device hold them, and how host values change what was read
/// from there. Nothing in here knows a socket.
namespace Uniview::settings
{
/// One resource of the device, in the order in which they are asked for.
enum class Group : std::uint8_t {
    stream,
    captureMode,
    exposure,
    illumination,
    whiteBalance,
    defog,
    ldc,
    imageEnhance,
};
inline constexpr std::size_t groupCount = 8;

/// What is fixed for one resource.
struct GroupTraits {
    Group group;
    const char* name;  ///< as the host is told
    const char* collection;
    const char* suffix;
    const char* readPlace;  ///< the names under which handlers of read and write log
    const char* editPlace;  ///< the name under which the function that edits logs
    const char* writePlace;
    const char* readFailure;
    const char* writeFailure;
    const char* empty;
};

/// All of them, in the order of the enumeration.
std::span<const GroupTraits, groupCount> allGroups() noexcept;
const GroupTraits& traitsOf(Group group) noexcept;

/// The resources that a device of that kind (a `GDRV::DeviceKind`) is asked for. A recorder only passes the picture's
/// look on to its cameras.
std::span<const GroupTraits> groupsOf(std::uint32_t deviceKind) noexcept;

/// `channelNumber` as the device counts.
std::string pathOf(const GroupTraits& traits, std::uint32_t channelNumber);
}  // namespace Uniview::settings
