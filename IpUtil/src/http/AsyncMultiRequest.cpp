#include <utility>

#include "http/ConnectionPool.h"

#include <IpUtil/AsyncMultiRequest.h>
#include <IpUtil/LoggerHelper.h>
#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/date_time/posix_time/posix_time_duration.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <chrono>
#include <deque>
#include <exception>
#include <vector>

namespace Tavro8::Utility
{
namespace
{
constexpr const char* sourcePath = "IpUtil/src/http/AsyncMultiRequest";
constexpr const char* completing = "Tavro8::Utility::AsyncMultiRequest::onCompleted";

/// The connection description with the time limit of one request.
http::ConnectionInfoPtr limited(const http::ConnectionInfoPtr& info, const boost::posix_time::time_duration& timeout)
{
    if (info == nullptr || timeout.is_special() || timeout.total_milliseconds() <= 0)
        return info;
    const auto result = std::make_shared<asio::ConnectionInfo>(*info);
    result->requestTimeout = std::chrono::milliseconds(timeout.total_milliseconds());
    return result;
}

/// All connections but one, which others who speak to the device at this time need.
std::size_t mostInParallel(boost::asio::io_context& context)
{
    return std::max<std::size_t>(2, http::getHttpLimits(context).connectionsPerDevice) - 1;
}
}  // namespace

/// Requests under way hold it, so that it lives until the last of them has ended; the public object stops it.
struct AsyncMultiRequest::State final : std::enable_shared_from_this<State> {
    State(boost::asio::io_context& context, http::ConnectionInfoPtr info, ILogger* hostLogger, bool parallel,
          bool stopAtFailure)
        : context(context),
          info(std::move(info)),
          parallel(parallel),
          mostAtOnce(parallel ? mostInParallel(context) : 1),
          stopAtFailure(stopAtFailure),
          logger(hostLogger, sourcePath)
    {}

    struct Request {
        Begin begin;
        http::CompletionHandler handler;
    };
    /// A request that was handed to the client. Its handler belongs to the client alone, so that it goes with the I/O
    /// context even where it holds the owner of the batch.
    struct Sent {
        http::CancellationPtr cancellation;
    };
    using SentPtr = std::shared_ptr<Sent>;

    void add(Begin begin, http::CompletionHandler handler);
    void start(FinalHandler handler);
    void stop() noexcept;
    std::size_t size() const noexcept { return following.size() + waiting.size() + underWay.size(); }

    boost::asio::io_context& context;
    const http::ConnectionInfoPtr info;

private:
    void sendDue();
    Request takeNext();
    void send(Request request);
    void completeLater(const SentPtr& sent, http::CompletionHandler handler, ResultCode code);
    void onCompleted(const SentPtr& sent, const http::CompletionHandler& handler, const error_code& ec,
                     const std::vector<char>& body, const http::HttpResponse& response);
    void note(std::int32_t outcome) noexcept;
    void takeBackOthers() noexcept;
    void finishWhenDone();

    const bool parallel;
    const std::size_t mostAtOnce;  // more would spend their time limit in the client's queue, behind our own
    const bool stopAtFailure;
    const LoggerHelper logger;
    std::deque<Request> waiting;
    std::deque<Request> following;  // added since the start, goes before those
    std::vector<SentPtr> underWay;
    FinalHandler finalHandler;
    std::int32_t result = 0;  // the first failure
    bool started = false;
    bool takenBack = false;  // by a failure
    bool ended = false;      // stopped, or the final handler has been called
};

void AsyncMultiRequest::State::add(Begin begin, http::CompletionHandler handler)
{
    if (ended)
        return;
    (started && parallel ? following : waiting).push_back({std::move(begin), std::move(handler)});
    if (started)
        sendDue();
}

void AsyncMultiRequest::State::start(FinalHandler handler)
{
    if (ended || std::exchange(started, true))
        return;
    finalHandler = std::move(handler);
    sendDue();
    if (underWay.empty()) {
        boost::asio::post(context, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->finishWhenDone();
        });
    }
}

void AsyncMultiRequest::State::stop() noexcept
{
    if (std::exchange(ended, true))
        return;
    waiting.clear();
    following.clear();
    finalHandler = nullptr;
    for (const SentPtr& sent : std::exchange(underWay, {})) {
        if (sent->cancellation != nullptr)
            sent->cancellation->cancel();
    }
}

void AsyncMultiRequest::State::sendDue()
{
    while (size() > underWay.size() && (takenBack || underWay.size() < mostAtOnce))
        send(takeNext());
}

AsyncMultiRequest::State::Request AsyncMultiRequest::State::takeNext()
{
    std::deque<Request>& line = following.empty() ? waiting : following;
    Request next = std::move(line.front());
    line.pop_front();
    return next;
}

