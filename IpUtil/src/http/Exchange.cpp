#include "http/Exchange.h"

#include "http/ConnectionPool.h"
#include "http/DigestMemory.h"
#include "http/HostError.h"
#include "http/ResponseReader.h"
#include "wire/Text.h"

#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <mutex>
#include <new>
#include <optional>

namespace Tavro8::http
{
namespace
{
using Clock = std::chrono::steady_clock;

class Exchange;

/// What the caller of a request holds. Knows the I/O context only as long as the request is under way, since the
/// caller may keep it longer than that. Thread-safe.
class CancelHandle final : public ICancellation {
public:
    CancelHandle(boost::asio::io_context& context, std::weak_ptr<Exchange> exchange)
        : context(&context), exchange(std::move(exchange))
    {}
    void cancel() noexcept override;
    void detach() noexcept
    {
        const std::lock_guard lock(mutex);
        context = nullptr;
    }

private:
    std::mutex mutex;  // guards `context`
    boost::asio::io_context* context;
    const std::weak_ptr<Exchange> exchange;
};

/// One request on its way: waits for its turn, opens a connection or takes a kept one, writes, reads, and does so
/// again when the device asks for authentication or when a kept connection turns out to be dead.
///
/// Lives in the handlers of what is under way, and in the queue of its pool while it waits. Everything but the
/// construction happens on the thread of the I/O context.
class Exchange final : public PoolClient, public std::enable_shared_from_this<Exchange> {
public:
    Exchange(boost::asio::io_context& context, ConnectionInfoPtr info, HttpRequest request, CompletionHandler handler)
        : context(context),
          info(std::move(info)),
          request(std::move(request)),
          handler(std::move(handler)),
          deadline(context),
          connectDeadline(context)
    {}
    ~Exchange() override
    {
        if (handle != nullptr)
            handle->detach();
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    CancellationPtr makeHandle()
    {
        handle = std::make_shared<CancelHandle>(context, weak_from_this());
        return handle;
    }

    void start();
    void cancel() { fail(ResultCode::cancelled); }
    void onTurn(std::shared_ptr<HttpConnection> kept) override;

private:
    void queueUp();
    std::chrono::milliseconds timeLimit() const;
    void openFresh();
    void onOpened(const error_code& ec);
    void send();
    void onWritten(const error_code& ec);
    void read();
    void onRead(const error_code& ec, std::size_t bytes);
    void onBroken(const error_code& ec, bool requestLeft);
    void onResponse();
    bool answerChallenge();
    void fail(const error_code& ec);
    void complete(const error_code& ec, HttpResponse response, std::vector<char> body,
                  std::shared_ptr<HttpConnection> reusable);
    wire::Credentials credentials() const { return {info->user, info->password}; }

    /// A handler for one step: it keeps the exchange alive and does nothing once that is over. What a step throws
    /// (memory, mostly) ends the request instead of leaving the pool's turn behind.
    template <typename Step>
    auto bind(Step step)
    {
        return [self = shared_from_this(), step = std::move(step)](auto&&... arguments) {
            self->run([&] { step(*self, std::forward<decltype(arguments)>(arguments)...); });
        };
    }
    template <typename Body>
    void run(Body&& body);

    boost::asio::io_context& context;
    const ConnectionInfoPtr info;
    const HttpRequest request;
    CompletionHandler handler;
    std::shared_ptr<CancelHandle> handle;
    boost::asio::steady_timer deadline;
    boost::asio::steady_timer connectDeadline;

    std::shared_ptr<ConnectionPool> pool;
    std::shared_ptr<HttpConnection> connection;
    std::shared_ptr<DigestMemory> digest;
    std::optional<ResponseReader> reader;
    std::string authorization;  // of the sending under way
    std::string text;           // the bytes being written
    unsigned refusals = 0;      // sendings that were answered with 401
    bool hasTurn = false;
    bool connectionReused = false;  // it has carried a response before
    bool repeated = false;          // a dead connection has been replaced; once is enough
    bool done = false;
};

void CancelHandle::cancel() noexcept
try {
    const std::lock_guard lock(mutex);
    if (context == nullptr)
        return;
    boost::asio::post(*context, [weak = exchange] {
        if (const auto alive = weak.lock())
            alive->cancel();
    });
} catch (...) {  // no memory to tell the I/O thread; the request ends by its time-out
}

template <typename Body>
void Exchange::run(Body&& body)
{
    if (done)
        return;
    try {
        body();
    } catch (const std::bad_alloc&) {
        fail(ResultCode::noResources);
    } catch (...) {
        fail(ResultCode::unexpected);
    }
}

void Exchange::start()
{
    boost::asio::post(context, bind([](Exchange& self) { self.queueUp(); }));
}

void Exchange::queueUp()
{
    if (info == nullptr || info->host.empty())
        return fail(ResultCode::deviceUnreachable);
    digest = info->digestMemory != nullptr ? info->digestMemory : DigestMemory::sharedFor(*info);
    pool = ConnectionPool::of(context, *info);

    deadline.expires_after(timeLimit());
    deadline.async_wait(bind([](Exchange& self, const error_code& ec) {
        if (!ec)
            self.fail(ResultCode::timedOut);
    }));
    pool->acquire(shared_from_this());
}

/// The request's own limit, else that of its device, else the client's.
std::chrono::milliseconds Exchange::timeLimit() const
{
    if (request.timeout.count() > 0)
        return request.timeout;
    return info->requestTimeout.count() > 0 ? info->requestTimeout : pool->getLimits().requestTimeout;
}

void Exchange::onTurn(std::shared_ptr<HttpConnection> kept)
{
    hasTurn = true;
    run([&] {
        if (!credentials().empty())
            authorization = digest->authorization(credentials(), request.method, request.target);
        connection = std::move(kept);
        connectionReused = connection != nullptr;
        if (connectionReused)
            send();
        else
            openFresh();
    });
}

void Exchange::openFresh()
{
    connection = HttpConnection::create(context, info->secure);
    connectionReused = false;
    connectDeadline.expires_after(pool->getLimits().connectTimeout);
    connectDeadline.async_wait(bind([](Exchange& self, const error_code& ec) {
        // The timer may have been set anew or taken back since it fired.
        if (!ec && self.connectDeadline.expiry() <= Clock::now())
            self.fail(ResultCode::timedOut);
    }));
    connection->asyncOpen(info->host, info->port,
                          bind([](Exchange& self, const error_code& ec) { self.onOpened(ec); }));
}

void Exchange::onOpened(const error_code& ec)
{
    connectDeadline.expires_at(Clock::time_point::max());
    if (ec)
        return fail(ec);
    send();
}

void Exchange::send()
{
    text = formatRequest(request, *info, authorization);
    reader.emplace(pool->getLimits());
    connection->asyncWrite(text, bind([](Exchange& self, const error_code& ec, std::size_t) { self.onWritten(ec); }));
}

void Exchange::onWritten(const error_code& ec)
{
    if (ec)
        return onBroken(ec, false);
    read();
}

void Exchange::read()
{
    connection->asyncReadSome(reader->prepare(), bind([](Exchange& self, const error_code& ec, std::size_t bytes) {
                                  self.onRead(ec, bytes);
                              }));
}

void Exchange::onRead(const error_code& ec, std::size_t bytes)
{
    ResponseReader::Progress progress = reader->commit(bytes);
    if (progress == ResponseReader::Progress::needMore) {
        if (!ec)
            return read();
        if (ec != boost::asio::error::eof || !reader->hasStarted())
            return onBroken(ec, true);
        progress = reader->finish();
    }
    if (progress == ResponseReader::Progress::failed)
        return fail(reader->getError());
    onResponse();
}

/// A kept connection may have died between two requests. Then the request is sent once more, on a new connection,
/// unless it may have had its effect: a POST is not repeated when all of it has left, because the device may have
/// acted on it before it closed. A request of which a part is missing has no effect.
void Exchange::onBroken(const error_code& ec, bool requestLeft)
{
    const bool harmless = request.isIdempotent() || !requestLeft;
    if (!connectionReused || repeated || reader->hasStarted() || !harmless)
        return fail(ec);
    repeated = true;
    connection->close();
    // A nonce count is spent even when nobody has seen it.
    if (!authorization.empty())
        authorization = digest->authorization(credentials(), request.method, request.target);
    openFresh();
}

void Exchange::onResponse()
{
    std::shared_ptr<HttpConnection> reusable = connection;
    if (!reader->leavesConnectionOpen() || request.asksToClose()) {
        connection->close();
        reusable = nullptr;
    }
    HttpResponse& response = reader->getResponse();
    if (response.status == 401 && answerChallenge()) {
        connectionReused = true;
        if (reusable == nullptr)
            openFresh();
        else
            send();
        return;
    }
    complete({}, std::move(response), std::move(reader->getBody()), std::move(reusable));
}

/// Whether the request is worth sending again with a new authorization.
bool Exchange::answerChallenge()
{
    if (credentials().empty())
        return false;
    const HttpResponse& response = reader->getResponse();
    std::vector<std::string_view> challenges;
    for (const auto& [name, value] : response.headers.all()) {
        if (wire::equalsNoCase(name, "WWW-Authenticate"))
            challenges.emplace_back(value);
    }
    auto answer = digest->answer(challenges, authorization, refusals, credentials(), request.method, request.target);
    ++refusals;
    authorization = std::move(answer.authorization);
    return answer.verdict == wire::AuthVerdict::retry;
}

void Exchange::fail(const error_code& ec)
{
    if (done)
        return;
    if (connection != nullptr)
        connection->close();
    HttpResponse response;
    response.transportError = Utility::toHostError(ec);
    const error_code reported = response.transportError;
    complete(reported, std::move(response), {}, nullptr);
}

void Exchange::complete(const error_code& ec, HttpResponse response, std::vector<char> body,
                        std::shared_ptr<HttpConnection> reusable)
{
    done = true;
    deadline.cancel();
    connectDeadline.cancel();
    handle->detach();
    connection.reset();
    // Posted, so that an exception of the handler leaves nothing of ours half done, and before the next in line
    // begins, so that completions come in order.
    boost::asio::post(context,
                      [handler = std::move(handler), ec, response = std::move(response), body = std::move(body)] {
                          if (handler)
                              handler(ec, body, response);
                      });
    if (pool == nullptr)
        return;
    if (std::exchange(hasTurn, false))
        pool->release(std::move(reusable));
    else
        pool->leave(*this);
}
}  // namespace

CancellationPtr startExchange(boost::asio::io_context& context, ConnectionInfoPtr info, HttpRequest request,
                              CompletionHandler handler)
{
    const auto exchange = std::make_shared<Exchange>(context, std::move(info), std::move(request), std::move(handler));
    CancellationPtr handle = exchange->makeHandle();
    exchange->start();
    return handle;
}
}  // namespace Tavro8::http
