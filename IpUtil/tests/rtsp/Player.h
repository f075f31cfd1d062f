#pragma once

#include "Harness.h"

#include <optional>

namespace Tavro8::Utility::testkit
{
/// A frame as it was delivered, with bytes of its own.
struct TakenFrame {
    GDRV::MediaFrame info;  // without the views
    Bytes data;
    Bytes parameterSets;
};

/// Uses an `RTSPClient` as a driver does, and keeps what it is told.
struct Player {
    explicit Player(Loop& loop) : client(RTSPClient::create(*loop.io, &log)) {}
    ~Player() { client->teardown(); }

    void start(const std::shared_ptr<const asio::ConnectionInfo>& info, const std::string& path = "/media/video1")
    {
        client->setClosedHandler([this](const error_code& ec) { closed = ec; });
        client->initialize(info, path, [this](const error_code& ec) {
            session = ec;
            if (!ec)
                client->performDefaultSteps(
                    headers,
                    [this](const error_code& error, const SessionDescription& description) {
                        sdp = error;
                        addTracks(description);
                    },
                    [this](const error_code& error) { play = error; });
        });
    }

    void addTracks(const SessionDescription& description)
    {
        for (const SdpTrack& track : description.tracks) {
            if (track.direction == SdpTrack::Direction::sendOnly)
                sendTrack = client->addTrack({track, {}});
            else if (track.kind == "video" && wantsVideo)
                videoTrack = client->addTrack({track, [this](const GDRV::MediaFrame& frame) { onFrame(frame); }});
            else if (track.kind == "audio")
                audioTrack = client->addTrack({track, [this](const GDRV::MediaFrame& frame) { onFrame(frame); }});
        }
    }

    void onFrame(const GDRV::MediaFrame& frame)
    {
        (GDRV::isVideo(frame.codec) ? video : audio).push_back(bytesOf(frame));
        lastTimestampMs = frame.timestampMs;
        frames.push_back({frame, bytesOf(frame), {frame.parameterSets.begin(), frame.parameterSets.end()}});
        frames.back().info.data = frames.back().info.parameterSets = {};
        frames.back().info.buffer = nullptr;
        if (eachFrame)
            eachFrame();
    }

    /// Whatever ended it, or nothing while it goes on.
    std::optional<error_code> failure() const
    {
        for (const auto& outcome : {session, sdp, play, closed}) {
            if (outcome && *outcome)
                return outcome;
        }
        return std::nullopt;
    }
    bool isPlaying() const { return play && !*play; }

    RecordingLogger log;
    std::shared_ptr<RTSPClient> client;
    RTSPClient::Headers headers;
    bool wantsVideo = true;
    std::function<void()> eachFrame;
    std::optional<error_code> session, sdp, play, closed;
    std::vector<Bytes> video, audio;
    std::vector<TakenFrame> frames;  // both kinds, in the order of delivery
    std::int64_t lastTimestampMs = 0;
    std::weak_ptr<RTSPTrack> videoTrack, audioTrack, sendTrack;
};
}  // namespace Tavro8::Utility::testkit
