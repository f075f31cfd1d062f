#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace simulator
{

/// What a client asks for: where notifications go, and for how long.
struct SubscriptionRequest {
    std::string address;  ///< IPv4 or IPv6, whatever "AddressType" says: clients send 0 with either
    std::uint16_t port = 0;
    std::chrono::seconds duration{0};
};

/// Reads the body of a subscription; the other alternative says what is wrong with it.
std::variant<SubscriptionRequest, std::string> parseSubscription(std::string_view body);

/// Reads the body of a renewal: the new lifetime.
std::variant<std::chrono::seconds, std::string> parseRenewal(std::string_view body);

struct Subscription {
    unsigned id = 0;
    std::string address;  ///< of the receiver
    std::uint16_t port = 0;
    std::string deviceAddress;  ///< by which the client reached the device, and which its notifications come from
    std::chrono::steady_clock::time_point end;
    unsigned delivered = 0;
    unsigned failed = 0;
};

/// Who is told of events, until when, and what has become of the notifications. The I/O context is the only one to
/// use it.
class Subscriptions {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t most = 64;

    /// Nothing when there are too many already. A receiver may have several, and is told once for each.
    std::optional<Subscription> add(const SubscriptionRequest& request, const std::string& deviceAddress,
                                    Clock::time_point now);
    /// False when there is no such subscription, or none any more.
    bool renew(std::string_view id, std::chrono::seconds duration, Clock::time_point now);
    /// Returns its number; nothing as above.
    std::optional<unsigned> cancel(std::string_view id, Clock::time_point now);
    /// Removes those whose time is over and returns their numbers.
    std::vector<unsigned> expire(Clock::time_point now);
    /// As a restart of the device does.
    void forgetAll() { subscriptions.clear(); }

    std::optional<Clock::time_point> nextEnd() const;
    std::vector<Subscription> list() const;
    bool empty() const { return subscriptions.empty(); }

    /// Also counts those of subscriptions that have ended meanwhile.
    void countPush(unsigned id, bool delivered);

    Json::Value listing(Clock::time_point now) const;
    Json::Value counters() const;
    void clearCounters() { counts = {}; }

private:
    struct Counts {
        unsigned subscribed = 0;
        unsigned renewed = 0;
        unsigned cancelled = 0;
        unsigned expired = 0;
        unsigned delivered = 0;
        unsigned failed = 0;
    };
    using ById = std::map<unsigned, Subscription>;
    ById::iterator findLiving(std::string_view id, Clock::time_point now);

    ById subscriptions;
    unsigned lastId = 0;
    Counts counts;
};

}  // namespace simulator
