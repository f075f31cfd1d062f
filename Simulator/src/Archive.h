#pragma once

#include "Options.h"
#include "RecordList.h"

#include <json/value.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

namespace simulator
{

/// The recordings of all channels, and what was asked about them. What is recorded never changes and may be asked on
/// any thread; all else is for the I/O context.
class Archive {
public:
    /// `now` in Unix seconds: recordings end there unless the options say when.
    Archive(const Options& options, std::uint32_t now);

    /// A search as it was asked for and answered.
    struct Search {
        unsigned channel = 0;
        RecordedSpan interval;
        std::uint32_t offset = 0;
        std::uint32_t limit = 0;
    };
    RecordList::Page search(const Search& search);

    std::vector<RecordedSpan> coverage(unsigned channel, const RecordedSpan& interval) const;

    /// {"channels": [{"records", "begin", "end"}], "searches": [the newest 100]}
    Json::Value state() const;
    /// {"searches", "records"}
    Json::Value counters() const;
    void clearCounters();

private:
    RecordOrder order;
    std::vector<std::shared_ptr<const RecordList>> channels;
    struct Answered {
        Search search;
        std::size_t records;
        std::size_t total;
    };
    std::deque<Answered> log;
    std::uint64_t searches = 0;
    std::uint64_t recordsTold = 0;
};

}  // namespace simulator
