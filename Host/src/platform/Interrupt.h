#pragma once

#include <stop_token>
#include <thread>

namespace Host
{
/// Turns the first Ctrl-C (or SIGTERM) into a stop request that every wait of the program watches, and the
/// second into an immediate end with status 130.
///
/// One object in the program, made on the main thread before any other thread exists, so that all of them,
/// those of the module too, leave the signals to this one. A reader of standard output that goes away must
/// not kill the program in the middle of a file either: writing then fails like on a full disk.
class Interrupt {
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    std::stop_token token() const noexcept { return source.get_token(); }

private:
    void onSignal() noexcept;

    std::stop_source source;
    std::stop_source finished;
    std::thread watcher;
};
}  // namespace Host
