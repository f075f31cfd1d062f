#pragma once

#include "Lapi.h"

#include <IpUtil/Http.h>
#include <boost/asio/ts/netfwd.hpp>
#include <functional>
#include <mutex>
#include <vector>

namespace Uniview
{
/// The management requests of one telemetry channel. Each runs on its caller's thread and on an I/O context of its own,
/// so that it queues neither behind other requests to the device nor behind another telemetry call; what has been
/// learnt about the device's authentication is shared with all of them. Any thread, also several at once.
class TelemetryRequests {
public:
    /// Begins a request on the context with one of the asynchronous operations.
    using Start = std::function<Tavro8::http::CancellationPtr(boost::asio::io_context& context,
                                                              Tavro8::http::CompletionHandler handler)>;

    /// Blocks until the request has ended, 15 s at most while an address is asked (a name may take the system's
    /// resolver longer), and judges its reply. Does not throw for what the network or the device does.
    lapi::Reply run(const Start& start, lapi::Expect expect);

    /// Takes back the requests under way, which then end with "cancelled", and those to come.
    void end() noexcept;

private:
    class Entry;

    std::mutex mutex;  // guards all below
    std::vector<Tavro8::http::CancellationPtr> underWay;
    bool ended = false;
};
}  // namespace Uniview
