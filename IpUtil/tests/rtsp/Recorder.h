#pragma once

#include "ScriptedPeer.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

namespace Tavro8::Utility::testkit
{
/// An NTP time as sender reports have it.
constexpr std::uint64_t ntpOf(std::int64_t unixMs)
{
    const auto seconds = static_cast<std::uint64_t>(unixMs / 1000) + 2'208'988'800U;
    return seconds << 32 | (static_cast<std::uint64_t>(unixMs % 1000) << 32) / 1000;
}

constexpr std::int64_t recordedMs = 1'493'172'645'000;  // 2017-04-26T02:10:45Z
constexpr const char* recordedClock = "20170426T021045Z";

/// Sends recorded pictures on the first track; their reports, and the farewell.
class RecordingSender {
public:
    explicit RecordingSender(ScriptedPeer::Connection& connection, std::uint32_t firstTimestamp = 90000,
                             std::uint16_t firstSequence = 100)
        : connection(connection)
    {
        sender.timestamp = firstTimestamp;
        sender.sequence = firstSequence;
    }

    RecordingSender& report(std::int64_t timeMs)
    {
        connection.sendFrame(1, senderReport(sender.source, ntpOf(timeMs), sender.timestamp));
        return *this;
    }
    RecordingSender& keyFrame(std::uint32_t ticks = 3600)
    {
        sender.sendFrame(connection, {spsNal(), ppsNal(), idrNal()}, ticks);
        return *this;
    }
    RecordingSender& picture(std::uint32_t ticks = 3600)
    {
        sender.sendFrame(connection, {pictureNal()}, ticks);
        return *this;
    }
    RecordingSender& bye() { return bye(sender.source); }
    RecordingSender& bye(std::uint32_t source)
    {
        connection.sendFrame(1, byePacket(source));
        return *this;
    }
    /// Another recording begins, without a word.
    RecordingSender& become(std::uint32_t source, std::uint32_t timestamp, std::uint16_t sequence)
    {
        sender.source = source;
        sender.timestamp = timestamp;
        sender.sequence = sequence;
        return *this;
    }

private:
    ScriptedPeer::Connection& connection;
    PacketSender sender;
};

/// What a recorder does at PLAY, as a test wants it; everything else as an ordinary camera.
using OnPlay = std::function<void(ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request)>;

inline Camera recorderWith(OnPlay onPlay, const char* sdp = videoSdp)
{
    Camera recorder;
    recorder.sdp = sdp;
    recorder.intercept = [onPlay = std::move(onPlay)](ScriptedPeer::Connection& connection,
                                                      const ScriptedPeer::Request& request) {
        if (request.method != "PLAY")
            return false;
        onPlay(connection, request);
        return true;
    };
    return recorder;
}

/// A header of a request; empty when it has none.
inline std::string headerOf(const ScriptedPeer::Request& request, const std::string& name)
{
    const auto found = request.headers.find(name);
    return found == request.headers.end() ? std::string() : found->second;
}
}  // namespace Tavro8::Utility::testkit
