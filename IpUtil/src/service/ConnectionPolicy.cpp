#include <utility>

#include <IpUtil/ConnectionPolicy.h>
#include <IpUtil/LoggerHelper.h>
#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <mutex>
#include <optional>
#include <random>

namespace Tavro8::Utility
{
namespace
{
using Lane = GlobalService::Lane;
using Clock = std::chrono::steady_clock;

// A connection that lasted this long was a good one: its loss is answered with an attempt at once. When losses
// follow faster, the attempts are paced, or a device that accepts and drops would keep us busy.
constexpr auto steadyConnection = std::chrono::seconds(10);

constexpr unsigned exchangeFailuresOfALoss = 2;

/// One run of `tryConnect`, on its way through the lane. It ends when both the function has returned and its answer has
/// been passed on, which may happen on different threads. Any thread; `mutex` guards what is private.
class Attempt {
public:
    explicit Attempt(std::shared_ptr<void> owner) : owner(std::move(owner)) {}

    /// What keeps the owner alive from now on; null when the attempt was abandoned.
    std::shared_ptr<void> begin()
    {
        const std::lock_guard lock(mutex);
        if (owner != nullptr)
            participants = 1;
        return std::exchange(owner, nullptr);
    }

    /// Takes the attempt back if it has not begun, and lets go of the owner.
    bool abandon() noexcept
    {
        std::shared_ptr<void> released;  // goes after the lock
        const std::lock_guard lock(mutex);
        released = std::exchange(owner, nullptr);
        return released != nullptr;
    }

    /// True for the first answer while the attempt runs; who gave it must `leave` after passing it on.
    bool answer()
    {
        const std::lock_guard lock(mutex);
        if (participants == 0 || std::exchange(answered, true))
            return false;
        ++participants;
        return true;
    }

    /// True for the last to leave: the attempt has ended.
    bool leave()
    {
        const std::lock_guard lock(mutex);
        return --participants == 0;
    }

    // Written by who answered, read when the attempt has ended:
    error_code outcome;
    bool givenUp = false;

private:
    std::mutex mutex;
    std::shared_ptr<void> owner;
    unsigned participants = 0;
    bool answered = false;
};
}  // namespace

/// The state machine. Everything that changes its phase runs on the device's I/O thread; only the attempt itself and
/// the report of its outcome run on the lane, and all else waits until that attempt has ended. So the host hears
/// things in the order in which they happened, and one at a time.
struct AsyncConnectionPolicyBase::State : std::enable_shared_from_this<State> {
    enum class Phase { closed, waiting, connecting, connected };

    State(AsyncConnectionPolicyBase* owner, GDRV::IDeviceHandler* handler, ILogger* logger, GlobalService& service,
          const Backoff& backoff, std::uint32_t streams)
        : owner(owner),
          handler(handler),
          logger(logger, "IpUtil/src/service/ConnectionPolicy"),
          service(service),
          streams(streams),
          context(service.assignContext(streams)),
          timer(context),
          retries(backoff),
          losses(backoff),
          random(std::random_device{}())
    {}

    /// Runs `body` on the I/O thread, unless the object has been shut down by then.
    template <typename Body>
    void post(Body body)
    {
        auto alive = lockOwner();
        if (alive == nullptr)
            return;
        boost::asio::post(context, [self = shared_from_this(), alive = std::move(alive), body = std::move(body)] {
            self->guard([&] { body(*self); });
        });
    }

    // On the I/O thread:
    void open(const std::string& newAddress);
    void close(std::optional<std::string> next);
    void lose(const error_code& ec, std::uint64_t lostConnection);
    void startAttempt(Lane lane);
    void attemptEnded(const Attempt& ended);
    void retryLater();
    void startLater(std::chrono::milliseconds delay, Lane lane);
    void finishClose();
    std::chrono::milliseconds nextDelay(Backoff& backoff);

    // On the attempt's thread, or wherever it is answered:
    void runAttempt(const std::shared_ptr<Attempt>& running, const std::string& target);
    void conclude(Attempt& concluded, const error_code& ec);
    void leave(const std::shared_ptr<Attempt>& left);

