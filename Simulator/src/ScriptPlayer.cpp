#include <utility>  // ahead of Asio, which forgets it

#include "ScriptPlayer.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

namespace simulator
{

struct ScriptPlayer::State : std::enable_shared_from_this<State> {
    using Clock = std::chrono::steady_clock;

    State(boost::asio::io_context& context, EventScript scriptToPlay, Perform performer)
        : script(std::move(scriptToPlay)), perform(std::move(performer)), timer(context)
    {}

    void armTimer()
    {
        if (next == script.steps.size()) {
            if (!script.repeat)
                return;  // stays "playing": it is not to begin again before it was stopped
            next = 0;
            beginning += *script.repeat;
        }
        timer.expires_at(beginning + script.steps[next].at);
        timer.async_wait([weak = weak_from_this(), round = round](const boost::system::error_code& cancelled) {
            const auto self = weak.lock();
            if (!cancelled && self && self->playing && self->round == round)
                self->onTimer();
        });
    }

    void onTimer()
    {
        const unsigned current = round;
        perform(script.steps[next++]);
        if (playing && round == current)
            armTimer();
    }

    const EventScript script;
    const Perform perform;
    boost::asio::steady_timer timer;
    Clock::time_point beginning;
    std::size_t next = 0;
    bool playing = false;
    unsigned round = 0;  ///< a handler that was on its way when the script was stopped belongs to an earlier one
};

ScriptPlayer::ScriptPlayer(boost::asio::io_context& context, EventScript script, Perform perform)
    : state(std::make_shared<State>(context, std::move(script), std::move(perform)))
{}

ScriptPlayer::~ScriptPlayer()
{
    stop();
}

void ScriptPlayer::start()
{
    if (std::exchange(state->playing, true))
        return;
    ++state->round;
    state->beginning = State::Clock::now();
    state->next = 0;
    if (!state->script.steps.empty())
        state->armTimer();
}

void ScriptPlayer::stop()
{
    state->playing = false;
    state->timer.cancel();
}

}  // namespace simulator
