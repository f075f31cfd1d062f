#include <IpUtil/Logger.h>
#include <string>
#include <utility>

namespace Tavro8
{
namespace
{
class NamedLogger final : public ILogger, public LoggerDetail::LoggerDecoratorMarker {
public:
    NamedLogger(ILogger* wrapped, const std::string& name) : wrapped(wrapped), prefix(name + ": ") {}

    void* FindContract(const char* name) noexcept override { return findContractIn<ILogger, IContract>(this, name); }
    LogSeverity GetLevel() const noexcept override
    {
        return wrapped != nullptr ? wrapped->GetLevel() : LogSeverity::error;
    }
    void Log(LogSeverity severity, const char* function, const char* file, int line,
             const char* message) noexcept override
    try {
        if (wrapped != nullptr)
            wrapped->Log(severity, function, file, line, (prefix + message).c_str());
    } catch (...) {  // no memory for the longer text: the bare message is better than none
        wrapped->Log(severity, function, file, line, message);
    }
    void Destroy() noexcept override { delete this; }

private:
    ILogger* const wrapped;
    const std::string prefix;
};
}  // namespace

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

LoggerOwner makeNamedLogger(ILogger* wrapped, const std::string& name)
{
    return {new NamedLogger(wrapped, name), LoggerOwner::Ownership::owned};
}
}  // namespace LoggerDetail
}  // namespace Tavro8
