#pragma once

#include "Archive.h"
#include "Authentication.h"
#include "Fault.h"
#include "Options.h"
#include "ReplayBoard.h"
#include "ReplayPlayback.h"
#include "ReplayRequest.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include <array>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace simulator
{

/// What all replays share. Nothing is owned; everything outlives them.
struct ReplayServices {
    const Options& options;
    const Archive& archive;
    const FaultTable& faults;
    ReplayBoard& board;
    Authenticator authenticator;                  ///< used on the replays' thread only, as what follows
    std::vector<ReplayPipeline::Track> tracks{};  ///< made with the first description
};

/// An RTSP connection that plays what is recorded (RFC 2326), interleaved. It takes as much from the encoder as the
/// client reads. Used on the replays' thread only.
class ReplaySession : public std::enable_shared_from_this<ReplaySession> {
public:
    ReplaySession(boost::asio::ip::tcp::socket socket, ReplayServices& services, std::uint64_t id);

    void start();
    void close();

private:
    struct Answer {
        unsigned status = 200;
        std::string headers{};
        std::string body{};
    };

    void read();
    void write();
    void pump();
    void pumpAt(ReplayPlayback::Clock::time_point due);
    void watchSilence();

    void takeRequests();
    void reply(const RtspQuestion& question);
    Answer answer(const RtspQuestion& question);
    std::optional<Answer> refusal(const RtspQuestion& question);
    Answer describe(const RtspQuestion& question, const ReplayPath& path);
    Answer setUp(const RtspQuestion& question, const ReplayPath& path);
    Answer play(const RtspQuestion& question);
    Answer pause();
    Answer tearDown();
    std::optional<unsigned> begin(const ReplayRange& range, bool keyFramesOnly);
    std::optional<unsigned> problemOf(const ReplayPath& path) const;
    std::optional<unsigned> problemOfSetUp(const RtspQuestion& question, const ReplayPath& wanted) const;
    void prepareTracks();
    PictureSettings picture(unsigned channel, bool keyFramesOnly) const;
    std::string sessionHeader() const;
    std::string trackInformation(std::chrono::nanoseconds position) const;
    void report(const char* state);

    boost::asio::ip::tcp::socket socket;
    ReplayServices& services;
    const std::uint64_t id;
    boost::asio::steady_timer playTimer;
    boost::asio::steady_timer silenceTimer;
    ReplayPlayback::Clock::time_point lastSign;  ///< of the client
    std::array<char, 4096> received{};
    RtspInput input;
    std::string pending;  ///< to be written
    std::string writing;  ///< is being written

    std::string session;  ///< empty: nothing is set up
    std::string url;      ///< of the replay that is set up, with a slash at its end
    ReplayPath path;
    ReplayPlayback playback;
    ReplayStatus status;
};

}  // namespace simulator
