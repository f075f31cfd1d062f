#pragma once

#include <IpUtil/ConnectionPolicy.h>
#include <chrono>
#include <cstdint>
#include <json/value.h>
#include <optional>
#include <string>

/// What is said to a device about its notifications, and what it answers. Owns no socket and no timer.
namespace Uniview::subscription
{
inline constexpr const char* path = "/LAPI/V1.0/System/Event/Subscription";
inline constexpr int durationSeconds = 60;  ///< after which the device forgets a subscription that is not renewed

/// The path of one subscription.
std::string pathOf(const std::string& id);

/// Asks the device to send to `serverIp` and `serverPort`. The type of the address is always 0, also for IPv6.
std::string subscribeBody(const std::string& serverIp, std::uint16_t serverPort);
std::string renewBody();

/// "Response"."Data" of a reply that was parsed, or null when it is missing or the document has another shape.
const Json::Value& dataOf(const Json::Value& reply);
/// The ID that the device gave a new subscription: a text, nothing else will do.
std::optional<std::string> idOf(const Json::Value& reply);

/// How long the next repeat of a subscription waits while it keeps failing: the first goes at once, for it is what
/// revives a device that has been restarted; those behind it would otherwise follow each other as fast as the device
/// refuses them.
class RepeatPace {
public:
    RepeatPace(std::chrono::milliseconds first, std::chrono::milliseconds longest) noexcept : pauses(first, longest) {}

    std::chrono::milliseconds next() noexcept;
    void reset() noexcept;

private:
    Tavro8::Utility::Backoff pauses;
    bool failing = false;
};
}  // namespace Uniview::subscription
