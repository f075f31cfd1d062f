#pragma once

#include "http/HttpLimits.h"

#include <IpUtil/Http.h>
#include <memory>
#include <string>
#include <vector>

namespace Tavro8::http
{
/// Requests that run on the caller's thread, on an I/O context of their own, so that they wait for nobody else's.
/// One thread at a time; keeps its connection between requests.
class BlockingClient {
public:
    BlockingClient(ConnectionInfoPtr info, CancellationSource cancellation, const HttpLimits& limits = {});
    ~BlockingClient();
    BlockingClient(const BlockingClient&) = delete;
    BlockingClient& operator=(const BlockingClient&) = delete;

    std::shared_ptr<HttpResponse> get(const std::string& path, std::vector<char>* body);

private:
    const ConnectionInfoPtr info;
    const CancellationSource cancellation;
    const std::unique_ptr<boost::asio::io_context> context;
};
}  // namespace Tavro8::http
