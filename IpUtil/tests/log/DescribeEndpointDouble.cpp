#include <IpUtil/ConnectionInfo.h>

namespace Tavro8::asio
{
std::string describeEndpoint(const ConnectionInfo& info)
{
    return info.host + ":" + std::to_string(info.port);
}
}  // namespace Tavro8::asio
