#include "RecordingRanges.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <json/value.h>
#include <random>
#include <vector>

// What a search does with a million records, most of which overlap their neighbours, in random order: beside reading
// them out of the JSON, sorting and walking shall take no more than twice a plain sort of the same ranges.
namespace
{
using Tavro8::GDRV::DateTimeRange;

constexpr Json::ArrayIndex recordCount = 1'000'000;

Json::Value makeRecords()
{
    std::mt19937 random(1);
    Json::Value records(Json::arrayValue);
    records.resize(recordCount);
    for (Json::ArrayIndex index = 0; index < recordCount; ++index) {
        const auto begin = static_cast<std::uint32_t>(random() % 1'000'000'000U + 1'000'000'000U);
        records[index]["Begin"] = begin;
        records[index]["End"] = begin + static_cast<std::uint32_t>(random() % 3600U);
    }
    return records;
}

const Json::Value& records()
{
    static const Json::Value made = makeRecords();
    return made;
}

const std::vector<DateTimeRange>& unsortedRanges()
{
    static const std::vector<DateTimeRange> made = [] {
        std::vector<DateTimeRange> ranges;
        static_cast<void>(Uniview::appendRecords(records(), ranges));
        return ranges;
    }();
    return made;
}

/// `body` gets a fresh copy each time; copying is not measured.
template <typename Body>
void measure(benchmark::State& state, Body body)
{
    for (auto _ : state) {
        state.PauseTiming();
        std::vector<DateTimeRange> ranges = unsortedRanges();
        state.ResumeTiming();
        body(ranges);
        benchmark::DoNotOptimize(ranges.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * recordCount);
}

void plainSort(benchmark::State& state)
{
    measure(state, [](auto& ranges) { std::ranges::sort(ranges, {}, &DateTimeRange::begin); });
}
BENCHMARK(plainSort)->Unit(benchmark::kMillisecond);

void sortAndWalk(benchmark::State& state)
{
    measure(state, [](auto& ranges) { Uniview::trimCovered(ranges, 0, nullptr); });
}
BENCHMARK(sortAndWalk)->Unit(benchmark::kMillisecond);

void readJson(benchmark::State& state)
{
    for (auto _ : state) {
        std::vector<DateTimeRange> ranges;
        benchmark::DoNotOptimize(Uniview::appendRecords(records(), ranges));
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * recordCount);
}
BENCHMARK(readJson)->Unit(benchmark::kMillisecond);

void wholeAdjusting(benchmark::State& state)
{
    for (auto _ : state) {
        std::vector<DateTimeRange> ranges;
        Uniview::adjustingRanges(records(), ranges, 0, nullptr);
        benchmark::DoNotOptimize(ranges.data());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * recordCount);
}
BENCHMARK(wholeAdjusting)->Unit(benchmark::kMillisecond);

constexpr std::uint32_t pageCount = 1000;
constexpr std::uint32_t pageRecords = 100;

std::vector<Json::Value> makePages()
{
    std::vector<Json::Value> pages(pageCount, Json::Value(Json::arrayValue));
    for (std::uint32_t record = 0; record < pageCount * pageRecords; ++record) {
        Json::Value& made = pages[record / pageRecords].append(Json::objectValue);
        made["Begin"] = record * 600;
        made["End"] = record * 600 + 500;
    }
    return pages;
}

/// A search of 1,000 pages of 100 records each, oldest or newest first: what it does between requests but for parsing.
void collectPages(benchmark::State& state, bool newestFirst)
{
    static const std::vector<Json::Value> pages = makePages();
    for (auto _ : state) {
        Uniview::CollectedRanges collected;
        for (std::size_t number = 0; number < pages.size(); ++number)
            collected.addPage(pages[newestFirst ? pages.size() - 1 - number : number], nullptr);
        benchmark::DoNotOptimize(collected.get().size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(pageCount * pageRecords));
}
BENCHMARK_CAPTURE(collectPages, oldestFirst, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(collectPages, newestFirst, true)->Unit(benchmark::kMillisecond);
}  // namespace