    // On any thread:
    std::shared_ptr<void> lockOwner() const;
    std::shared_ptr<Attempt> getAttempt() const;
    void setAttempt(const std::shared_ptr<Attempt>& next);
    bool isGivenUp() const noexcept { return shut || cancellation.isCancelled(); }
    template <typename Body>
    void guard(Body&& body) const noexcept
    {
        guardedVoid(logger, "Tavro8::Utility::AsyncConnectionPolicyBase", [&] {
            if (!shut)
                body();
        });
    }
    template <typename Tell>
    void tellHost(Tell&& tell)
    {
        if (handler != nullptr)
            gate.call([&] { tell(*handler, owner->hostDevice()); });
    }

    AsyncConnectionPolicyBase* const owner;  // followed only while `lockOwner` keeps it, or from its own operations
    GDRV::IDeviceHandler* const handler;
    const LoggerHelper logger;
    GlobalService& service;
    const std::uint32_t streams;
    boost::asio::io_context& context;
    http::CancellationSource cancellation;
    HandlerGate gate;
    std::atomic<bool> shut{false};
    std::atomic<bool> connected{false};
    std::atomic<bool> connectedOnce{false};    // since the last open; taken back as soon as the host closes or opens
    std::atomic<std::uint64_t> connection{0};  // which one; tells reports on an earlier one apart
    std::atomic<unsigned> exchangeFailures{0};

    mutable std::mutex mutex;  // guards the next two
    std::weak_ptr<void> ownerAlive;
    std::weak_ptr<Attempt> attempt;  // kept by the lane; what it keeps in turn is the owner of this state

