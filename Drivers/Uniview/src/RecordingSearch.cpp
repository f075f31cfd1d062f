#include <utility>

#include "RecordingSearch.h"

#include "Device.h"
#include "Lapi.h"
#include "RecordedInterval.h"
#include "RecordingInfo.h"
#include "UtcText.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <optional>

namespace Uniview
{
namespace
{
using Tavro8::guardedVoid;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::GDRV::DateTimeRange;

constexpr const char* sourcePath = "Drivers/Uniview/src/RecordingSearch";
constexpr const char* finding = "Uniview::RecordingSearch::FindRecordings";
constexpr const char* handling = "Uniview::RecordingSearch::handleRecordingsList";
constexpr const char* cancelling = "Uniview::RecordingSearch::Cancel";
constexpr const char* destroying = "Uniview::RecordingSearch::Destroy";

/// Nothing when the member is no unsigned number of 32 bits.
std::optional<std::uint32_t> readCount(const Json::Value& data, const char* name, std::uint32_t whenMissing)
{
    const Json::Value& member = data[name];
    if (member.isNull())
        return whenMissing;
    return member.isUInt() ? std::optional(member.asUInt()) : std::nullopt;
}

}  // namespace

/// Where a page lies in the device's list, all in records.
struct RecordingSearch::PagePlace {
    std::uint32_t offset;
    std::uint32_t count;
    std::uint32_t total;

    std::uint64_t end() const noexcept { return std::uint64_t{offset} + count; }

    static std::optional<PagePlace> read(const Json::Value& data, std::uint32_t requestedOffset)
    {
        const auto offset = readCount(data, "Offset", requestedOffset);
        const auto count = readCount(data, "Nums", 0);
        const auto total = readCount(data, "Total", 0);
        if (!offset || !count || !total)
            return {};
        return PagePlace{*offset, *count, *total};
    }
};

/// One search: of one device, even when the host opens another address meanwhile. Times are milliseconds.
struct RecordingSearch::Search {
    Tavro8::GDRV::IRecordingSearchHandler* handler;
    std::uint32_t channel;
    Device::ConnectionInfoPtr connection;
    std::string list;  // the path of a page, up to its offset

