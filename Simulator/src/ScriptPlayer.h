#pragma once

#include "EventScript.h"

#include <boost/asio/ts/netfwd.hpp>

#include <functional>
#include <memory>

namespace simulator
{

/// Plays a script by the clock. Used on the I/O context only.
class ScriptPlayer {
public:
    using Perform = std::function<void(const EventScript::Step&)>;

    ScriptPlayer(boost::asio::io_context& context, EventScript script, Perform perform);
    ~ScriptPlayer();
    ScriptPlayer(const ScriptPlayer&) = delete;
    ScriptPlayer& operator=(const ScriptPlayer&) = delete;

    /// From the beginning; does nothing while it plays.
    void start();
    void stop();

private:
    struct State;
    std::shared_ptr<State> state;  ///< shared with the timer's handler
};

}  // namespace simulator
