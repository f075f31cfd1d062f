#pragma once

#include "http/HttpLimits.h"

#include <IpUtil/Http.h>
#include <future>
#include <memory>
#include <string>

namespace Tavro8::http::test
{
/// How a request ended.
struct Outcome {
    error_code ec;
    std::string body;
    HttpResponse response;
};

/// Makes a completion handler and keeps what it is told.
class Expectation {
public:
    CompletionHandler handler();
    /// Waits for the handler to run; fails the test when it does not.
    Outcome get();
    bool isReady() const;

private:
    std::shared_ptr<std::promise<Outcome>> promise = std::make_shared<std::promise<Outcome>>();
    std::shared_future<Outcome> future = promise->get_future().share();
};

/// An I/O context that runs on a thread of its own, with limits.
class ClientContext {
public:
    explicit ClientContext(const HttpLimits& limits = {});
    ~ClientContext();
    boost::asio::io_context& get() noexcept { return *context; }
    /// Stops the thread and destroys the context with everything pending.
    void destroy();

private:
    struct Runner;
    std::unique_ptr<boost::asio::io_context> context;
    std::unique_ptr<Runner> runner;
};

/// `credentials` as in an address: "user:password" or empty.
ConnectionInfoPtr infoFor(std::uint16_t port, const std::string& credentials = {}, const std::string& scheme = "http");

error_code hostError(ResultCode code);
}  // namespace Tavro8::http::test
