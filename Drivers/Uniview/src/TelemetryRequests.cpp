#include "TelemetryRequests.h"

#include <utility>

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/system/system_error.hpp>
#include <memory>

namespace Uniview
{
namespace
{
struct Outcome {
    bool done = false;
    lapi::Reply reply;
};

lapi::Reply failedToRun(const Tavro8::error_code& ec)
{
    return lapi::judge(ec, {}, {});
}
}  // namespace

/// A request in the list of those under way.
class TelemetryRequests::Entry {
public:
    Entry(TelemetryRequests& requests, Tavro8::http::CancellationPtr request)
        : requests(requests), request(std::move(request))
    {
        const std::lock_guard lock(requests.mutex);
        if (requests.ended)
            this->request->cancel();
        requests.underWay.push_back(this->request);
    }
    ~Entry()
    {
        const std::lock_guard lock(requests.mutex);
        std::erase(requests.underWay, request);
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

private:
    TelemetryRequests& requests;
    const Tavro8::http::CancellationPtr request;
};

lapi::Reply TelemetryRequests::run(const Start& start, lapi::Expect expect)
try {
    // Shared with the handler, which outlives this call when running the context throws.
    const auto outcome = std::make_shared<Outcome>();
    boost::asio::io_context context(1);
    const Entry entry(*this,
                      start(context, [outcome, expect](const Tavro8::error_code& ec, const std::vector<char>& body,
                                                       const Tavro8::http::HttpResponse& response) {
                          outcome->reply = lapi::judge(ec, response, body, expect);
                          outcome->done = true;
                      }));
    Tavro8::http::runUntil(context, outcome->done);
    if (!outcome->done)
        return failedToRun(make_error_code(Tavro8::ResultCode::unexpected));
    return std::move(outcome->reply);
} catch (const boost::system::system_error& e) {  // the system gave no context
    return failedToRun(e.code());
}

void TelemetryRequests::end() noexcept
{
    const std::lock_guard lock(mutex);
    ended = true;
    for (const auto& request : underWay)
        request->cancel();
}
}  // namespace Uniview
