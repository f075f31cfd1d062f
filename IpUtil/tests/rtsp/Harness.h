#pragma once

#include "RecordingLogger.h"
#include "ScriptedPeer.h"

#include "rtsp/StreamContext.h"

#include <IpUtil/ConnectionInfo.h>
#include <IpUtil/RTSPClient.h>
#include <Tavro8/GDRV/MediaFrame.h>
#include <Tavro8/ResultCode.h>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace Tavro8::Utility::testkit
{
using kelvo::test::RecordingLogger;

/// An I/O context that the test itself runs, with waiting times fit for tests.
class Loop {
public:
    Loop()
    {
        StreamTiming& timing = StreamContext::of(*io).timing;
        timing.tickInterval = std::chrono::milliseconds(5);
        timing.firstRetry = std::chrono::milliseconds(10);
        timing.longestRetry = std::chrono::milliseconds(50);
        timing.steadyLife = std::chrono::milliseconds(0);
    }

    StreamTiming& timing() { return StreamContext::of(*io).timing; }

    /// Runs until the condition holds; false when it did not within the limit, which only a failing test reaches.
    template <typename Condition>
    bool runUntil(Condition condition, std::chrono::seconds limit = std::chrono::seconds(30))
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            io->restart();
            io->run_one_for(std::chrono::milliseconds(5));
        }
        return true;
    }

    std::unique_ptr<boost::asio::io_context> io = std::make_unique<boost::asio::io_context>(1);
};

inline std::shared_ptr<asio::ConnectionInfo> addressOf(const ScriptedPeer& peer)
{
    auto info = std::make_shared<asio::ConnectionInfo>();
    info->host = "127.0.0.1";
    info->port = peer.port();
    info->user = "admin";
    info->password = "s3cret";
    return info;
}

inline Bytes bytesOf(const GDRV::MediaFrame& frame)
{
    return {frame.data.begin(), frame.data.end()};
}
}  // namespace Tavro8::Utility::testkit
