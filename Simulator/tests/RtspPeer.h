#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace simulator::test
{

/// A minimal RTSP client that shows every byte of an interleaved stream. No authentication. Waits are bounded; what
/// goes wrong is thrown as std::exception.
class RtspPeer {
public:
    explicit RtspPeer(std::uint16_t port);
    ~RtspPeer();

    struct Frame {
        unsigned channel = 0;
        std::vector<std::uint8_t> bytes;
    };

    /// Sends a request and returns its answer, head and body; interleaved frames on the way are kept for `nextFrame`.
    /// The session of an earlier answer is sent along unless `headers` name one.
    std::string request(const std::string& method, const std::string& url, const std::string& headers = {});

    /// SETUP of the given tracks (channels 0-1, 2-3, ...) and PLAY.
    void play(const std::string& url, unsigned tracks);

    /// Sends an interleaved frame of at most 65535 bytes.
    void send(const Frame& frame);

    /// The next interleaved frame; nothing once the connection has ended.
    std::optional<Frame> nextFrame();

    /// Interleaved frames that came before the last answer and have not been asked for.
    const std::vector<Frame>& pendingFrames() const;

private:
    struct State;
    std::unique_ptr<State> state;
};

}  // namespace simulator::test
