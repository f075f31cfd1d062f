#include "RecordResources.h"

#include "ChannelRoute.h"
#include "Numbers.h"
#include "Replies.h"

#include <map>
#include <string>
#include <string_view>

namespace simulator
{
namespace
{

constexpr std::uint32_t usualLimit = 100;
constexpr std::uint32_t highestLimit = 1000;

/// The numbers of a query "Begin=1&End=2"; nothing when a value is none or a name comes twice.
using Numbers = std::map<std::string, std::uint32_t, std::less<>>;

std::optional<Numbers> readQuery(std::string_view query)
{
    Numbers numbers;
    while (!query.empty()) {
        const std::string_view part = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(part.size() + 1, query.size()));
        const auto equals = part.find('=');
        const auto value = parseNumber(equals == part.npos ? "" : part.substr(equals + 1));
        if (!value || !numbers.emplace(part.substr(0, equals), *value).second)
            return std::nullopt;
    }
    return numbers;
}

std::optional<Archive::Search> readSearch(unsigned channel, std::string_view query)
{
    const auto numbers = readQuery(query);
    if (!numbers)
        return std::nullopt;
    const auto number = [&](std::string_view name, std::uint32_t otherwise) {
        const auto found = numbers->find(name);
        return found == numbers->end() ? otherwise : found->second;
    };
    const Archive::Search search{
        channel, {number("Begin", 0), number("End", UINT32_MAX)}, number("Offset", 0), number("Limit", usualLimit)};
    if (search.interval.begin > search.interval.end || search.limit == 0 || search.limit > highestLimit)
        return std::nullopt;
    return search;
}

Json::Value describe(const RecordedSpan& record, bool reversed)
{
    Json::Value out(Json::objectValue);
    out["Begin"] = reversed ? record.end : record.begin;
    out["End"] = reversed ? record.begin : record.end;
    out["Type"] = 0;
    return out;
}

/// The page as the faults in force have it.
Json::Value describe(const RecordList::Page& page, std::uint32_t offset, const FaultTable& faults,
                     const std::string& request)
{
    const auto stall = faults.find(FaultKind::recordsStall, request);
    const bool told = !stall || offset < stall->argument;
    Json::Value data(Json::objectValue);
    Json::Value& infos = data["RecordInfos"] = Json::Value(Json::arrayValue);
    if (told)
        for (const RecordedSpan& record : page.records)
            infos.append(describe(record, faults.find(FaultKind::recordsReversed, request).has_value()));
    data["Nums"] = infos.size();
    data["Total"] = static_cast<Json::UInt>(page.total);
    data["Offset"] = offset;
    if (const auto total = faults.find(FaultKind::recordsTotal, request))
        data["Total"] = total->argument;
    if (faults.find(FaultKind::recordsNoArray, request))
        infos = Json::Value(Json::objectValue);
    if (faults.find(FaultKind::recordsNoList, request))
        data.removeMember("RecordInfos");
    return data;
}

}  // namespace

void addRecordResources(Router& router, const DeviceState& state, Archive& archive, const FaultTable& faults)
{
    router.add("GET", "/LAPI/V1.0/Channels/{}/Media/Video/Streams/1/Records",
               forChannel(state, [&archive, &faults](const Call& call, unsigned channel) {
                   const auto search = readSearch(channel, call.query);
                   if (!search)
                       return invalidArguments("Begin, End, Offset and Limit");
                   return withData(describe(archive.search(*search), search->offset, faults,
                                            call.method + ' ' + call.path + '?' + call.query));
               }));
}

}  // namespace simulator
