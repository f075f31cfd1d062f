#pragma once

#include <IpUtil/TrackIds.h>
#include <Tavro8/GDRV/IRecordingSearch.h>
#include <cstdint>

// What a search says of one recording. Plain values; the pointers that they hand out point into themselves.
namespace Uniview
{
/// The time of a recording.
class RecordingRange : public Tavro8::GDRV::Storage::IRecordingRange {
public:
    explicit RecordingRange(const Tavro8::GDRV::DateTimeRange& range) noexcept : range(range) {}

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<IRecordingRange, IContract>(this, name);
    }
    Tavro8::GDRV::DateTimeRange GetRange() const noexcept override { return range; }

private:
    const Tavro8::GDRV::DateTimeRange range;
};

/// The time of one track of it.
class TrackRange final : public RecordingRange {
public:
    using RecordingRange::RecordingRange;
};

/// A track that is there for all of its recording.
class TrackInfo final : public Tavro8::GDRV::Storage::ITrackInfo {
public:
    /// `trackId` is a literal.
    TrackInfo(const char* trackId, const Tavro8::GDRV::DateTimeRange& range) noexcept : trackId(trackId), range(range)
    {}

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<ITrackInfo, IContract>(this, name);
    }
    const char* GetTrackId() const noexcept override { return trackId; }
    std::uint32_t GetRangeCount() const noexcept override { return 1; }
    Tavro8::GDRV::Storage::IRecordingRange* GetRange(std::uint32_t index) const noexcept override
    {
        return index == 0 ? &range : nullptr;
    }

private:
    const char* const trackId;
    mutable TrackRange range;  // the interface hands it out for asking contracts of; it never changes
};

/// A recording of pictures and sound. Devices do not say which of them they have recorded, so both are named.
class RecordingInfo final : public Tavro8::GDRV::Storage::IRecordingInfo {
public:
    RecordingInfo(std::uint32_t channelIndex, const Tavro8::GDRV::DateTimeRange& range) noexcept
        : channelIndex(channelIndex),
          range(range),
          tracks{{Tavro8::Utility::VIDEO_TRACK_ID, range}, {Tavro8::Utility::AUDIO_TRACK_ID, range}}
    {}

    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<IRecordingInfo, IContract>(this, name);
    }
    std::uint32_t GetChannelIndex() const noexcept override { return channelIndex; }
    Tavro8::GDRV::Storage::IRecordingRange* GetRange() const noexcept override { return &range; }
    std::uint32_t GetTrackCount() const noexcept override { return trackCount; }
    Tavro8::GDRV::Storage::ITrackInfo* GetTrack(std::uint32_t index) const noexcept override
    {
        return index < trackCount ? &tracks[index] : nullptr;
    }

private:
    static constexpr std::uint32_t trackCount = 2;

    const std::uint32_t channelIndex;
    mutable RecordingRange range;  // as `TrackInfo::range`
    mutable TrackInfo tracks[trackCount];
};
}  // namespace Uniview
