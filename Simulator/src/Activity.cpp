#include "Activity.h"

#include "Log.h"

#include <chrono>
#include <utility>

namespace simulator
{
namespace
{

constexpr std::size_t maximumLogLength = 1000;
constexpr std::size_t maximumBodyInLog = 4096;
constexpr std::size_t maximumPaths = 1000;  // a port scanner must not fill the memory

std::string withoutQuery(const std::string& target)
{
    return target.substr(0, target.find('?'));
}

}  // namespace

void Activity::record(RequestRecord request)
{
    const std::string name = request.method + ' ' + withoutQuery(request.target);
    if (requestCounts.size() < maximumPaths || requestCounts.contains(name))
        ++requestCounts[name];
    ++statusCounts[request.status];
    logLine(request.peer + ' ' + request.method + ' ' + request.target + ' ' + std::to_string(request.status) +
            (request.remark.empty() ? "" : " (" + request.remark + ")"));

    if (request.body.size() > maximumBodyInLog)
        request.body.resize(maximumBodyInLog);
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    log.push_back({std::chrono::duration_cast<std::chrono::milliseconds>(now).count(), std::move(request)});
    if (log.size() > maximumLogLength)
        log.pop_front();
}

void Activity::clear()
{
    *this = {};
}

Json::Value Activity::counters() const
{
    Json::Value out(Json::objectValue);
    out["connections"] = connections;
    out["rejectedConnections"] = rejectedConnections;
    out["requests"] = Json::Value(Json::objectValue);
    for (const auto& [name, count] : requestCounts)
        out["requests"][name] = count;
    out["statuses"] = Json::Value(Json::objectValue);
    for (const auto& [status, count] : statusCounts)
        out["statuses"][std::to_string(status)] = count;
    return out;
}

Json::Value Activity::requests() const
{
    Json::Value list(Json::arrayValue);
    for (const auto& [timeMs, request] : log) {
        Json::Value entry(Json::objectValue);
        entry["time"] = static_cast<Json::Int64>(timeMs);
        entry["peer"] = request.peer;
        entry["method"] = request.method;
        entry["target"] = request.target;
        entry["scheme"] = request.scheme;
        entry["body"] = request.body;
        entry["status"] = request.status;
        entry["remark"] = request.remark;
        list.append(entry);
    }
    return list;
}

}  // namespace simulator
