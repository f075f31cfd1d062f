#pragma once

#include <Tavro8/IContract.h>
#include <cstdint>

namespace Tavro8
{
/// Told once how an action ended that outlives the call that began it.
/// The object must live until then. Called on the device's I/O thread, never under a lock.
class IAsyncActionHandler : public IContract {
public:
    /// Slot 3. `result` is a `ResultCode`; 0 is success.
    virtual void Completed(std::int32_t result) noexcept = 0;
};
}  // namespace Tavro8