void AsyncMultiRequest::State::send(Request request)
{
    const auto sent = std::make_shared<Sent>();
    underWay.push_back(sent);
    if (takenBack)
        return completeLater(sent, std::move(request.handler), ResultCode::cancelled);
    try {
        const auto onDone = [self = shared_from_this(), sent,
                             handler = request.handler](const error_code& ec, const std::vector<char>& body,
                                                        const http::HttpResponse& response) {
            self->onCompleted(sent, handler, ec, body, response);
        };
        sent->cancellation = request.begin(context, onDone);
    } catch (const std::exception& e) {
        logger.error("Tavro8::Utility::AsyncMultiRequest::send", e.what());
        completeLater(sent, std::move(request.handler), ResultCode::unexpected);
    }
}

/// For a request that is not sent. Handlers are never called inside the call that adds.
void AsyncMultiRequest::State::completeLater(const SentPtr& sent, http::CompletionHandler handler, ResultCode code)
{
    boost::asio::post(context, [weak = weak_from_this(), sent, handler = std::move(handler), code] {
        const auto self = weak.lock();
        if (self == nullptr)
            return;
        http::HttpResponse response;
        response.transportError = code;
        self->onCompleted(sent, handler, response.transportError, {}, response);
    });
}

void AsyncMultiRequest::State::onCompleted(const SentPtr& sent, const http::CompletionHandler& handler,
                                           const error_code& ec, const std::vector<char>& body,
                                           const http::HttpResponse& response)
{
    const auto found = std::ranges::find(underWay, sent);
    if (found == underWay.end())
        return;  // the batch has ended
    underWay.erase(found);
    note(ec ? translateSystemError(ec) : http::translateResponseError(response));
    if (handler) {
        // It may stop or destroy the batch; whoever called us keeps the state.
        note(guarded(logger, completing, toResult(ResultCode::unexpected), [&] {
            handler(ec, body, response);
            return 0;
        }));
    }
    sendDue();
    finishWhenDone();
}

void AsyncMultiRequest::State::note(std::int32_t outcome) noexcept
{
    if (outcome == 0 || ended)
        return;
    result = result == 0 ? outcome : result;
    if (stopAtFailure)
        takeBackOthers();
}

void AsyncMultiRequest::State::takeBackOthers() noexcept
{
    if (std::exchange(takenBack, true))
        return;
    for (const SentPtr& sent : underWay) {
        if (sent->cancellation != nullptr)
            sent->cancellation->cancel();
    }
}

void AsyncMultiRequest::State::finishWhenDone()
{
    if (ended || size() != 0)
        return;
    ended = true;
    const auto keep = shared_from_this();
    if (const auto handler = std::exchange(finalHandler, nullptr))
        guardedVoid(logger, "Tavro8::Utility::AsyncMultiRequest::finish", [&] { handler(result); });
}

AsyncMultiRequest::AsyncMultiRequest(boost::asio::io_context& context, http::ConnectionInfoPtr info, ILogger* logger,
                                     bool parallel, bool stopAtFailure)
    : state(std::make_shared<State>(context, std::move(info), logger, parallel, stopAtFailure))
{}

AsyncMultiRequest::~AsyncMultiRequest()
{
    state->stop();
}

void AsyncMultiRequest::addGetRequest(const std::string& path, const boost::posix_time::time_duration& timeout,
                                      http::CompletionHandler handler)
{
    addRequest(
        [path, info = limited(state->info, timeout)](boost::asio::io_context& context, http::CompletionHandler done) {
            return http::asyncGetEx(info, path, context, std::move(done));
        },
        std::move(handler));
}

void AsyncMultiRequest::addPutRequest(const std::string& path, const std::string& body,
                                      const boost::posix_time::time_duration& timeout, http::CompletionHandler handler)
{
    addRequest(
        [path, body, info = limited(state->info, timeout)](boost::asio::io_context& context,
                                                           http::CompletionHandler done) {
            return http::asyncPutEx(info, path, body, context, std::move(done));
        },
        std::move(handler));
}

void AsyncMultiRequest::addPostRequest(const std::string& path, const std::string& body,
                                       const boost::posix_time::time_duration& timeout, http::CompletionHandler handler)
{
    addRequest(
        [path, body, info = limited(state->info, timeout)](boost::asio::io_context& context,
                                                           http::CompletionHandler done) {
            return http::asyncPostEx(info, path, body, context, std::move(done));
        },
        std::move(handler));
}

void AsyncMultiRequest::addRequest(Begin begin, http::CompletionHandler handler)
{
    state->add(std::move(begin), std::move(handler));
}

void AsyncMultiRequest::start(FinalHandler handler)
{
    state->start(std::move(handler));
}

void AsyncMultiRequest::stop() noexcept
{
    state->stop();
}

std::size_t AsyncMultiRequest::size() const noexcept
{
    return state->size();
}
}  // namespace Tavro8::Utility
