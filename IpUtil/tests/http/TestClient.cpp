#include "TestClient.h"

#include "ScriptedPeer.h"
#include "http/ConnectionPool.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <thread>

namespace Tavro8::http::test
{
CompletionHandler Expectation::handler()
{
    return [kept = promise](const error_code& ec, const std::vector<char>& body, const HttpResponse& response) {
        kept->set_value({ec, std::string(body.begin(), body.end()), response});
    };
}

Outcome Expectation::get()
{
    if (future.wait_for(patience) == std::future_status::ready)
        return future.get();
    ADD_FAILURE() << "the completion handler has not run";
    return {};
}

bool Expectation::isReady() const
{
    return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

struct ClientContext::Runner {
    explicit Runner(boost::asio::io_context& context)
        : guard(context.get_executor()), thread([&context] { context.run(); })
    {}
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard;
    std::thread thread;
};

ClientContext::ClientContext(const HttpLimits& limits) : context(std::make_unique<boost::asio::io_context>())
{
    setHttpLimits(*context, limits);
    runner = std::make_unique<Runner>(*context);
}

ClientContext::~ClientContext()
{
    destroy();
}

void ClientContext::destroy()
{
    if (runner == nullptr)
        return;
    context->stop();
    runner->thread.join();
    runner.reset();
    context.reset();
}

ConnectionInfoPtr infoFor(std::uint16_t port, const std::string& credentials, const std::string& scheme)
{
    const std::string user = credentials.empty() ? std::string() : credentials + '@';
    return asio::parseConnectionInfo(scheme + "://" + user + "127.0.0.1:" + std::to_string(port));
}

error_code hostError(ResultCode code)
{
    return make_error_code(code);
}
}  // namespace Tavro8::http::test
