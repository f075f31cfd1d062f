#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace simulator
{

/// What can go wrong on purpose. The comments say what the peer sees.
enum class FaultKind {
    refuse,          ///< connection reset as soon as it is accepted
    hang,            ///< request read, never answered
    close,           ///< connection closed after the request was read
    garbage,         ///< bytes that are no HTTP
    status,          ///< this HTTP status instead of the answer
    apiError,        ///< HTTP 200, this "ResponseCode"
    brokenJson,      ///< a body that ends in the middle of the document, with a matching Content-Length
    emptyBody,       ///< HTTP 200 without a body
    noData,          ///< an envelope without "Data"
    emptyData,       ///< an envelope whose "Data" has no members
    slow,            ///< the answer starts this many milliseconds late
    drip,            ///< the answer arrives byte by byte, one in this many milliseconds
    truncate,        ///< a chunked body that breaks off in the middle
    rtspRefuse,      ///< RTSP connection reset as soon as it is accepted
    rtspHang,        ///< RTSP connection accepted, never answered
    rtspStatus,      ///< this RTSP status instead of the answer
    rtspDrop,        ///< RTSP connection closed after this many milliseconds
    rtspNoTracks,    ///< a session description without a track
    talkDrop,        ///< RTSP connection closed once so many packets have been spoken on it
    recordsTotal,    ///< record lists say this "Total"
    recordsStall,    ///< record pages are empty from this offset on, whatever "Total" says
    recordsNoList,   ///< record pages without "RecordInfos"
    recordsNoArray,  ///< record pages whose "RecordInfos" is an object
    recordsReversed  ///< records that end before they begin
};

/// One fault as written on the command line: `NAME[:ARGUMENT][@PATTERN]`.
struct Fault {
    FaultKind kind = FaultKind::refuse;
    unsigned argument = 0;  ///< status, code, milliseconds, packets or records; 0 where the name takes none
    std::string pattern;    ///< part of "METHOD path"; empty means every request
    std::string text;       ///< as written, for listings
};

/// Reads one fault; the other alternative says in a sentence what is wrong with it.
std::variant<Fault, std::string> parseFault(std::string_view text);

/// A line for each fault, for `--help`.
std::string describeFaults();

/// The faults in force. HTTP asks on the I/O context, RTSP on GStreamer's threads: every operation locks.
class FaultTable {
public:
    explicit FaultTable(std::vector<Fault> initial = {});

    void add(Fault fault);
    void clear();
    /// Removes the faults written exactly so; returns how many there were.
    std::size_t remove(std::string_view text);
    std::vector<Fault> list() const;

    /// The newest fault of this kind whose pattern occurs in `request` ("GET /LAPI/V1.0/...", "SETUP rtsp://...").
    std::optional<Fault> find(FaultKind kind, std::string_view request = {}) const;

private:
    mutable std::mutex mutex;  ///< guards `faults`
    std::vector<Fault> faults;
};

}  // namespace simulator