    std::uint32_t offset = 0;  // of the page asked for last
    std::string path;
    Tavro8::http::CancellationPtr request;
    std::size_t pages = 0;    // that have come
    std::size_t records = 0;  // in them, whether merged or not
    CollectedRanges found;
    std::size_t handedOver = 0;
};

Tavro8::GDRV::IRecordingSearch* RecordingSearch::create(Device* device)
{
    return create(device, Limits{});
}

Tavro8::GDRV::IRecordingSearch* RecordingSearch::create(Device* device, const Limits& limits)
{
    const auto object = std::make_shared<RecordingSearch>(device, limits);
    object->self = object;
    device->whenClosing(object, [weak = object->weak_from_this()] {
        if (const auto search = weak.lock())
            search->Cancel();
    });
    return object.get();
}

RecordingSearch::RecordingSearch(Device* device, const Limits& limits)
    : device(device),
      limits(limits),
      lifetime(device->getLifetimeToken()),
      deviceLogger(device->getLogger()),
      logger(deviceLogger.get(), sourcePath)
{}

void* RecordingSearch::FindContract(const char* name) noexcept
{
    return Tavro8::findContractIn<IRecordingSearch, IContract>(this, name);
}

/// Runs `body` on the I/O context, behind what was posted before; from then on the host may destroy the device, too.
template <typename Body>
void RecordingSearch::onService(Tavro8::LogPlace operation, Body&& body)
{
    boost::asio::post(device->service(), [self = shared_from_this(), keepDevice = device->shared_from_this(), operation,
                                          body = std::forward<Body>(body)] {
        guardedVoid(self->logger, operation, [&] { body(*self); });
    });
}

void RecordingSearch::Destroy() noexcept
{
    const auto object = self;  // lives until this call ends
    guardedVoid(logger, destroying, [&] {
        gate.close();
        onService(destroying, [](RecordingSearch& search) { search.abandon(); });
        self.reset();
    });
}

void RecordingSearch::Cancel() noexcept
{
    guardedVoid(logger, cancelling, [&] {
        onService(cancelling, [](RecordingSearch& search) {
            if (search.current == nullptr)
                return;
            if (search.current->request != nullptr)
                search.current->request->cancel();
            search.finish(toResult(ResultCode::cancelled));
        });
    });
}

/// Nobody wants to hear of it any more.
void RecordingSearch::abandon()
{
    if (const auto search = std::exchange(current, nullptr); search != nullptr && search->request != nullptr)
        search->request->cancel();
}

std::int32_t RecordingSearch::FindRecordings(std::uint32_t channel, const DateTimeRange& interval,
                                             Tavro8::GDRV::IRecordingSearchHandler* handler) noexcept
{
    return Tavro8::guarded(logger, finding, toResult(ResultCode::unexpected),
                           [&] { return find(channel, interval, handler); });
}

std::int32_t RecordingSearch::find(std::uint32_t channel, const DateTimeRange& interval,
                                   Tavro8::GDRV::IRecordingSearchHandler* handler)
{
    if (handler == nullptr)
        return toResult(ResultCode::invalidArgument);
    if (const std::int32_t result = RecordedInterval::check(interval); result != toResult(ResultCode::success))
        return result;
    if (channel >= device->GetChannelCount())
        return toResult(ResultCode::notFound);
    if (!device->hasBeenConnected()) {
        logger.error(finding, "Recordings can be searched once the device has connected");
        return toResult(ResultCode::invalidState);
    }
    if (searching.exchange(true)) {
        logger.error(finding, "Another recording search is under way");
        return toResult(ResultCode::invalidState);
    }
    try {
        logger.info(finding, "Recording search for interval (", utcText(interval.begin), " - ", utcText(interval.end),
                    "), channel ", channel);
        const RecordedInterval whole(interval);
        const auto search = std::make_shared<Search>();
        search->handler = handler;
        search->channel = channel;
        search->connection = device->getHttpConnectionInfo();
        search->list = "/LAPI/V1.0/Channels/" + std::to_string(device->channelNumber(channel)) +
                       "/Media/Video/Streams/1/Records?Begin=" + std::to_string(whole.beginSecond()) +
                       "&End=" + std::to_string(whole.endSecond()) + "&Offset=";
        search->found = CollectedRanges(interval.begin);
        onService(finding, [search](RecordingSearch& object) {
            if (object.gate.isClosed())
                return;
            object.current = search;
            object.carryOn(search, [&] { object.requestPage(search, 0); });
        });
    } catch (...) {
        searching = false;
        throw;
    }
    return toResult(ResultCode::success);
}

/// Runs a step of a search unless it has ended meanwhile; one that throws ends it.
template <typename Step>
void RecordingSearch::carryOn(const SearchPtr& search, Step&& step)
{
    if (search != current)
        return;
    const std::int32_t result = Tavro8::guarded(logger, handling, toResult(ResultCode::unexpected), [&] {
        std::forward<Step>(step)();
        return toResult(ResultCode::success);
    });
    if (result != toResult(ResultCode::success) && search == current)
        finish(result);
}

void RecordingSearch::requestPage(const SearchPtr& search, std::uint32_t offset)
{
    search->offset = offset;
    search->path = search->list + std::to_string(offset) + "&Limit=100";
    search->request = Tavro8::http::asyncGetEx(
        search->connection, search->path, device->service(),
        [self = shared_from_this(), keepDevice = device->shared_from_this(), search](
            const Tavro8::error_code& ec, const std::vector<char>& body, const Tavro8::http::HttpResponse& response) {
            if (search->connection == keepDevice->getHttpConnectionInfo())
                guardedVoid(self->logger, handling, [&] { keepDevice->reportExchange(ec); });
            self->carryOn(search, [&] { self->handleRecordingsList(search, lapi::judge(ec, response, body)); });
        });
}

void RecordingSearch::handleRecordingsList(const SearchPtr& search, const lapi::Reply& reply)
{
    const auto place = reply && (reply.data.isObject() || reply.data.isNull())
                           ? PagePlace::read(reply.data, search->offset)
                           : std::nullopt;
    if (reply && place)
        return takePage(search, reply.data, *place);
    if (reply || reply.failure == lapi::Failure::malformed) {
        logger.error(handling, "Can't parse recording list data");
        return finish(toResult(ResultCode::malformedReply));
    }
    logger.error(handling, "Recordings list", lapi::describe(reply, search->path));
    finish(reply.result);
}

/// A list that does not end is none that a device could hold.
bool RecordingSearch::isWithinLimits(Search& search, std::size_t recordsOfPage) const
{
    search.records += recordsOfPage;
    ++search.pages;
    if (recordsOfPage <= limits.recordsOfPage && search.records <= limits.records && search.pages <= limits.pages)
        return true;
    logger.error(handling, "Recordings list is too long: ", recordsOfPage, " records in the page at ", search.offset,
                 ", ", search.records, " records in ", search.pages, " pages");
    return false;
}

void RecordingSearch::takePage(const SearchPtr& search, const Json::Value& data, const PagePlace& place)
{
    if (!isWithinLimits(*search, data["RecordInfos"].size()))
        return finish(toResult(ResultCode::responseTooLarge));
    search->found.addPage(data["RecordInfos"], deviceLogger.get());
    if (place.end() >= place.total)
        return handOver(search);
    if (place.end() <= search->offset) {
        logger.warning(handling, "Recordings list ends early: the page at ", search->offset, " of ", place.total,
                       " holds no further record");
        return handOver(search);
    }
    requestPage(search, static_cast<std::uint32_t>(place.end()));
}

void RecordingSearch::handOver(const SearchPtr& search)
{
    const auto& ranges = search->found.get();
    const std::size_t end = std::min(ranges.size(), search->handedOver + recordsPerTurn);
    for (bool heard = true; heard && search->handedOver < end; ++search->handedOver) {
        RecordingInfo recording(search->channel, ranges[search->handedOver]);
        heard = gate.call([&] { search->handler->RecordingFound(this, &recording); });
    }
    if (end == ranges.size())
        return finish(toResult(ResultCode::success));
    onService(handling,
              [search](RecordingSearch& object) { object.carryOn(search, [&] { object.handOver(search); }); });
}

/// A new search may begin from inside the call.
void RecordingSearch::finish(std::int32_t result)
{
    const auto search = std::exchange(current, nullptr);
    searching = false;
    static_cast<void>(gate.call([&] { search->handler->SearchCompleted(this, result); }));
}
}  // namespace Uniview
