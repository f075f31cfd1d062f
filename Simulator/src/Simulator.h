#pragma once

#include "Options.h"

#include <boost/asio/ts/netfwd.hpp>

#include <memory>
#include <string>

namespace simulator
{

/// The whole device: state, LAPI, administration and media, on one I/O context.
class Simulator {
public:
    /// Opens every port; throws std::exception with a sentence when it cannot.
    Simulator(boost::asio::io_context& context, Options options);
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    /// The line that tells the caller where to find everything; one line of JSON, without the password.
    std::string readyLine() const;

    /// Closes ports and connections, after which the I/O context runs out of work.
    void stop();

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace simulator
