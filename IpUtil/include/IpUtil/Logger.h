#pragma once

#include <IpUtil/ConnectionInfo.h>
#include <IpUtil/Export.h>
#include <Tavro8/ILogger.h>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace Tavro8
{
namespace GDRV
{
class ILoggingContext;
}

/// Holds a logger, its own or somebody else's, and destroys it when it owns it.
class IPUTIL_API LoggerOwner {
public:
    enum class Ownership { borrowed, owned };

    LoggerOwner() noexcept = default;
    LoggerOwner(ILogger* logger, Ownership ownership) noexcept;
    LoggerOwner(LoggerOwner&& other) noexcept;
    LoggerOwner& operator=(LoggerOwner&& other) noexcept;
    ~LoggerOwner();

    ILogger* get() const noexcept { return logger; }

private:
    ILogger* logger = nullptr;
    Ownership ownership = Ownership::borrowed;
};

namespace LoggerDetail
{
/// Marks loggers that wrap another one.
class LoggerDecoratorMarker {
public:
    virtual ~LoggerDecoratorMarker() = default;
};

/// Decorates with the endpoint of a device: `[192.0.2.10:80] `.
struct TraitsConnectionInfo {
    using Value = std::shared_ptr<const asio::ConnectionInfo>;
    static IPUTIL_API std::string prefix(const Value& value);
};

/// Puts a prefix in front of each message and passes it on. Held by shared ownership; the wrapped logger is not
/// owned and must outlive it. Thread-safe: the value may change while others log.
template <typename Traits>
class LoggerDecorator final : public ILogger, public LoggerDecoratorMarker {
public:
    explicit LoggerDecorator(ILogger* wrapped) noexcept : wrapped(wrapped) {}

    /// Messages logged from now on carry the prefix of `value`.
    void setValue(const typename Traits::Value& value)
    {
        auto text = std::make_shared<const std::string>(Traits::prefix(value));
        const std::lock_guard lock(mutex);
        prefix = std::move(text);
    }

    void* FindContract(const char* name) noexcept override { return findContractIn<ILogger, IContract>(this, name); }
    LogSeverity GetLevel() const noexcept override
    {
        return wrapped != nullptr ? wrapped->GetLevel() : LogSeverity::error;
    }
    void Log(LogSeverity severity, const char* function, const char* file, int line,
             const char* message) noexcept override
    try {
        if (wrapped == nullptr)
            return;
        const auto text = currentPrefix();
        wrapped->Log(severity, function, file, line, text == nullptr ? message : (*text + message).c_str());
    } catch (...) {  // no memory for the longer text: the bare message is better than none
        wrapped->Log(severity, function, file, line, message);
    }
    void Destroy() noexcept override {}  // shared ownership decides

private:
    std::shared_ptr<const std::string> currentPrefix() const
    {
        const std::lock_guard lock(mutex);
        return prefix;
    }

    ILogger* const wrapped;
    mutable std::mutex mutex;  // guards `prefix`
    std::shared_ptr<const std::string> prefix;
};

/// Makes a logger that puts `name` and ": " in front of each message and passes it on to `wrapped`, which may be null
/// and must outlive the logger. Thread-safe as `wrapped` is.
IPUTIL_API LoggerOwner makeNamedLogger(ILogger* wrapped, const std::string& name);

/// Folds messages that repeat: the first of a kind passes, then every `count`-th. Thread-safe. Knows a bounded
/// number of messages and forgets the one that was quiet longest.
class IPUTIL_API LogCollapserMaker {
public:
    /// 0 when the message is to be suppressed; otherwise how many times it came since it was last let through,
    /// this time included: 1 the first time, `count` afterwards.
    std::uint32_t collapse(std::string_view message, std::uint32_t count);
    /// The same, except that nothing is forgotten: once `maxTexts` messages are known, new ones are counted together
    /// under `place`, one of a few. For texts with numbers that somebody else invents.
    std::uint32_t collapse(std::string_view message, std::uint32_t count, const std::string& place,
                           std::size_t maxTexts);

    /// Forgets everything: what comes next is new again.
    void forget();

private:
    struct Entry {
        std::uint32_t pending = 0;
        std::uint64_t lastUse = 0;
    };
    std::uint32_t repeat(Entry& entry, std::uint32_t count) noexcept;  // under `mutex`

    std::mutex mutex;  // guards all below
    std::unordered_map<std::string, Entry> entries;
    std::unordered_map<std::string, Entry> places;  // as many as the code has
    std::uint64_t clock = 0;
};

/// Passes lines on and folds the warnings and errors that repeat: the first passes as it is, then every fiftieth with
/// "[collapsed 50]" in front. For what is tried again and again against a device that is down, and for what a device
/// sends that is wrong. Different texts count by themselves; when there are more than `maxTexts`, the new ones count
/// together for each place in the code that writes them. Thread-safe.
class IPUTIL_API CollapsingLogger final : public ILogger, public LoggerDetail::LoggerDecoratorMarker {
public:
    static constexpr std::uint32_t collapseCount = 50;
    /// More different failures than a device produces by itself; what goes beyond is made of changing numbers.
    static constexpr std::size_t maxTexts = 32;

    /// `keep` is held as long as the logger: whatever must outlive its lines, such as the owner of `wrapped`.
    explicit CollapsingLogger(ILogger* wrapped, std::shared_ptr<void> keep = {}) noexcept
        : wrapped(wrapped), keep(std::move(keep))
    {}

    /// What repeated has ended: a failure that comes next is logged again.
    void forget() { collapser.forget(); }

    void* FindContract(const char* name) noexcept override { return findContractIn<ILogger, IContract>(this, name); }
    LogSeverity GetLevel() const noexcept override;
    void Log(LogSeverity severity, const char* function, const char* file, int line,
             const char* message) noexcept override;
    void Destroy() noexcept override {}  // shared ownership decides

private:
    ILogger* const wrapped;
    const std::shared_ptr<void> keep;
    LogCollapserMaker collapser;
};

/// Size of the log file at which a new one is begun, and how many old ones are kept.
inline constexpr std::size_t logFileBytes = 10U * 1024U * 1024U;
inline constexpr std::size_t logFilesKept = 5;

/// Makes the logger of a module: lines go to the host's logger and, when the host names a log file, also to that
/// file, rotated by size. `context` must outlive the logger. A file that cannot be opened is reported through the
/// host's logger and otherwise ignored. The caller owns the result and releases it with `Destroy`; never null.
IPUTIL_API ILogger* initFileLogger(GDRV::ILoggingContext* context);
}  // namespace LoggerDetail
}  // namespace Tavro8
