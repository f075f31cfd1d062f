#include <utility>

#include "PushDevices.h"

#include "LoadRequests.h"

namespace kelvo::bench
{
std::string PushDevices::answer(const LocalDevice::Request& request)
{
    subscriptions += request.method == "POST" ? 1 : 0;
    if (request.path.starts_with("/LAPI/V1.0/System/Event/Subscription"))
        return succeeded(request.path, R"({"ID": "1"})");
    return managementReply(request.path, getPort(), getPort());
}
}  // namespace kelvo::bench
