#pragma once

#include "Notification.h"

#include <boost/asio/ts/netfwd.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace simulator
{

/// Brings notifications to their receivers: one kept connection for each subscription, on which they follow each other,
/// and others beside it on request. Receivers know a device by its address, so that it matters which one of ours a
/// connection comes from. Used on the I/O context only.
class EventPusher {
public:
    struct Receiver {
        unsigned subscription = 0;
        std::string address;
        std::uint16_t port = 0;
        std::string deviceAddress;  ///< where connections come from; does not count when it is of the other family
    };
    struct Push {
        Transmission transmission;
        bool freshConnection = false;
        std::string name;  ///< for the log
    };
    /// Called once for each push, unless its subscription was forgotten before its turn came.
    using Finished = std::function<void(unsigned subscription, bool delivered)>;

    EventPusher(boost::asio::io_context& context, Finished finished);
    ~EventPusher();
    EventPusher(const EventPusher&) = delete;
    EventPusher& operator=(const EventPusher&) = delete;

    /// Behind those that wait already. One for which there is no room any more is lost.
    void push(const Receiver& receiver, Push push);

    /// Ends the connections to the receiver, in the middle of whatever they carry.
    void forget(unsigned subscription);
    void forgetAll();

private:
    struct State;
    std::shared_ptr<State> state;  ///< shared with the running pushes, which may outlive the pusher
};

}  // namespace simulator
