#pragma once

#include <IpUtil/Export.h>
#include <IpUtil/Http.h>
#include <Tavro8/ILogger.h>
#include <boost/asio/ts/netfwd.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace boost::posix_time
{
class time_duration;
}

namespace Tavro8::Utility
{
/// Several requests to one device as one action with one result, for operations of the host that take more than one
/// exchange. Requests are added, then the batch is started; completion handlers may add more, for example the PUT that
/// writes back what a GET has read. Once no request is left the final handler is told the first failure, or 0.
///
/// One thread: the one that runs the I/O context (before it runs, the one that will). Handlers run there too, never
/// inside the call that adds or starts. The batch may be stopped and destroyed inside any of its handlers. Whoever
/// destroys it before its end stops it.
class IPUTIL_API AsyncMultiRequest {
public:
    /// Begins a request on the context and hands `handler` on, which must not be called inside.
    using Begin =
        std::function<http::CancellationPtr(boost::asio::io_context& context, http::CompletionHandler handler)>;
    using FinalHandler = std::function<void(std::int32_t result)>;

    /// `logger` may be null; it and `context` outlive the batch.
    ///
    /// `parallel`: one request less is under way at once than the HTTP client has connections to one device, so that a
    /// device that does not answer them is still there for others; two such batches leave them none. They go in the
    /// order in which they were added; but what is added after the start, as the PUT that follows a GET, goes before
    /// what still waits. Otherwise one after the other in the order in which they were added.
    ///
    /// `stopAtFailure`: the first failure takes back all other requests, also those that its handler adds: what was
    /// not sent is not sent. Their handlers are told `ResultCode::cancelled`. Otherwise requests are independent.
    AsyncMultiRequest(boost::asio::io_context& context, http::ConnectionInfoPtr info, ILogger* logger,
                      bool parallel = true, bool stopAtFailure = false);
    ~AsyncMultiRequest();
    AsyncMultiRequest(const AsyncMultiRequest&) = delete;
    AsyncMultiRequest& operator=(const AsyncMultiRequest&) = delete;

    // Each handler (may be empty) is called once, unless the batch is stopped. `timeout` counts from the moment at
    // which the request is handed to the HTTP client: waiting for others of the batch is not part of it, waiting for a
    // connection that somebody else uses is. What is not positive, or not a time, means the client's own limit. Nothing
    // is added to a batch that has ended.

    void addGetRequest(const std::string& path, const boost::posix_time::time_duration& timeout,
                       http::CompletionHandler handler);
    void addPutRequest(const std::string& path, const std::string& body,
                       const boost::posix_time::time_duration& timeout, http::CompletionHandler handler);
    void addPostRequest(const std::string& path, const std::string& body,
                        const boost::posix_time::time_duration& timeout, http::CompletionHandler handler);
    /// Any other request.
    void addRequest(Begin begin, http::CompletionHandler handler);

    /// Sends what was added. Once: a second start does nothing. `handler` (may be empty) is called once, behind the
    /// last completion handler, unless the batch is stopped. Its result is the failure that came first in time: a
    /// transport error, a status that is not accepted, or `ResultCode::unexpected` for a handler that threw.
    void start(FinalHandler handler);

    /// Takes back every request; no handler is called afterwards, also not the final one. Ends the batch.
    void stop() noexcept;

    /// How many requests were added and have not been answered.
    std::size_t size() const noexcept;

private:
    struct State;
    std::shared_ptr<State> state;
};
}  // namespace Tavro8::Utility
