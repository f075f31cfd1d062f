#pragma once

#include "Harness.h"

#include <IpUtil/RTSPStream.h>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace Tavro8::Utility::testkit
{
inline error_code errorOf(ResultCode code)
{
    return make_error_code(code);
}

class Receiver final : public RTSPReceiver {
public:
    explicit Receiver(MediaKind kind) : kind(kind) {}

    MediaKind mediaKind() const noexcept override { return kind; }
    void initializeClient(RTSPClient& client) override
    {
        client.setStallTimeout(stallTimeout);
        if (kind == MediaKind::audio)
            client.setAudioSinkParams(audio);
    }
    void onConnectionStart() override
    {
        ++starts;
        if (eachStart)
            eachStart();
    }
    void onFrame(const GDRV::MediaFrame& frame) noexcept override
    {
        ++frames;
        framesSinceState++;
        if (frames == 1) {
            firstWasKeyFrame = frame.keyFrame;
            firstParameterSets.assign(frame.parameterSets.begin(), frame.parameterSets.end());
        }
        codec = frame.codec;
        data = bytesOf(frame);
        width = frame.width;
        parameterSetChanges += frame.parameterSets.empty() ? 0 : 1;
        timesInOrder = timesInOrder && frame.timestampMs >= lastTimestampMs;
        lastTimestampMs = frame.timestampMs;
        if (eachFrame)
            eachFrame();
    }
    void onStreamState(const error_code& ec) override
    {
        states.push_back(ec);
        framesSinceState = 0;
        if (eachState)
            eachState(ec);
    }

    const MediaKind kind;
    std::chrono::milliseconds stallTimeout{5000};
    AudioSinkParams audio;
    int starts = 0;
    std::size_t frames = 0;
    std::size_t framesSinceState = 0;
    bool firstWasKeyFrame = false;
    Bytes firstParameterSets;
    GDRV::MediaCodec codec = GDRV::MediaCodec::unknown;  // of the last frame, as the width
    std::uint32_t width = 0;
    Bytes data;
    int parameterSetChanges = 0;
    bool timesInOrder = true;
    std::int64_t lastTimestampMs = 0;
    std::vector<error_code> states;
    std::function<void()> eachStart;
    std::function<void()> eachFrame;
    std::function<void(const error_code&)> eachState;
};

/// A stream of a device that is, or is not, connected.
struct Fixture {
    explicit Fixture(const Camera& camera) : peer(camera.script()), info(addressOf(peer)) { makeStream(); }
    explicit Fixture(ScriptedPeer::Script script) : peer(std::move(script)), info(addressOf(peer)) { makeStream(); }

    void makeStream()
    {
        RTSPStream::Hooks hooks;
        hooks.connectionInfo = [this] { return std::shared_ptr<const asio::ConnectionInfo>(info); };
        hooks.path = [this] { return "/media/video" + std::to_string(keepPath ? 1 : ++paths); };
        hooks.onLost = [this] { ++losses; };
        stream = std::make_shared<RTSPStream>(*loop.io, &log, std::move(hooks));
    }

    std::shared_ptr<Receiver> add(MediaKind kind)
    {
        const auto receiver = std::make_shared<Receiver>(kind);
        stream->regReceiver(receiver);
        return receiver;
    }

    bool remove(const std::shared_ptr<Receiver>& receiver)
    {
        bool done = false;
        stream->unregReceiver(receiver, [&] { done = true; });
        return loop.runUntil([&] { return done; });
    }

    ScriptedPeer peer;
    Loop loop;
    RecordingLogger log;
    std::shared_ptr<asio::ConnectionInfo> info;
    int paths = 0;
    bool keepPath = false;  // as a real device's: lines that repeat look alike
    int losses = 0;
    std::shared_ptr<RTSPStream> stream;
};

/// Sends video (and audio when it was set up) until the client goes or asks for something.
inline Camera sendingCamera(const char* sdp = videoAndAudioSdp)
{
    Camera camera;
    camera.sdp = sdp;
    camera.afterPlay = [](ScriptedPeer::Connection& connection) {
        VideoSender video;
        std::uint16_t number = 0;
        for (;;) {
            video.run(connection, 5);
            if (!connection.sendFrame(2, rtp(0, number, number * 160U, false, Bytes(160, 0x55), 0x99)) ||
                connection.hasMore())
                return;
            ++number;
            std::this_thread::yield();
        }
    };
    return camera;
}
}  // namespace Tavro8::Utility::testkit
