#pragma once

#include <boost/asio/ts/netfwd.hpp>

#include <functional>
#include <memory>

namespace simulator
{

/// Reads and forgets standard input, and calls back on the I/O context when it has ended: whoever started the program
/// is gone then.
class StdinWatch {
public:
    StdinWatch(boost::asio::io_context& context, std::function<void()> ended);
    ~StdinWatch();
    StdinWatch(const StdinWatch&) = delete;
    StdinWatch& operator=(const StdinWatch&) = delete;

    /// Nothing is called any more.
    void cancel();

private:
    struct State;
    std::shared_ptr<State> state;
};

}  // namespace simulator
