#pragma once

#include <IpUtil/Http.h>
#include <memory>
#include <mutex>
#include <vector>

namespace Tavro8::http
{
/// What the copies of a `CancellationSource` share. Thread-safe.
struct CancellationSource::State {
    /// Cancels at once when the source is cancelled already. The request is not owned.
    void bind(const CancellationPtr& request);
    void unbind(const CancellationPtr& request) noexcept;
    void cancel() noexcept;

    mutable std::mutex mutex;  // guards all below; not held while a request is cancelled
    bool cancelled = false;
    std::vector<std::weak_ptr<ICancellation>> requests;
};
}  // namespace Tavro8::http
