#include "ReplayBoard.h"

namespace simulator
{
namespace
{

constexpr std::size_t replaysKept = 100;

Json::Value describe(const ReplayStatus& status)
{
    Json::Value out(Json::objectValue);
    out["channel"] = status.channel;
    out["begin"] = status.begin;
    out["end"] = status.end;
    out["state"] = status.state;
    out["scale"] = status.scale;
    out["keyFramesOnly"] = status.keyFramesOnly;
    out["timeMs"] = static_cast<Json::Int64>(status.timeMs);
    out["ends"] = status.ends;
    out["plays"] = status.plays;
    out["frames"] = static_cast<Json::UInt64>(status.frames);
    out["packets"] = static_cast<Json::UInt64>(status.packets);
    return out;
}

}  // namespace

void ReplayBoard::countConnection()
{
    const std::lock_guard lock(mutex);
    ++connections;
}

void ReplayBoard::countRequest(const std::string& method)
{
    const std::lock_guard lock(mutex);
    ++requests[method];
}

void ReplayBoard::update(std::uint64_t replay, const ReplayStatus& status)
{
    const std::lock_guard lock(mutex);
    known[replay] = status;
    if (known.size() > replaysKept)
        known.erase(known.begin());
}

void ReplayBoard::clearCounters()
{
    const std::lock_guard lock(mutex);
    requests.clear();
    connections = 0;
}

Json::Value ReplayBoard::replays() const
{
    const std::lock_guard lock(mutex);
    Json::Value out(Json::arrayValue);
    for (const auto& [replay, status] : known)
        out.append(describe(status));
    return out;
}

Json::Value ReplayBoard::counters() const
{
    const std::lock_guard lock(mutex);
    Json::Value out(Json::objectValue);
    out["connections"] = connections;
    out["requests"] = Json::Value(Json::objectValue);
    for (const auto& [method, count] : requests)
        out["requests"][method] = count;
    return out;
}

}  // namespace simulator
