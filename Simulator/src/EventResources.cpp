#include "EventResources.h"

#include "JsonMembers.h"
#include "LapiEnvelope.h"
#include "Log.h"
#include "Numbers.h"
#include "Replies.h"

#include <optional>
#include <string>
#include <variant>

namespace simulator
{
namespace
{

constexpr unsigned badRequestStatus = 400;

/// An identifier that does not exist, or no longer, is a path that does not exist.
Reply unknownSubscription()
{
    return unknownPath("Subscription does not exist");
}

Reply subscribe(DeviceEvents& events, const Call& call)
{
    const auto request = parseSubscription(call.body);
    if (const auto* const why = std::get_if<std::string>(&request))
        return invalidArguments(*why, badRequestStatus);
    const auto subscription = events.subscribe(std::get<SubscriptionRequest>(request), call.deviceAddress);
    if (!subscription)
        return {.status = 200, .code = 3, .text = "Too many subscriptions"};
    Reply reply;
    reply.data["ID"] = std::to_string(subscription->id);
    reply.data["Reference"] = events.reference(*subscription);
    reply.data["Duration"] = static_cast<Json::Int64>(std::get<SubscriptionRequest>(request).duration.count());
    return reply;
}

Reply renew(DeviceEvents& events, const Call& call)
{
    const auto duration = parseRenewal(call.body);
    if (const auto* const why = std::get_if<std::string>(&duration))
        return invalidArguments(*why, badRequestStatus);
    const std::string& id = call.captures.at(0);
    if (!events.renew(id, std::get<std::chrono::seconds>(duration)))
        return unknownSubscription();
    Reply reply;
    reply.data["ID"] = id;
    reply.data["Duration"] = static_cast<Json::Int64>(std::get<std::chrono::seconds>(duration).count());
    return reply;
}

Reply switchRelays(IoState& io, const Call& call)
{
    if (const auto why = io.switchRelays(call.body))
        return invalidArguments(*why);
    logLine("relays " + compactPrint(io.relayStates()));
    return {};
}

Reply pushed(std::size_t subscribers)
{
    Json::Value data(Json::objectValue);
    data["subscribers"] = static_cast<Json::UInt64>(subscribers);
    return withData(std::move(data));
}

Reply pushEvents(DeviceEvents& events, const Call& call)
{
    const auto json = parseJson(call.body);
    if (!json)
        return badRequest("the body is no JSON");
    const auto commands = parseEventCommands(*json);
    if (const auto* const why = std::get_if<std::string>(&commands))
        return badRequest(*why);
    std::size_t subscribers = 0;
    for (const EventCommand& command : std::get<std::vector<EventCommand>>(commands))
        subscribers = events.push(command);
    return pushed(subscribers);
}

std::optional<unsigned> inputIndex(const std::string& text, const IoState& io)
{
    const auto index = parseNumber(text);
    return index && *index < io.inputCount() ? index : std::nullopt;
}

Reply changeInput(DeviceEvents& events, const IoState& io, const Call& call)
{
    const auto index = inputIndex(call.captures.at(0), io);
    if (!index)
        return badRequest("there is no input '" + call.captures.at(0) + "'; they count from 0");
    const auto json = parseJson(call.body);
    if (!json)
        return badRequest("the body is no JSON");
    JsonMembers members(*json);
    bool state = false;
    members.require("state");
    members.read("state", state);
    members.refuseOthers();
    if (!members.problem().empty())
        return badRequest(members.problem());
    return pushed(events.changeInput(*index, state));
}

}  // namespace

void addEventResources(Router& router, DeviceEvents& events, IoState& io)
{
    constexpr auto one = "/LAPI/V1.0/System/Event/Subscription/{}";
    router.add("POST", "/LAPI/V1.0/System/Event/Subscription",
               [&events](const Call& call) { return subscribe(events, call); });
    router.add("PUT", one, [&events](const Call& call) { return renew(events, call); });
    router.add("DELETE", one, [&events](const Call& call) {
        return events.cancel(call.captures.at(0)) ? Reply{} : unknownSubscription();
    });
    router.add("GET", "/LAPI/V1.0/IO/InputSwitches/BasicInfos",
               [&io](const Call&) { return withData(io.inputInformation()); });
    router.add("GET", "/LAPI/V1.0/IO/OutputSwitches/BasicInfos",
               [&io](const Call&) { return withData(io.relayInformation()); });
    router.add("PUT", "/LAPI/V1.0/IO/OutputSwitches/ManualAlarm",
               [&io](const Call& call) { return switchRelays(io, call); });
}

void addEventAdministration(Router& router, DeviceEvents& events, const IoState& io)
{
    router.add("POST", "/simulator/events", [&events](const Call& call) { return pushEvents(events, call); });
    router.add("POST", "/simulator/inputs/{}",
               [&events, &io](const Call& call) { return changeInput(events, io, call); });
    router.add("DELETE", "/simulator/subscriptions", [&events](const Call&) {
        events.forgetSubscriptions();
        return Reply{};
    });
}

}  // namespace simulator
