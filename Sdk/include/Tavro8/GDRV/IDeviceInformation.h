#pragma once

#include <Tavro8/IContract.h>
#include <cstddef>
#include <cstdint>

namespace Tavro8::GDRV
{
/// Kinds of device; the numbers are contract.
enum class DeviceKind : std::uint32_t {
    camera = 0,                ///< one video channel
    recorder = 1,              ///< a network video recorder
    multichannelCamera = 1000  ///< a camera with several video channels
};

/// What is known of a connected device. Asked for at the `IDevice` with `queryContract`. Before the first
/// connection it answers kind 0, the configured channels and RTSP port 0. Any thread.
class IDeviceInformation : public IContract {
public:
    virtual std::uint32_t GetDeviceKind() const noexcept = 0;    ///< slot 3: a `DeviceKind`
    virtual std::uint32_t GetChannelCount() const noexcept = 0;  ///< slot 4
    virtual std::uint16_t GetRtspPort() const noexcept = 0;      ///< slot 5: 0 before the first connection

    /// Slot 6. The RTSP path of a live stream, channel and stream counted from 0. Writes at most `capacity`
    /// bytes with a closing NUL into `path` and returns the length it needs without the NUL.
    virtual std::size_t GetLivePath(std::uint32_t channel, std::uint32_t stream, char* path,
                                    std::size_t capacity) const noexcept = 0;
};
}  // namespace Tavro8::GDRV
