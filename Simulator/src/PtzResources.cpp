#include "PtzResources.h"

#include "ChannelRoute.h"
#include "Numbers.h"
#include "Replies.h"

#include <functional>
#include <initializer_list>
#include <utility>

namespace simulator
{
namespace
{

/// What is done with the head of the channel that a request names.
using Act = std::function<Reply(const Call&, PtzHead&, PtzTime)>;

Reply done(const std::optional<std::string>& why = std::nullopt)
{
    return why ? invalidArguments(*why) : Reply{};
}

/// Hands what `parse` makes of the body to a member function of the head.
template <typename Request>
Act command(std::variant<Request, std::string> (*parse)(std::string_view),
            void (PtzHead::*obey)(const Request&, PtzTime))
{
    return [parse, obey](const Call& call, PtzHead& head, PtzTime now) {
        const auto request = parse(call.body);
        if (const auto* const why = std::get_if<std::string>(&request))
            return invalidArguments(*why);
        (head.*obey)(std::get<Request>(request), now);
        return Reply{};
    };
}

Act area(PtzAreaZoom direction)
{
    return [direction](const Call& call, PtzHead& head, PtzTime now) {
        const auto request = parsePtzArea(call.body, direction);
        if (const auto* const why = std::get_if<std::string>(&request))
            return invalidArguments(*why);
        head.show(std::get<PtzArea>(request), now);
        return Reply{};
    };
}

/// The number that the path ends in, or has before its last element.
std::optional<unsigned> numberIn(const Call& call)
{
    return call.captures.size() > 1 ? parseNumber(call.captures[1]) : std::nullopt;
}

/// Runs `act` with the number in the path if `known` says that the head has it.
template <typename NumberAct>
Act numbered(bool (PtzHead::*known)(unsigned) const, NumberAct act)
{
    return [known, act](const Call& call, PtzHead& head, PtzTime now) {
        const auto id = numberIn(call);
        return id && (head.*known)(*id) ? act(head, *id, now) : unknownPath("Number does not exist");
    };
}

/// Whether a request may make what is not there, and replace what is.
enum class Store { create, replace, either };

/// Why something of this number may not be stored so; nothing when it may.
std::optional<std::string> refusal(Store manner, bool exists, const std::optional<unsigned>& numberInPath, unsigned id)
{
    if (numberInPath && *numberInPath != id)
        return "\"ID\" is not the number of the path";
    if (manner == Store::create && exists)
        return "the number exists already";
    if (manner == Store::replace && !exists)
        return "the number does not exist";
    return std::nullopt;
}

Act storePreset(Store manner)
{
    return [manner](const Call& call, PtzHead& head, PtzTime now) {
        const auto request = parsePtzPreset(call.body);
        if (const auto* const why = std::get_if<std::string>(&request))
            return invalidArguments(*why);
        const auto& preset = std::get<PtzPreset>(request);
        if (const auto why = refusal(manner, head.hasPreset(preset.id), numberIn(call), preset.id))
            return invalidArguments(*why);
        head.storePreset(preset, now);
        return Reply{};
    };
}

Act storePatrol(Store manner)
{
    return [manner](const Call& call, PtzHead& head, PtzTime) {
        auto request = parsePtzPatrol(call.body);
        if (const auto* const why = std::get_if<std::string>(&request))
            return invalidArguments(*why);
        auto& patrol = std::get<PtzPatrol>(request);
        if (const auto why = refusal(manner, head.hasPatrol(patrol.id), numberIn(call), patrol.id))
            return invalidArguments(*why);
        return done(head.storePatrol(std::move(patrol)));
    };
}

/// Adds the resources below ".../PTZ/" of each channel.
class PtzRoutes {
public:
    PtzRoutes(Router& routerToUse, const DeviceState& stateToUse, PtzHeads& headsToUse)
        : router(routerToUse), state(stateToUse), heads(headsToUse)
    {}

