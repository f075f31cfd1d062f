#include <IpUtil/Logger.h>
#include <utility>

namespace Tavro8
{
LoggerOwner::LoggerOwner(ILogger* logger, Ownership ownership) noexcept : logger(logger), ownership(ownership) {}

LoggerOwner::LoggerOwner(LoggerOwner&& other) noexcept
    : logger(std::exchange(other.logger, nullptr)), ownership(std::exchange(other.ownership, Ownership::borrowed))
{}

LoggerOwner& LoggerOwner::operator=(LoggerOwner&& other) noexcept
{
    LoggerOwner moved(std::move(other));  // also makes an assignment to itself harmless
    std::swap(logger, moved.logger);
    std::swap(ownership, moved.ownership);
    return *this;
}

LoggerOwner::~LoggerOwner()
{
    if (logger != nullptr && ownership == Ownership::owned)
        logger->Destroy();
}

namespace LoggerDetail
{
std::string TraitsConnectionInfo::prefix(const Value& value)
{
    std::string text;
    if (value != nullptr)
        text.append("[").append(asio::describeEndpoint(*value)).append("] ");
    return text;
}
}  // namespace LoggerDetail
}  // namespace Tavro8
