#pragma once

#include "RecordingRanges.h"

#include <IpUtil/GlobalService.h>
#include <IpUtil/LoggerHelper.h>
#include <Tavro8/GDRV/IRecordingSearch.h>
#include <Tavro8/ILogger.h>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <json/forwards.h>
#include <memory>

namespace Uniview
{
class Device;
namespace lapi
{
struct Reply;
}

/// Asks a device, page by page, what it has recorded on a channel.
///
/// The host hears of what was found when the last page is there: sorted, each time once, in whatever order the device
/// lists its records. Until then only the ranges are kept, 16 bytes each. A search that fails or is cancelled by then
/// hands nothing over, since a list with holes looks like one of holes in the archive; one that is cancelled while it
/// hands over ends there, and what it has told is told.
///
/// A search belongs to the connection that it began on: closing the device, or opening another address, completes it
/// with 1.
///
/// Host threads call the operations; everything else happens on the device's I/O context, which alone touches the
/// search under way. One request at a time.
class RecordingSearch final : public Tavro8::GDRV::IRecordingSearch,
                              public std::enable_shared_from_this<RecordingSearch> {
public:
    /// As many are handed over before the other streams of the I/O thread have their turn.
    static constexpr std::size_t recordsPerTurn = 256;

    /// What a device may list in answer to one search, which else would grow for ever.
    struct Limits {
        std::size_t recordsOfPage = 10'000;  ///< a hundred are asked for
        std::size_t records = 10'000'000;    ///< in all pages, also those that add no time
        std::size_t pages = 100'000;
    };

    /// Makes an object that the host releases with `Destroy`; `device` outlives it.
    static Tavro8::GDRV::IRecordingSearch* create(Device* device);
    static Tavro8::GDRV::IRecordingSearch* create(Device* device, const Limits& limits);
    /// Used by `create`.
    RecordingSearch(Device* device, const Limits& limits);

    void* FindContract(const char* name) noexcept override;
    void Destroy() noexcept override;
    /// 3 without a handler, else what `RecordedInterval::check` says; 7 for a channel that the device has not, 2 before
    /// the device has connected and while a search is under way. A list beyond the limits completes the search with
    /// 262.
    std::int32_t FindRecordings(std::uint32_t channel, const Tavro8::GDRV::DateTimeRange& interval,
                                Tavro8::GDRV::IRecordingSearchHandler* handler) noexcept override;
    void Cancel() noexcept override;

private:
    struct Search;
    struct PagePlace;
    using SearchPtr = std::shared_ptr<Search>;

    std::int32_t find(std::uint32_t channel, const Tavro8::GDRV::DateTimeRange& interval,
                      Tavro8::GDRV::IRecordingSearchHandler* handler);
    template <typename Body>
    void onService(Tavro8::LogPlace operation, Body&& body);
    template <typename Step>
    void carryOn(const SearchPtr& search, Step&& step);
    void requestPage(const SearchPtr& search, std::uint32_t offset);
    void handleRecordingsList(const SearchPtr& search, const lapi::Reply& reply);
    bool isWithinLimits(Search& search, std::size_t recordsOfPage) const;
    void takePage(const SearchPtr& search, const Json::Value& data, const PagePlace& place);
    void handOver(const SearchPtr& search);
    void finish(std::int32_t result);
    void abandon();

    Device* const device;  // not owned
    const Limits limits;
    const std::shared_ptr<void> lifetime;
    const std::shared_ptr<Tavro8::ILogger> deviceLogger;
    const Tavro8::LoggerHelper logger;
    Tavro8::Utility::HandlerGate gate;
    std::atomic<bool> searching{false};
    SearchPtr current;                      // only on the I/O context; null when no search is under way
    std::shared_ptr<RecordingSearch> self;  // the host's reference
};
}  // namespace Uniview
