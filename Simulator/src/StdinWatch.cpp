#include <utility>  // ahead of Asio, which forgets it

#include "StdinWatch.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <array>

#if defined(_WIN32)
#include <iostream>
#include <thread>
#else
#include <boost/asio/posix/stream_descriptor.hpp>

#include <unistd.h>
#endif

namespace simulator
{

#if defined(_WIN32)

// The console and anonymous pipes cannot be read asynchronously there: a thread waits for the end, and is left behind
// when the program ends first.
struct StdinWatch::State {
    bool cancelled = false;  ///< used on the I/O context only
};

StdinWatch::StdinWatch(boost::asio::io_context& context, std::function<void()> ended) : state(std::make_shared<State>())
{
    std::thread([&context, shared = state, callback = std::move(ended)] {
        while (std::cin.get() != std::istream::traits_type::eof()) {
        }
        boost::asio::post(context, [shared, callback] {
            if (!shared->cancelled)
                callback();
        });
    }).detach();
}

void StdinWatch::cancel()
{
    state->cancelled = true;
}

#else

struct StdinWatch::State : std::enable_shared_from_this<State> {
    State(boost::asio::io_context& context, std::function<void()> callback)
        : input(context, ::dup(STDIN_FILENO)), ended(std::move(callback))
    {}

    void readOn()
    {
        input.async_read_some(boost::asio::buffer(ignored), [weak = weak_from_this()](const auto& error, std::size_t) {
            const auto self = weak.lock();
            if (!self || error == boost::asio::error::operation_aborted)
                return;
            if (error)
                self->ended();
            else
                self->readOn();
        });
    }

    boost::asio::posix::stream_descriptor input;
    std::function<void()> ended;
    std::array<char, 256> ignored{};
};

StdinWatch::StdinWatch(boost::asio::io_context& context, std::function<void()> ended)
    : state(std::make_shared<State>(context, std::move(ended)))
{
    state->readOn();
}

void StdinWatch::cancel()
{
    boost::system::error_code ignored;
    state->input.close(ignored);
}

#endif

StdinWatch::~StdinWatch()
{
    cancel();
}

}  // namespace simulator
