#pragma once

#include "HostFakes.h"

#include <Tavro8/GDRV/IRecordingSearch.h>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

// What hears of recordings, for tests.
namespace kelvo::test
{
/// Keeps what a search finds.
class SearchHandler final : public Tavro8::GDRV::IRecordingSearchHandler, private Observations {
public:
    using Search = Tavro8::GDRV::IRecordingSearch;

    struct Track {
        std::string id;
        std::vector<Tavro8::GDRV::DateTimeRange> ranges;

        friend bool operator==(const Track&, const Track&) = default;
    };
    struct Recording {
        std::uint32_t channel = 0;
        Tavro8::GDRV::DateTimeRange range;
        std::vector<Track> tracks;
    };

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IRecordingSearchHandler, Tavro8::IContract>(this, name);
    }
    void RecordingFound(Search* search, Tavro8::GDRV::Storage::IRecordingInfo* recording) noexcept override
    {
        change([&] { found.push_back(copy(*recording)); });
        if (onFound)
            onFound(search);
    }
    void SearchCompleted(Search* search, std::int32_t result) noexcept override
    {
        change([&] { results.push_back(result); });
        if (onCompleted)
            onCompleted(search);
    }

    bool waitCompleted(std::size_t times = 1)
    {
        return wait([&] { return results.size() >= times; });
    }
    bool waitFound(std::size_t times)
    {
        return wait([&] { return found.size() >= times; });
    }
    std::vector<std::int32_t> completions() const { return read(results); }
    std::vector<Recording> recordings() const { return read(found); }
    std::vector<Tavro8::GDRV::DateTimeRange> ranges() const
    {
        std::vector<Tavro8::GDRV::DateTimeRange> all;
        for (const Recording& recording : recordings())
            all.push_back(recording.range);
        return all;
    }

    // Set before the search begins.
    std::function<void(Search*)> onFound;
    std::function<void(Search*)> onCompleted;

private:
    static Recording copy(const Tavro8::GDRV::Storage::IRecordingInfo& recording)
    {
        Recording result{recording.GetChannelIndex(), recording.GetRange()->GetRange(), {}};
        for (std::uint32_t index = 0; const auto* const track = recording.GetTrack(index); ++index) {
            result.tracks.push_back({track->GetTrackId(), {}});
            for (std::uint32_t part = 0; const auto* const range = track->GetRange(part); ++part)
                result.tracks.back().ranges.push_back(range->GetRange());
        }
        return result;
    }

    // Only within change, wait and read.
    std::vector<Recording> found;
    std::vector<std::int32_t> results;
};
}  // namespace kelvo::test
