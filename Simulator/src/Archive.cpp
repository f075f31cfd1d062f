#include "Archive.h"

#include <utility>

namespace simulator
{
namespace
{

constexpr std::size_t searchesKept = 100;
constexpr std::uint32_t minute = 60;

using Lists = std::vector<std::shared_ptr<const RecordList>>;

Lists makeLists(const Options& options, std::uint32_t now)
{
    if (!options.archive)
        return {};
    const std::uint32_t until = options.recordsUntil.value_or(now / minute * minute);
    if (options.records)  // there may be many, so all channels share them
        return Lists(options.channels, std::make_shared<RecordList>(countedRecords(*options.records, until)));
    Lists lists;
    for (unsigned channel = 0; channel < options.channels; ++channel)
        lists.push_back(std::make_shared<RecordList>(monthOfRecords(channel, until)));
    return lists;
}

Json::Value describe(const RecordList& list)
{
    Json::Value out(Json::objectValue);
    out["records"] = static_cast<Json::UInt64>(list.all().size());
    const auto& extent = list.extent();
    out["begin"] = extent ? Json::Value(extent->begin) : Json::Value();
    out["end"] = extent ? Json::Value(extent->end) : Json::Value();
    return out;
}

}  // namespace

Archive::Archive(const Options& options, std::uint32_t now)
    : order(options.recordOrder), channels(makeLists(options, now))
{}

RecordList::Page Archive::search(const Search& search)
{
    RecordList::Page page = channels.at(search.channel)->page(search.interval, search.offset, search.limit, order);
    ++searches;
    recordsTold += page.records.size();
    if (log.size() == searchesKept)
        log.pop_front();
    log.push_back({search, page.records.size(), page.total});
    return page;
}

std::vector<RecordedSpan> Archive::coverage(unsigned channel, const RecordedSpan& interval) const
{
    return channel < channels.size() ? channels[channel]->coverage(interval) : std::vector<RecordedSpan>();
}

Json::Value Archive::state() const
{
    Json::Value out(Json::objectValue);
    out["channels"] = Json::Value(Json::arrayValue);
    for (const auto& list : channels)
        out["channels"].append(describe(*list));
    out["searches"] = Json::Value(Json::arrayValue);
    for (const Answered& answered : log) {
        Json::Value search(Json::objectValue);
        search["channel"] = answered.search.channel;
        search["begin"] = answered.search.interval.begin;
        search["end"] = answered.search.interval.end;
        search["offset"] = answered.search.offset;
        search["limit"] = answered.search.limit;
        search["records"] = static_cast<Json::UInt64>(answered.records);
        search["total"] = static_cast<Json::UInt64>(answered.total);
        out["searches"].append(search);
    }
    return out;
}

Json::Value Archive::counters() const
{
    Json::Value out(Json::objectValue);
    out["searches"] = static_cast<Json::UInt64>(searches);
    out["records"] = static_cast<Json::UInt64>(recordsTold);
    return out;
}

void Archive::clearCounters()
{
    searches = 0;
    recordsTold = 0;
}

}  // namespace simulator