    // The rest belongs to the I/O thread.
    Phase phase = Phase::closed;
    bool closing = false;                 // `Closed` is told when the attempt under way has ended
    std::string address;                  // of the present cycle
    std::optional<std::string> reopen;    // address of the cycle that follows a close
    std::optional<error_code> lostEarly;  // lost before the attempt that connected has ended
    boost::asio::steady_timer timer;
    std::uint64_t timerTicket = 0;  // tells an expiry that was already queued when the timer was cancelled
    Backoff retries;
    Backoff losses;
    Clock::time_point connectedSince;
    std::minstd_rand random;
};

std::chrono::milliseconds Backoff::next(double random) noexcept
{
    constexpr unsigned maxDoublings = 20;
    const auto base = std::min(first * (1U << std::min(failures, maxDoublings)), limit);
    ++failures;
    const double factor = random >= 0 && random <= 1 ? 0.8 + 0.4 * random : 1.0;
    return std::chrono::milliseconds(static_cast<std::int64_t>(static_cast<double>(base.count()) * factor));
}

std::shared_ptr<void> AsyncConnectionPolicyBase::State::lockOwner() const
{
    const std::lock_guard lock(mutex);
    return ownerAlive.lock();
}

std::shared_ptr<Attempt> AsyncConnectionPolicyBase::State::getAttempt() const
{
    const std::lock_guard lock(mutex);
    return attempt.lock();
}

void AsyncConnectionPolicyBase::State::setAttempt(const std::shared_ptr<Attempt>& next)
{
    const std::lock_guard lock(mutex);
    attempt = next;
}

void AsyncConnectionPolicyBase::State::open(const std::string& newAddress)
{
    if (phase != Phase::closed)
        return close(newAddress);
    address = newAddress;
    retries.reset();
    losses.reset();
    startAttempt(Lane::prompt);
}

void AsyncConnectionPolicyBase::State::close(std::optional<std::string> next)
{
    if (phase == Phase::closed)
        return;
    reopen = std::move(next);
    ++timerTicket;
    timer.cancel();
    if (phase == Phase::connecting) {
        // Here once more: an attempt may have begun after the caller's cancellation.
        cancellation.cancel();
        closing = true;
        if (const auto running = getAttempt(); running != nullptr && !running->abandon())
            return;
    }
    finishClose();
}

void AsyncConnectionPolicyBase::State::finishClose()
{
    setAttempt(nullptr);
    closing = false;
    connected = false;
    connectedOnce = false;  // here once more: an attempt may have succeeded since the host's call
    phase = Phase::closed;
    tellHost([](GDRV::IDeviceHandler& host, GDRV::IDevice* device) { host.Closed(device); });
    if (reopen) {
        const std::string next = std::move(*reopen);
        reopen.reset();
        open(next);
    }
}

void AsyncConnectionPolicyBase::State::startAttempt(Lane lane)
{
    auto made = std::make_shared<Attempt>(lockOwner());
    phase = Phase::connecting;
    lostEarly.reset();
    cancellation.reset();
    if (shut) {  // which cancelled, perhaps before the line above
        cancellation.cancel();
        return;
    }
    setAttempt(made);
    try {
        service.runBlocking(lane,
                            [self = shared_from_this(), made, target = address] { self->runAttempt(made, target); });
    } catch (const std::exception& e) {
        logger.error("Tavro8::Utility::AsyncConnectionPolicyBase::openConnection",
                     "Cannot start an attempt: ", e.what());
        setAttempt(nullptr);
        tellHost([](GDRV::IDeviceHandler& host, GDRV::IDevice* device) {
            host.ConnectFailed(device, toResult(ResultCode::noResources));
        });
        retryLater();
    }
}

void AsyncConnectionPolicyBase::State::runAttempt(const std::shared_ptr<Attempt>& running, const std::string& target)
{
    const auto alive = running->begin();
    if (alive == nullptr)
        return;
    constexpr const char* operation = "Tavro8::Utility::AsyncConnectionPolicyBase::tryConnect";
    guardedVoid(logger, operation, [&] {
        if (!isGivenUp())
            owner->tryConnect(target);
    });
    if (running->answer()) {
        if (!isGivenUp())
            logger.error(operation, "The attempt ended without an outcome");
        conclude(*running, make_error_code(ResultCode::unexpected));
        leave(running);
    }
    leave(running);
}

void AsyncConnectionPolicyBase::State::conclude(Attempt& concluded, const error_code& ec)
{
    concluded.outcome = ec;
    concluded.givenUp = isGivenUp();
    if (concluded.givenUp)
        return;  // who gave it up is told `Closed` and nothing else
    const std::int32_t result = translateSystemError(ec);
    if (result != 0) {
        tellHost([result](GDRV::IDeviceHandler& host, GDRV::IDevice* device) { host.ConnectFailed(device, result); });
        return;
    }
    exchangeFailures = 0;
    ++connection;
    connected = true;
    connectedOnce = true;
    guard([this] { owner->onConnected(); });
    tellHost([](GDRV::IDeviceHandler& host, GDRV::IDevice* device) { host.Connected(device); });
}

void AsyncConnectionPolicyBase::State::leave(const std::shared_ptr<Attempt>& left)
{
    if (left->leave())
        post([left](State& self) { self.attemptEnded(*left); });
}

void AsyncConnectionPolicyBase::State::attemptEnded(const Attempt& ended)
{
    setAttempt(nullptr);
    if (closing)
        return finishClose();
    if (ended.givenUp) {  // the close that did so is on its way
        phase = Phase::waiting;
        return;
    }
    if (ended.outcome)
        return retryLater();
    phase = Phase::connected;
    connectedSince = Clock::now();
    retries.reset();
    if (lostEarly)
        lose(*lostEarly, connection);
}

void AsyncConnectionPolicyBase::State::lose(const error_code& ec, std::uint64_t lostConnection)
{
    if (!connected || connection != lostConnection)
        return;
    if (phase == Phase::connecting) {  // the host may not yet have heard that it is connected
        lostEarly = ec;
        return;
    }
    phase = Phase::waiting;
    connected = false;
    guard([this] { owner->onConnectionLost(); });
    const std::int32_t result = translateSystemError(ec);
    logger.warning("Tavro8::Utility::AsyncConnectionPolicyBase::lose",
                   "Connection to the device is lost: ", describeResult(result));
    tellHost([result](GDRV::IDeviceHandler& host, GDRV::IDevice* device) { host.ConnectionLost(device, result); });

    if (Clock::now() - connectedSince >= steadyConnection)
        losses.reset();
    const bool isFirst = losses.getFailures() == 0;
    const auto delay = nextDelay(losses);
    startLater(isFirst ? std::chrono::milliseconds(0) : delay, Lane::prompt);
}

void AsyncConnectionPolicyBase::State::retryLater()
{
    phase = Phase::waiting;
    startLater(nextDelay(retries), Lane::failing);
}

void AsyncConnectionPolicyBase::State::startLater(std::chrono::milliseconds delay, Lane lane)
{
    if (delay.count() == 0)
        return startAttempt(lane);
    timer.expires_after(delay);
    timer.async_wait([weak = weak_from_this(), ticket = ++timerTicket, lane](const error_code& ec) {
        const auto self = weak.lock();
        if (ec || self == nullptr || ticket != self->timerTicket)
            return;
        if (const auto alive = self->lockOwner())
            self->guard([&] { self->startAttempt(lane); });
    });
}

std::chrono::milliseconds AsyncConnectionPolicyBase::State::nextDelay(Backoff& backoff)
{
    return backoff.next(std::uniform_real_distribution<double>(0, 1)(random));
}

AsyncConnectionPolicyBase::AsyncConnectionPolicyBase(GDRV::IDeviceHandler* handler, ILogger* logger,
                                                     GlobalService& service, const Backoff& backoff,
                                                     std::uint32_t streams)
    : state(std::make_shared<State>(this, handler, logger, service, backoff, streams))
{}

AsyncConnectionPolicyBase::~AsyncConnectionPolicyBase()
{
    shutDown();
}

boost::asio::io_context& AsyncConnectionPolicyBase::service() const noexcept
{
    return state->context;
}

bool AsyncConnectionPolicyBase::isConnected() const noexcept
{
    return state->connected && !state->shut;
}

bool AsyncConnectionPolicyBase::hasBeenConnected() const noexcept
{
    return state->connectedOnce && !state->shut;
}

void AsyncConnectionPolicyBase::reportExchange(const error_code& transportError)
{
    if (!transportError) {
        state->exchangeFailures = 0;
        return;
    }
    // An exchange that we took back says nothing about the device.
    if (!state->connected || translateSystemError(transportError) == toResult(ResultCode::cancelled))
        return;
    const std::uint64_t which = state->connection;
    if (++state->exchangeFailures == exchangeFailuresOfALoss)
        state->post([transportError, which](State& self) { self.lose(transportError, which); });
}

void AsyncConnectionPolicyBase::reportStreamLost()
{
    const std::uint64_t which = state->connection;
    state->post([which](State& self) { self.lose(make_error_code(ResultCode::connectionLost), which); });
}

void AsyncConnectionPolicyBase::handleConnected(const error_code& ec)
{
    const auto attempt = state->getAttempt();
    if (attempt == nullptr || !attempt->answer()) {
        state->logger.error("Tavro8::Utility::AsyncConnectionPolicyBase::handleConnected",
                            "Outcome ignored, since no attempt waits for one; code:", ec.value());
        return;
    }
    state->conclude(*attempt, ec);
    state->leave(attempt);
}

void AsyncConnectionPolicyBase::openConnection(const std::string& address)
{
    std::weak_ptr<void> alive = keepAlive();
    state->connectedOnce = false;
    {
        const std::lock_guard lock(state->mutex);
        state->ownerAlive.swap(alive);
    }
    state->post([address](State& self) { self.open(address); });
}

void AsyncConnectionPolicyBase::closeConnection()
{
    state->cancellation.cancel();  // at once, the I/O thread may be busy
    state->connectedOnce = false;
    state->post([](State& self) { self.close(std::nullopt); });
}

void AsyncConnectionPolicyBase::shutDown() noexcept
{
    if (!state->shut.exchange(true))
        state->service.releaseContext(state->context, state->streams);
    state->connected = false;
    state->cancellation.cancel();
    if (const auto attempt = state->getAttempt())
        attempt->abandon();
    state->gate.close();
}

const http::CancellationSource& AsyncConnectionPolicyBase::cancellation() const noexcept
{
    return state->cancellation;
}
}  // namespace Tavro8::Utility
