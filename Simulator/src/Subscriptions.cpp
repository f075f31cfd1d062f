#include <utility>  // ahead of Asio, which forgets it

#include "Subscriptions.h"

#include "JsonMembers.h"
#include "LapiEnvelope.h"

#include <boost/asio/ip/address.hpp>

#include <algorithm>

namespace simulator
{
namespace
{

constexpr std::int64_t longestDuration = 86'400;  // seconds
constexpr const char* noJson = "the body is no JSON";

bool canReceive(const std::string& address)
{
    boost::system::error_code error;
    const auto parsed = boost::asio::ip::make_address(address, error);
    return !error && !parsed.is_unspecified() && !parsed.is_multicast();
}

void readDuration(JsonMembers& members, std::chrono::seconds& duration)
{
    members.require("Duration");
    members.read("Duration", 1, longestDuration, duration);
}

}  // namespace

std::variant<SubscriptionRequest, std::string> parseSubscription(std::string_view body)
{
    const auto json = parseJson(body);
    if (!json)
        return noJson;
    SubscriptionRequest request;
    JsonMembers members(*json);
    unsigned addressType = 0;
    for (const char* name : {"AddressType", "IPAddress", "Port"})
        members.require(name);
    members.read("AddressType", 0, 1, addressType);
    if (members.read("IPAddress", request.address) && !canReceive(request.address))
        members.refuse("\"IPAddress\" is no address of a receiver");
    members.read("Port", 1, 65'535, request.port);
    readDuration(members, request.duration);
    if (!members.problem().empty())
        return members.problem();
    return request;
}

std::variant<std::chrono::seconds, std::string> parseRenewal(std::string_view body)
{
    const auto json = parseJson(body);
    if (!json)
        return noJson;
    std::chrono::seconds duration{0};
    JsonMembers members(*json);
    readDuration(members, duration);
    if (!members.problem().empty())
        return members.problem();
    return duration;
}

std::optional<Subscription> Subscriptions::add(const SubscriptionRequest& request, const std::string& deviceAddress,
                                               Clock::time_point now)
{
    if (subscriptions.size() >= most)
        return std::nullopt;
    ++counts.subscribed;
    const unsigned id = ++lastId;
    return subscriptions[id] = {.id = id,
                                .address = request.address,
                                .port = request.port,
                                .deviceAddress = deviceAddress,
                                .end = now + request.duration};
}

bool Subscriptions::renew(std::string_view id, std::chrono::seconds duration, Clock::time_point now)
{
    const auto found = findLiving(id, now);
    if (found == subscriptions.end())
        return false;
    ++counts.renewed;
    found->second.end = now + duration;
    return true;
}

std::optional<unsigned> Subscriptions::cancel(std::string_view id, Clock::time_point now)
{
    const auto found = findLiving(id, now);
    if (found == subscriptions.end())
        return std::nullopt;
    ++counts.cancelled;
    const unsigned number = found->first;
    subscriptions.erase(found);
    return number;
}

std::vector<unsigned> Subscriptions::expire(Clock::time_point now)
{
    std::vector<unsigned> expired;
    for (const auto& [id, subscription] : subscriptions)
        if (subscription.end <= now)
            expired.push_back(id);
    for (const unsigned id : expired)
        subscriptions.erase(id);
    counts.expired += static_cast<unsigned>(expired.size());
    return expired;
}

std::optional<Subscriptions::Clock::time_point> Subscriptions::nextEnd() const
{
    std::optional<Clock::time_point> next;
    for (const auto& [id, subscription] : subscriptions)
        next = std::min(next.value_or(subscription.end), subscription.end);
    return next;
}

std::vector<Subscription> Subscriptions::list() const
{
    std::vector<Subscription> all;
    for (const auto& [id, subscription] : subscriptions)
        all.push_back(subscription);
    return all;
}

void Subscriptions::countPush(unsigned id, bool delivered)
{
    ++(delivered ? counts.delivered : counts.failed);
    if (const auto found = subscriptions.find(id); found != subscriptions.end())
        ++(delivered ? found->second.delivered : found->second.failed);
}

Json::Value Subscriptions::listing(Clock::time_point now) const
{
    Json::Value all(Json::arrayValue);
    for (const auto& [id, subscription] : subscriptions) {
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(subscription.end - now);
        Json::Value entry(Json::objectValue);
        entry["id"] = std::to_string(id);
        entry["address"] = subscription.address;
        entry["port"] = subscription.port;
        entry["deviceAddress"] = subscription.deviceAddress;
        entry["remainingMs"] = static_cast<Json::Int64>(remaining.count());
        entry["delivered"] = subscription.delivered;
        entry["failed"] = subscription.failed;
        all.append(entry);
    }
    return all;
}

Json::Value Subscriptions::counters() const
{
    Json::Value out(Json::objectValue);
    out["subscribed"] = counts.subscribed;
    out["renewed"] = counts.renewed;
    out["cancelled"] = counts.cancelled;
    out["expired"] = counts.expired;
    out["delivered"] = counts.delivered;
    out["failed"] = counts.failed;
    return out;
}

Subscriptions::ById::iterator Subscriptions::findLiving(std::string_view id, Clock::time_point now)
{
    // Compared as texts: "01" is another identifier than "1".
    return std::ranges::find_if(
        subscriptions, [&](const auto& entry) { return std::to_string(entry.first) == id && entry.second.end > now; });
}

}  // namespace simulator
