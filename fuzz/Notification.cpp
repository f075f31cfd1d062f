#include "FuzzTarget.h"

#include "EventNames.h"
#include "EventSubscriber.h"
#include "Lapi.h"
#include "Notification.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace Tavro8::fuzz
{
namespace
{
namespace events = Uniview::events;

/// Keeps the lines that it is given.
class Lines final : public ILogger {
public:
    void* FindContract(const char*) noexcept override { return nullptr; }
    LogSeverity GetLevel() const noexcept override { return LogSeverity::debug; }
    void Log(LogSeverity severity, const char*, const char*, int, const char* message) noexcept override
    {
        require(severity == LogSeverity::error, "what is dropped is an error");
        messages.emplace_back(message);
    }
    void Destroy() noexcept override {}

    std::vector<std::string> messages;
};

class Subscriber final : public Uniview::IEventSubscriber {
public:
    explicit Subscriber(bool claims) : claims(claims) {}

    bool handleTriggerInfo(const Json::Value& alarmInfo) override
    {
        offered.push_back(alarmInfo);
        return claims;
    }

    const bool claims;
    std::vector<Json::Value> offered;
};

/// True when the chunk could be taken apart at all.
bool deliver(std::string_view chunk, const std::vector<Subscriber*>& subscribers, const LoggerHelper& logger)
{
    try {
        Uniview::notification::deliver(chunk, subscribers, logger);
    } catch (const std::out_of_range& e) {
        require(e.what() == std::string("string_view::substr"), "the exception has its text");
        return false;
    }
    return true;
}

/// What plain reading finds in the chunk; null when there is no event.
Json::Value eventOf(std::string_view chunk)
{
    Json::Value document;
    std::string error;
    if (!Uniview::lapi::parseJson(chunk.substr(chunk.find('{')), document, error))
        return {};
    return document[events::alarmInfo];
}

/// A byte of bits that say which of eight subscribers claim events, then one chunk as a connection brings it.
///
/// Promises: only a chunk without '{' throws, and only the prescribed exception; each subscriber up to the first that
/// claims is offered the event once, as it was sent, and no other is; a chunk is either delivered or has one line in
/// the log that says why not.
void feed(ByteView input)
{
    Script script(input);
    const std::uint8_t claims = script.u8();
    const Bytes bytes = script.remaining();
    const std::string_view chunk = textOf(bytes);

    std::vector<Subscriber> subscribers;
    for (unsigned i = 0; i < 8; ++i)
        subscribers.emplace_back((claims >> i & 1U) != 0);
    std::vector<Subscriber*> pointers;
    for (Subscriber& subscriber : subscribers)
        pointers.push_back(&subscriber);
    Lines lines;
    const bool taken = deliver(chunk, pointers, LoggerHelper(&lines, "fuzz"));

    const bool hasBrace = chunk.find('{') != std::string_view::npos;
    require(taken == hasBrace, "a chunk without a brace throws, and no other");
    const Json::Value event = hasBrace ? eventOf(chunk) : Json::Value();
    require(lines.messages.size() == (hasBrace && event.isNull() ? 1U : 0U), "what is dropped has one line");
    bool claimed = event.isNull();
    for (const Subscriber& subscriber : subscribers) {
        require(subscriber.offered.size() == (claimed ? 0U : 1U), "one after the other is asked until one claims");
        require(claimed || subscriber.offered.front() == event, "the event is offered as it was sent");
        claimed = claimed || subscriber.claims;
    }
}

const Target notificationTarget("notification", feed);
}  // namespace
}  // namespace Tavro8::fuzz
