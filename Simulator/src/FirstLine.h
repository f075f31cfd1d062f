#pragma once

#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace simulator
{

/// Looks at the first line that a client sends, without taking it from the connection, so that whoever serves it finds
/// everything there. Used on the I/O context only.
class FirstLine : public std::enable_shared_from_this<FirstLine> {
public:
    using Handler = std::function<void(boost::asio::ip::tcp::socket socket, const std::string& line)>;

    struct Patience {
        std::chrono::milliseconds silence{60'000};  ///< until the first byte
        std::chrono::milliseconds line{5'000};      ///< from there to the end of the line
    };

    /// `handler` is called once, with the connection and what there is of the line: all of it, unless it is too long or
    /// too slow; with a closed socket when the connection has ended before, or has been silent for too long.
    static std::shared_ptr<FirstLine> await(boost::asio::ip::tcp::socket socket, Handler handler, Patience patience);
    ~FirstLine();

    /// Closes the connection.
    void close();

private:
    struct State;
    explicit FirstLine(std::unique_ptr<State> state);
    void wait();
    void giveUpInSilence();
    void look();
    void finish(const std::string& line);

    std::unique_ptr<State> state;
};

}  // namespace simulator
