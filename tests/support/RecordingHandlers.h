#pragma once

#include "HostFakes.h"

#include <Tavro8/GDRV/IRecordingPlayback.h>
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

/// Keeps what a playback tells.
class PlaybackHandler final : public Tavro8::GDRV::IRecordingPlaybackHandler, private Observations {
public:
    using Playback = Tavro8::GDRV::IRecordingPlayback;
    using Results = std::vector<std::int32_t>;

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::GDRV::IRecordingPlaybackHandler, Tavro8::IContract>(this, name);
    }
    void Opened(Playback* playback, std::int32_t result) noexcept override
    {
        change([&] { openings.push_back(result); });
        if (onOpened)
            onOpened(playback);
    }
    void GapReached(Playback* playback, const Tavro8::GDRV::DateTimeRange& gap) noexcept override
    {
        change([&] { foundGaps.push_back(gap); });
        if (onGap)
            onGap(playback);
    }
    void EndReached(Playback* playback) noexcept override
    {
        change([&] { ++endCount; });
        if (onEnd)
            onEnd(playback);
    }
    void Closed(Playback* playback, std::int32_t result) noexcept override
    {
        change([&] { closings.push_back(result); });
        if (onClosed)
            onClosed(playback);
    }

    bool waitOpened(std::size_t times = 1)
    {
        return wait([&] { return openings.size() >= times; });
    }
    bool waitEnd(std::size_t times = 1)
    {
        return wait([&] { return endCount >= times; });
    }
    bool waitClosed(std::size_t times = 1)
    {
        return wait([&] { return closings.size() >= times; });
    }
    Results opened() const { return read(openings); }
    Results closed() const { return read(closings); }
    std::size_t ends() const { return read(endCount); }
    std::vector<Tavro8::GDRV::DateTimeRange> gaps() const { return read(foundGaps); }

    // Set before the playback is opened.
    std::function<void(Playback*)> onOpened;
    std::function<void(Playback*)> onGap;
    std::function<void(Playback*)> onEnd;
    std::function<void(Playback*)> onClosed;

private:
    // Only within change, wait and read.
    Results openings;
    Results closings;
    std::size_t endCount = 0;
    std::vector<Tavro8::GDRV::DateTimeRange> foundGaps;
};
}  // namespace kelvo::test
