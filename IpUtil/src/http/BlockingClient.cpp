#include "http/BlockingClient.h"

#include "http/Cancellation.h"
#include "http/ConnectionPool.h"
#include "http/Exchange.h"

#include <boost/asio/io_context.hpp>
#include <utility>

namespace Tavro8::http
{
namespace
{
struct Outcome {
    bool done = false;
    HttpResponse response;
    std::vector<char> body;
};

/// Ties a request to a cancellation source for as long as it is waited for.
class Binding {
public:
    Binding(std::shared_ptr<CancellationSource::State> source, CancellationPtr request)
        : source(std::move(source)), request(std::move(request))
    {
        this->source->bind(this->request);
    }
    ~Binding() { source->unbind(request); }
    Binding(const Binding&) = delete;
    Binding& operator=(const Binding&) = delete;

private:
    const std::shared_ptr<CancellationSource::State> source;
    const CancellationPtr request;
};
}  // namespace

BlockingClient::BlockingClient(ConnectionInfoPtr info, CancellationSource cancellation, const HttpLimits& limits)
    : info(std::move(info)),
      cancellation(std::move(cancellation)),
      context(std::make_unique<boost::asio::io_context>(1))
{
    setHttpLimits(*context, limits);
}

BlockingClient::~BlockingClient() = default;

std::shared_ptr<HttpResponse> BlockingClient::get(const std::string& path, std::vector<char>* body)
{
    HttpRequest request;
    request.method = "GET";
    request.target = requestTarget(path);

    // Shared with the handler, which outlives this call when running the context throws.
    const auto outcome = std::make_shared<Outcome>();
    const auto onCompleted = [outcome](const error_code&, const std::vector<char>& received,
                                       const HttpResponse& response) {
        outcome->response = response;
        outcome->body = received;
        outcome->done = true;
    };
    context->restart();
    const Binding binding(cancellation.getState(), startExchange(*context, info, std::move(request), onCompleted));
    while (!outcome->done && context->run_one() != 0) {
    }
    if (!outcome->done)
        outcome->response.transportError = make_error_code(ResultCode::unexpected);
    if (body != nullptr)
        *body = std::move(outcome->body);
    return std::make_shared<HttpResponse>(std::move(outcome->response));
}
}  // namespace Tavro8::http
