#pragma once

#include <Tavro8/IContract.h>
#include <cstdint>

namespace Tavro8::GDRV
{
/// A stretch of time in UTC milliseconds since the Unix epoch, `begin` included.
struct DateTimeRange {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;

    friend bool operator==(const DateTimeRange&, const DateTimeRange&) = default;
};

namespace Storage
{
/// One uninterrupted stretch.
class IRecordingRange : public IContract {
public:
    virtual DateTimeRange GetRange() const noexcept = 0;  ///< slot 3
};

/// One track of a recording.
class ITrackInfo : public IContract {
public:
    virtual const char* GetTrackId() const noexcept = 0;                        ///< slot 3
    virtual std::uint32_t GetRangeCount() const noexcept = 0;                   ///< slot 4
    virtual IRecordingRange* GetRange(std::uint32_t index) const noexcept = 0;  ///< slot 5; null beyond the end
};

/// One recording found on the device. Valid during the call that hands it over.
class IRecordingInfo : public IContract {
public:
    virtual std::uint32_t GetChannelIndex() const noexcept = 0;            ///< slot 3
    virtual IRecordingRange* GetRange() const noexcept = 0;                ///< slot 4
    virtual std::uint32_t GetTrackCount() const noexcept = 0;              ///< slot 5
    virtual ITrackInfo* GetTrack(std::uint32_t index) const noexcept = 0;  ///< slot 6; null beyond the end
};
}  // namespace Storage

class IRecordingSearch;

/// Hears what a search finds, on the device's I/O thread.
class IRecordingSearchHandler : public IContract {
public:
    virtual void RecordingFound(IRecordingSearch* search, Storage::IRecordingInfo* recording) noexcept = 0;  ///< slot 3

    /// Slot 4. Once per search: 0 after the last page, else why it ended early.
    virtual void SearchCompleted(IRecordingSearch* search, std::int32_t result) noexcept = 0;
};

/// Asks a device which stretches of time it has recorded.
class IRecordingSearch : public IContract {
public:
    virtual void Destroy() noexcept = 0;  ///< slot 3: cancels; afterwards nothing reaches the handler

    /// Slot 4. Begins a search; returns at once. One search at a time: a second one is refused with 2.
    virtual std::int32_t FindRecordings(std::uint32_t channel, const DateTimeRange& interval,
                                        IRecordingSearchHandler* handler) noexcept = 0;

    virtual void Cancel() noexcept = 0;  ///< slot 5: the search completes with 1
};
}  // namespace Tavro8::GDRV
