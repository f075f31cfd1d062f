#pragma once

#include <IpUtil/LoggerHelper.h>
#include <boost/asio/ts/netfwd.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

namespace Uniview
{
/// Requests for the same resources of a device, one after the other: each reads, edits and writes back what several
/// sources share, the pictures of a channel or a microphone, and two at once would undo each other's edits.
///
/// Any thread. Requests begin on the I/O context; nothing is called while the lock is held.
class SettingsQueue final : public std::enable_shared_from_this<SettingsQueue> {
public:
    static constexpr std::size_t maxTaken = 32;  ///< requests that count and are under way or wait

    /// Held by the request that is under way. Once nobody holds it any more the next one begins.
    using Turn = std::shared_ptr<void>;

    /// One request to read, edit and write.
    struct Request {
        const void* owner;                   ///< the source, whose `drop` gives the request up
        const Tavro8::LoggerHelper* logger;  ///< of the source, which `begin` keeps alive
        const char* place;                   ///< under which lines about the request are logged
        std::function<void(Turn turn)> begin;
        bool concernsDevice = true;  ///< others are taken before the device has connected
        bool counts = true;          ///< towards `maxTaken`; of others each owner has one at most
    };

    /// `context` outlives the queue and all turns. `hasBeenConnected` is asked on the threads that call `take`.
    SettingsQueue(boost::asio::io_context& context, std::function<bool()> hasBeenConnected);

    /// Returns 0 when the request was taken: its `begin` is called when its turn has come, unless it is given up.
    /// Otherwise the reason is logged: 2 while a device that is concerned has not been connected, or when the queue has
    /// ended; 515 when too many others are under way or wait.
    std::int32_t take(Request request);

    /// Gives up what waits of that source. What is under way ends with the last holder of its turn.
    void drop(const void* owner) noexcept;

    /// With the device: gives up all that waits and takes nothing any more.
    void end() noexcept;

private:
    void releaseTurn(bool counts) noexcept;
    void postNext();
    void beginNext();

    boost::asio::io_context& context;
    const std::function<bool()> hasBeenConnected;
    std::mutex mutex;  // guards all below
    std::deque<Request> waiting;
    std::size_t taken = 0;  // of those that count
    bool underWay = false;
    bool ended = false;
};
}  // namespace Uniview
