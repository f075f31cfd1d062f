#pragma once

#include "media/FramePool.h"

#include <boost/asio/execution_context.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace Tavro8::Utility
{
class DatagramBatch;

/// Waiting times of the RTSP client that are nobody's setting.
struct StreamTiming {
    std::chrono::milliseconds tickInterval{250};      ///< how exact all the others are
    std::chrono::milliseconds requestTimeout{10000};  ///< for the answer to one RTSP request
    std::chrono::milliseconds teardownTimeout{1000};  ///< for the answer to TEARDOWN
    std::chrono::milliseconds reportInterval{5000};   ///< between RTCP receiver reports of a track
    std::chrono::milliseconds foreignLimit{2000};     ///< only unknown payload types: the format has changed
    /// Packets and no frame: something was missed, the stream is described anew. Longer than the way to any key frame.
    std::chrono::milliseconds framelessLimit{60000};
    std::chrono::milliseconds firstDatagramLimit{3000};          ///< nothing came over UDP: it does not get through
    std::chrono::milliseconds silenceAfterBye{1000};             ///< RTCP BYE and then nothing: the stream has ended
    std::optional<std::chrono::milliseconds> keepAliveInterval;  ///< instead of half of the session's time-out
    std::chrono::milliseconds firstRetry{1000};
    std::chrono::milliseconds longestRetry{30000};
    /// A stream that was lost after it had lived so long is connected again at once; a shorter one is paced.
    std::chrono::milliseconds steadyLife{1000};
    /// What fails after a stream has played so long is news, and logged even if it was logged before.
    std::chrono::milliseconds healthyLife{60000};
    /// Pictures that nobody takes any more are given up after so long, for which the sound is interrupted.
    std::chrono::milliseconds leftoverLimit{5000};
};

/// What all streams of one I/O context share: the receive buffer, the frame pool and one coarse timer, so that an
/// idle stream holds none of them. One per I/O context, made by `boost::asio::use_service`.
///
/// The context is run by one thread, and all but the constructor and destructor of `Client` belongs to it.
class StreamContext final : public boost::asio::execution_context::service {
public:
    /// Somebody whose sockets and timers belong to the context. The context may be destroyed first.
    class Client {
    public:
        explicit Client(boost::asio::io_context& service);
        Client(const Client&) = delete;
        Client& operator=(const Client&) = delete;

        /// Each tick, between `startTicking` and `stopTicking`. May start, stop and destroy any client.
        virtual void onTick(std::chrono::steady_clock::time_point now) = 0;
        /// The context is being destroyed: let go of everything that belongs to it. `context` is invalid afterwards.
        virtual void onContextShutdown() noexcept = 0;

    protected:
        virtual ~Client();
        StreamContext* context;  // null once the context has gone

    private:
        friend class StreamContext;
        bool ticks = false;  // so that a client that never ticked may be destroyed on any thread
    };

    static boost::asio::execution_context::id id;

    explicit StreamContext(boost::asio::io_context& owner);
    ~StreamContext() override;
    static StreamContext& of(boost::asio::io_context& service);

    /// The buffer into which the connection whose turn it is reads. It belongs to that connection until the end of
    /// the handler that called.
    std::span<std::uint8_t> receiveBuffer();
    /// The same for datagrams.
    DatagramBatch& datagramBatch();
    const std::shared_ptr<media::FramePool>& framePool() const noexcept { return pool; }

    /// Begins and ends the calls of `onTick`; each does nothing when it is so already.
    void startTicking(Client& client);
    void stopTicking(Client& client) noexcept;

    StreamTiming timing;
    /// What the system is asked to hold of a track over UDP while others have their turn: a large key frame.
    int datagramBufferBytes = 512 * 1024;
    bool smallBufferReported = false;  ///< that it gives less

private:
    void shutdown() override;
    void add(Client& client);
    void remove(Client& client) noexcept;
    void armTimer();
    void tick();

    static constexpr std::size_t receiveBufferBytes = 256 * 1024;

    std::unique_ptr<std::uint8_t[]> buffer;    // made when first needed
    std::unique_ptr<DatagramBatch> datagrams;  // likewise
    std::shared_ptr<media::FramePool> pool;
    std::optional<boost::asio::steady_timer> timer;
    std::vector<Client*> ticking;  // null: has left while a tick was under way
    bool armed = false;
    bool inTick = false;

    std::mutex mutex;  // guards `clients`: streams are made on any thread
    std::vector<Client*> clients;
};
}  // namespace Tavro8::Utility