    void get(const std::string& resource, Json::Value (PtzHead::*information)(PtzTime) const)
    {
        add("GET", resource, {plural},
            [information](const Call&, PtzHead& head, PtzTime now) { return withData((head.*information)(now)); });
    }
    void get(const std::string& resource, Json::Value (PtzHead::*information)() const)
    {
        add("GET", resource, {plural},
            [information](const Call&, PtzHead& head, PtzTime) { return withData((head.*information)()); });
    }
    /// A command under the form of path that all devices know.
    void order(const std::string& method, const std::string& resource, const Act& act)
    {
        add(method, resource, {plural}, counted(act));
    }
    /// One that cameras know under the singular and recorders under the plural; either is taken.
    void orderOfBothForms(const std::string& method, const std::string& resource, const Act& act)
    {
        add(method, resource, {plural, singular}, counted(act));
    }

private:
    static constexpr const char* plural = "/LAPI/V1.0/Channels/{}/PTZ/";
    static constexpr const char* singular = "/LAPI/V1.0/Channel/{}/PTZ/";

    /// Lets the head remember what it has obeyed, as the path and the body say it.
    static Act counted(const Act& act)
    {
        return [act](const Call& call, PtzHead& head, PtzTime now) {
            Reply reply = act(call, head, now);
            if (reply.code == 0)
                head.count(call.method + ' ' + call.path.substr(call.path.find("/PTZ/") + 1) +
                           (call.body.empty() ? "" : ' ' + call.body));
            return reply;
        };
    }

    void add(const std::string& method, const std::string& resource, std::initializer_list<const char*> forms,
             const Act& act)
    {
        for (const char* const form : forms)
            router.add(method, form + resource,
                       forChannel(state, [&heads = heads, act](const Call& call, unsigned channel) {
                           return heads.with(channel, [&](PtzHead& head, PtzTime now) { return act(call, head, now); });
                       }));
    }

    Router& router;
    const DeviceState& state;
    PtzHeads& heads;
};

void addMovement(PtzRoutes& routes)
{
    routes.orderOfBothForms("PUT", "PTZCtrl", command(parsePtzDrive, &PtzHead::drive));
    routes.get("AbsoluteMove", &PtzHead::moveInformation);
    routes.order("PUT", "AbsoluteMove", command(parsePtzAbsoluteMove, &PtzHead::goTo));
    routes.get("AbsoluteZoom", &PtzHead::zoomInformation);
    routes.order("PUT", "AbsoluteZoom", command(parsePtzAbsoluteZoom, &PtzHead::zoomTo));
    routes.order("PUT", "AreaZoomIn", area(PtzAreaZoom::in));
    routes.order("PUT", "AreaZoomOut", area(PtzAreaZoom::out));
}

void addPresets(PtzRoutes& routes, bool recorder)
{
    // A camera tells a new preset from an old one; a recorder takes each for either.
    const Store put = recorder ? Store::either : Store::replace;
    routes.get("Presets", &PtzHead::presetInformation);
    routes.order("POST", "Presets", storePreset(Store::create));
    routes.order("PUT", "Presets", storePreset(put));
    routes.order("PUT", "Presets/{}", storePreset(put));
    routes.orderOfBothForms("PUT", "Presets/{}/goto",
                            numbered(&PtzHead::hasPreset, [](PtzHead& head, unsigned id, PtzTime now) {
                                head.goToPreset(id, now);
                                return Reply{};
                            }));
    routes.orderOfBothForms("DELETE", "Presets/{}",
                            numbered(&PtzHead::hasPreset, [](PtzHead& head, unsigned id, PtzTime) {
                                head.removePreset(id);
                                return Reply{};
                            }));
}

void addPatrols(PtzRoutes& routes, bool recorder)
{
    routes.get("Patrols", &PtzHead::patrolInformation);
    routes.order("POST", "Patrols", storePatrol(Store::create));
    routes.order("PUT", "Patrols/{}", storePatrol(recorder ? Store::either : Store::replace));
    routes.order("PUT", "Patrols/{}/Start", numbered(&PtzHead::hasPatrol, [](PtzHead& head, unsigned id, PtzTime now) {
                     return done(head.startPatrol(id, now));
                 }));
    routes.order("PUT", "Patrols/{}/Stop", numbered(&PtzHead::hasPatrol, [](PtzHead& head, unsigned id, PtzTime now) {
                     head.stopPatrol(id, now);
                     return Reply{};
                 }));
}

}  // namespace

void addPtzResources(Router& router, const DeviceState& state, PtzHeads& heads)
{
    PtzRoutes routes(router, state, heads);
    const bool recorder = state.kind() == Kind::recorder;
    addMovement(routes);
    addPresets(routes, recorder);
    addPatrols(routes, recorder);
}

}  // namespace simulator
