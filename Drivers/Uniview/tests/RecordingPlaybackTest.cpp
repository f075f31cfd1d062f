#include <utility>

#include "RecordingPlayback.h"

#include "DeviceFixture.h"
#include "Recorder.h"
#include "RecordingHandlers.h"

#include <Tavro8/ResultCode.h>
#include <atomic>
#include <cstdint>
#include <functional>
#include <future>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace
{
using namespace Uniview;
using namespace kelvo::test;
using namespace Tavro8::Utility::testkit;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::GDRV::DateTimeRange;
using Results = PlaybackHandler::Results;
using Times = std::vector<std::int64_t>;
using Connection = ScriptedPeer::Connection;
using Request = ScriptedPeer::Request;

constexpr auto beginMs = static_cast<std::uint64_t>(recordedMs);
constexpr DateTimeRange hour{beginMs, beginMs + 3'600'000};

std::string okFor(const Request& request)
{
    const std::string scale = headerOf(request, "scale");
    const std::string frames = headerOf(request, "frames");
    return "Session: 88\r\n" + (scale.empty() ? "" : "Scale: " + scale + "\r\n") +
           (frames.empty() ? "" : "Frames: " + frames + "\r\n");
}

/// The same recorder, but for its answer to one more request.
Camera withAnswer(Camera recorder, const std::string& method, OnPlay onRequest)
{
    recorder.intercept = [others = recorder.intercept, method,
                          onRequest = std::move(onRequest)](Connection& connection, const Request& request) {
        if (request.method != method)
            return others(connection, request);
        onRequest(connection, request);
        return true;
    };
    return recorder;
}

/// Says nothing of speed and key frames.
bool isPlain(const Request& request)
{
    return headerOf(request, "scale").empty() && headerOf(request, "frames").empty();
}

/// The sequence numbers of each PLAY begin elsewhere.
std::uint16_t sequenceOf(int round)
{
    return static_cast<std::uint16_t>(1000 * round);
}

/// A host's logger that calls the module.
class CallingLogger final : public Tavro8::ILogger {
public:
    void* FindContract(const char* name) noexcept override
    {
        return Tavro8::findContractIn<Tavro8::ILogger, Tavro8::IContract>(this, name);
    }
    Tavro8::LogSeverity GetLevel() const noexcept override { return Tavro8::LogSeverity::info; }
    void Log(Tavro8::LogSeverity, const char*, const char*, int, const char* message) noexcept override
    {
        if (std::string(message).find("Playing of recordings (") != std::string::npos)
            result = playback->Play();
    }
    void Destroy() noexcept override {}

    Tavro8::GDRV::IRecordingPlayback* playback = nullptr;
    std::int32_t result = -1;
};

class RecordingPlaybackTest : public Uniview::test::DeviceFixture {
protected:
    /// The device goes before those that hear of its recordings.
    ~RecordingPlaybackTest() override
    {
        if (playback != nullptr)
            playback->Destroy();
        if (device != nullptr)
            std::exchange(device, nullptr)->Destroy();
    }

    void make(const Camera& recorder, std::uint32_t channel = 0, const Tavro8::ParameterMap& parameters = {})
    {
        rtsp.emplace(recorder.script());
        DeviceFixture::make(4);
        peer.answer(Uniview::test::portPath, 200, "\"RTSPPort\":\t" + std::to_string(rtsp->port()));
        peer.answer(Uniview::test::infoPath, 200, Uniview::test::deviceInfo(1));
        connect();
        frames.keepFrames = true;
        ASSERT_EQ(device->CreateRecordingPlayback(channel, &handler, &frames, parameters, &playback), 0);
    }
    void make(OnPlay onPlay) { make(recorderWith(std::move(onPlay))); }
    void openAndPlay()
    {
        ASSERT_EQ(playback->Open(hour), 0);
        ASSERT_EQ(playback->Play(), 0);
        ASSERT_TRUE(handler.waitOpened());
        ASSERT_EQ(handler.opened(), Results{0});
    }
    Times times()
    {
        Times all;
        for (const auto& frame : frames.takeFrames())
            all.push_back(frame->timestampMs - recordedMs);
        return all;
    }
    std::vector<Request> plays() const
    {
        auto all = rtsp->requests();
        std::erase_if(all, [](const Request& request) { return request.method != "PLAY"; });
        return all;
    }
    /// Behind everything that the object has been told so far.
    void settle()
    {
        service->barrier();
        service->barrier();
    }

    PlaybackHandler handler;
    ChannelHandler frames;
    // What the peer's script uses goes after the peer, which may be at work until then.
    int round = 0;
    std::optional<RecordingSender> sender;
    std::atomic<std::size_t> sent{0};
    std::atomic<unsigned> status{0};
    std::optional<ScriptedPeer> rtsp;
    Tavro8::GDRV::IRecordingPlayback* playback = nullptr;
};

TEST_F(RecordingPlaybackTest, playsAnIntervalToItsEnd)
{
    make(recorderWith([](Connection& connection, const Request& request) {
             connection.reply(request, 200, okFor(request));
             RecordingSender(connection).report(recordedMs).keyFrame().picture().bye();
         }),
         2);
    EXPECT_EQ(playback->GetChannelIndex(), 2U);
    openAndPlay();
    ASSERT_TRUE(handler.waitEnd());
    EXPECT_EQ(times(), (Times{0, 40}));
    EXPECT_TRUE(frames.waitState(0));
    EXPECT_EQ(rtsp->requests()[1].uri,
              "rtsp://127.0.0.1:" + std::to_string(rtsp->port()) + "/c3/b1493172645/e1493176245/replay/");
    EXPECT_EQ(headerOf(plays().at(0), "range"), "clock=20170426T021045Z-20170426T031045Z");
    EXPECT_TRUE(handler.closed().empty());
    playback->Close();
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.closed(), Results{0});
    EXPECT_EQ(handler.ends(), 1U);
    EXPECT_TRUE(handler.gaps().empty());
}

TEST_F(RecordingPlaybackTest, nothingIsPlayedBeforePlay)
{
    make([](Connection& connection, const Request& request) { connection.reply(request, 200, okFor(request)); });
    ASSERT_EQ(playback->Open(hour), 0);
    ASSERT_TRUE(handler.waitOpened());
    settle();
    EXPECT_EQ(rtsp->count("PLAY"), 0U);
    playback->Close();
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.closed(), Results{0});
}

TEST_F(RecordingPlaybackTest, soundAndPicturesComeThroughOneHandler)
{
    make(recorderWith(
        [](Connection& connection, const Request& request) {
            connection.reply(request, 200, okFor(request));
            RecordingSender(connection).keyFrame();
            connection.sendFrame(2, rtp(0, 7, 160, false, Bytes(160, 0x55), 0x99));
        },
        videoAndAudioSdp));
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(2));
    const auto taken = frames.takeFrames();
    EXPECT_EQ(taken[0]->codec, Tavro8::GDRV::MediaCodec::h264);
    EXPECT_EQ(taken[1]->codec, Tavro8::GDRV::MediaCodec::g711U);
    EXPECT_EQ(taken[1]->timestampMs, recordedMs);
}

TEST_F(RecordingPlaybackTest, gapsAreToldInFrontOfTheFrameBehindThem)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection)
            .report(recordedMs)
            .keyFrame()
            .picture()
            .report(recordedMs + 600'000)
            .keyFrame()
            .report(recordedMs + 600'900)
            .picture()
            .bye();
    });
    std::size_t framesAtTheGap = 0;
    handler.onGap = [&](auto*) { framesAtTheGap = frames.frameTotal(); };
    openAndPlay();
    ASSERT_TRUE(handler.waitEnd());
    EXPECT_EQ(handler.gaps(), (std::vector<DateTimeRange>{{beginMs + 80, beginMs + 600'000}}));
    EXPECT_EQ(framesAtTheGap, 2U);
    EXPECT_EQ(times(), (Times{0, 40, 600'000, 600'900}));
}

TEST_F(RecordingPlaybackTest, aRecordingThatBeginsLaterBeginsWithAGap)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, "Range: clock=20170426T021545Z-\r\n");
        RecordingSender(connection).keyFrame();
    });
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(handler.gaps(), (std::vector<DateTimeRange>{{beginMs, beginMs + 300'000}}));
}

TEST_F(RecordingPlaybackTest, mediaBeforePlayAreNotTold)
{
    make(withAnswer(recorderWith({}), "SETUP", [](Connection& connection, const Request& request) {
        connection.reply(request, 200, "Session: 88\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
        RecordingSender(connection).report(recordedMs + 60'000).keyFrame().keyFrame();
        connection.close();
    }));
    ASSERT_EQ(playback->Open(hour), 0);
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.opened(), Results{0});
    EXPECT_EQ(frames.frameTotal(), 0U);
    EXPECT_TRUE(handler.gaps().empty());
}

TEST_F(RecordingPlaybackTest, mediaAfterPauseAreNotTold)
{
    const Camera recorder = recorderWith([&](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        sender.emplace(connection).keyFrame();
    });
    make(withAnswer(recorder, "PAUSE", [&](Connection& connection, const Request& request) {
        connection.reply(request, 200);
        sender->picture().picture();
        connection.close();
    }));
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(playback->Pause(), 0);
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(times(), Times{0});
}

TEST_F(RecordingPlaybackTest, anEndBeyondWhatDevicesKnowIsTheLastThatTheyDo)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).keyFrame();
    });
    ASSERT_EQ(playback->Open({beginMs, std::numeric_limits<std::uint64_t>::max()}), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_TRUE(rtsp->requests()[1].uri.ends_with("/c1/b1493172645/e4294967295/replay/"));
    EXPECT_EQ(headerOf(plays().at(0), "range"), "clock=20170426T021045Z-21060207T062815Z");
    EXPECT_EQ(playback->Seek(4'294'967'295'000), toResult(ResultCode::outOfRange));
}

TEST_F(RecordingPlaybackTest, picturesThatComeSlowlyAreNoGaps)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).report(recordedMs).keyFrame(450'000).picture(450'000).picture(450'000).bye();
    });
    openAndPlay();
    ASSERT_TRUE(handler.waitEnd());
    EXPECT_EQ(times(), (Times{0, 5000, 10'000}));
    EXPECT_TRUE(handler.gaps().empty());
}

TEST_F(RecordingPlaybackTest, soundTellsGapsAndTheEndWhereThePicturesAreRefused)
{
    const auto sound = [](Connection& connection, std::int64_t timeMs, std::uint16_t sequence) {
        connection.sendFrame(3, senderReport(0x99, ntpOf(timeMs), sequence * 160U));
        connection.sendFrame(2, rtp(0, sequence, sequence * 160U, false, Bytes(160, 0x55), 0x99));
    };
    const Camera recorder = recorderWith(
        [sound](Connection& connection, const Request& request) {
            connection.reply(request, 200, okFor(request));
            sound(connection, recordedMs, 1);
            sound(connection, recordedMs + 3'599'900, 2);
            connection.close();
        },
        videoAndAudioSdp);
    make(withAnswer(recorder, "SETUP", [](Connection& connection, const Request& request) {
        if (request.uri.ends_with("track1"))
            connection.reply(request, 404);
        else
            connection.reply(request, 200, "Session: 88\r\nTransport: " + headerOf(request, "transport") + "\r\n");
    }));
    openAndPlay();
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(frames.frameTotal(), 2U);
    EXPECT_EQ(handler.gaps(), (std::vector<DateTimeRange>{{beginMs + 20, beginMs + 3'599'900}}));
    EXPECT_EQ(handler.ends(), 1U);
    EXPECT_EQ(handler.closed(), Results{0});
}

TEST_F(RecordingPlaybackTest, pausesAndPlaysOnWithoutARange)
{
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        if (sender)
            sender->picture();
        else
            sender.emplace(connection).keyFrame();
    });
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(playback->Pause(), 0);
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(2));
    EXPECT_EQ(times(), (Times{0, 40}));
    EXPECT_EQ(rtsp->count("PAUSE"), 1U);
    ASSERT_EQ(plays().size(), 2U);
    EXPECT_EQ(headerOf(plays()[1], "range"), "");
}

TEST_F(RecordingPlaybackTest, seeksForthAndBackAndStampsAnew)
{
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, 200, "Range: " + headerOf(request, "range") + "\r\n");
        RecordingSender(connection, 90000, sequenceOf(++round)).keyFrame();
    });
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(playback->Seek(beginMs + 1'800'500), 0);
    ASSERT_TRUE(frames.waitFrames(2));
    EXPECT_EQ(playback->Seek(beginMs + 60'000), 0);
    ASSERT_TRUE(frames.waitFrames(3));
    EXPECT_EQ(times(), (Times{0, 1'800'000, 60'000}));
    EXPECT_TRUE(handler.gaps().empty()) << "a leap that the host has asked for is no gap";
    EXPECT_EQ(playback->Seek(hour.end), toResult(ResultCode::outOfRange));
    EXPECT_EQ(playback->Seek(hour.begin - 1), toResult(ResultCode::outOfRange));
}

TEST_F(RecordingPlaybackTest, wishesThatFollowFastCostOneRequestAtATime)
{
    std::promise<void> go;
    auto gate = go.get_future().share();
    make([&, gate](Connection& connection, const Request& request) {
        if (++round == 1)
            gate.wait();
        connection.reply(request, 200, "Range: " + headerOf(request, "range") + "\r\n");
        RecordingSender(connection, 90000, sequenceOf(round)).keyFrame();
    });
    ASSERT_EQ(playback->Open(hour), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(handler.waitOpened());
    for (std::uint64_t second = 1; second <= 50; ++second)
        ASSERT_EQ(playback->Seek(beginMs + second * 1000), 0);
    settle();
    go.set_value();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(times(), Times{50'000}) << "the first place is the old one before its first frame is there";
    EXPECT_EQ(plays().size(), 2U);
}

TEST_F(RecordingPlaybackTest, playBehindTheEndBeginsAgain)
{
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection, 90000, sequenceOf(++round)).keyFrame().bye();
    });
    openAndPlay();
    ASSERT_TRUE(handler.waitEnd());
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(handler.waitEnd(2));
    EXPECT_EQ(times(), (Times{0, 0}));
    EXPECT_EQ(headerOf(plays().at(1), "range"), headerOf(plays().at(0), "range"));
}

TEST_F(RecordingPlaybackTest, playBehindAnEndThatNoneWasToldOfBeginsAgain)
{
    const Camera recorder = recorderWith([&](Connection& connection, const Request& request) {
        connection.reply(request, headerOf(request, "range").empty() ? 457 : 200);
        if (!headerOf(request, "range").empty())
            sender.emplace(connection, 90000, sequenceOf(++round)).report(recordedMs + 3'599'000).keyFrame();
    });
    make(withAnswer(recorder, "PAUSE", [&](Connection& connection, const Request& request) {
        sender->bye();
        connection.reply(request, 200);
    }));
    frames.onFrame = [this](Tavro8::IContract*) {
        if (frames.frameTotal() == 1) {
            EXPECT_EQ(playback->Pause(), 0);
            EXPECT_EQ(playback->Play(), 0);
        }
    };
    openAndPlay();
    ASSERT_TRUE(handler.waitEnd());
    EXPECT_EQ(frames.streamStates(), (Results{0, toResult(ResultCode::streamRefused)}));
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(2));
    EXPECT_EQ(headerOf(plays().at(2), "range"), headerOf(plays().at(0), "range"));
}

TEST_F(RecordingPlaybackTest, aSeekFromInsideTheEndGoesOn)
{
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender sender(connection, 90000, sequenceOf(++round));
        sender.keyFrame();
        if (round == 1)
            sender.bye();
    });
    handler.onEnd = [](Tavro8::GDRV::IRecordingPlayback* ended) {
        ended->Seek(beginMs + 5000);
        ended->Play();
    };
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(2));
    EXPECT_EQ(times(), (Times{0, 5000}));
}

TEST_F(RecordingPlaybackTest, aSeekBehindTheEndIsNotLostWhileItsAnswerIsAwaited)
{
    std::promise<void> go;
    auto gate = go.get_future().share();
    make([&, gate](Connection& connection, const Request& request) {
        if (++round == 2)
            gate.wait();
        connection.reply(request, 200, okFor(request));
        RecordingSender sender(connection, 90000, sequenceOf(round));
        sender.keyFrame();
        if (round == 1)
            sender.bye();
    });
    openAndPlay();
    ASSERT_TRUE(handler.waitEnd());
    EXPECT_EQ(playback->Seek(beginMs + 600'000), 0);
    EXPECT_EQ(playback->Play(), 0);
    EXPECT_EQ(playback->Pause(), 0);
    EXPECT_EQ(playback->Play(), 0);
    EXPECT_EQ(playback->Play(), 0);
    settle();
    go.set_value();
    ASSERT_TRUE(frames.waitFrames(2));
    EXPECT_EQ(times(), (Times{0, 600'000}));
    settle();
    EXPECT_EQ(plays().size(), 2U);
}

TEST_F(RecordingPlaybackTest, aRecorderThatDoesNotStopAtTheEndIsPaused)
{
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender sender(connection, 90000, sequenceOf(++round));
        sender.report(recordedMs).keyFrame();
        if (round == 1)
            sender.report(recordedMs + 3'602'000).picture().report(recordedMs + 3'606'000).picture().keyFrame();
    });
    openAndPlay();
    ASSERT_TRUE(handler.waitEnd());
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(3));
    EXPECT_EQ(times(), (Times{0, 3'602'000, 0})) << "the last group of pictures may go on a little";
    EXPECT_EQ(handler.ends(), 1U);
    EXPECT_EQ(rtsp->count("PAUSE"), 1U);
    EXPECT_EQ(headerOf(plays().at(1), "range"), headerOf(plays().at(0), "range"));
}

TEST_F(RecordingPlaybackTest, playsFasterAndKeyFramesOnlyWhereTheDeviceOffersIt)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).keyFrame();
    });
    ASSERT_EQ(playback->Open(hour), 0);
    EXPECT_EQ(playback->SetSpeed(8, true), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(headerOf(plays().at(0), "scale"), "8");
    EXPECT_EQ(headerOf(plays().at(0), "frames"), "intra");
    EXPECT_TRUE(frames.waitState(0));
    for (const std::uint32_t factor : {0U, 3U, 16U})
        EXPECT_EQ(playback->SetSpeed(factor, false), toResult(ResultCode::outOfRange));
}

TEST_F(RecordingPlaybackTest, whatTheDeviceDoesNotOfferIsToldAndThenRefused)
{
    make([](Connection& connection, const Request& request) { connection.reply(request, 200); });
    openAndPlay();
    ASSERT_TRUE(frames.waitState(0));
    EXPECT_EQ(playback->SetSpeed(1, true), 0);
    ASSERT_TRUE(frames.waitState(toResult(ResultCode::notSupported)));
    settle();
    EXPECT_EQ(playback->SetSpeed(1, true), toResult(ResultCode::notSupported));
    EXPECT_EQ(playback->SetSpeed(4, false), 0);
    ASSERT_TRUE(logger.waitFor("the device does not offer this speed"));
    settle();
    EXPECT_EQ(playback->SetSpeed(2, false), toResult(ResultCode::notSupported));
    EXPECT_EQ(playback->SetSpeed(1, false), 0);
    EXPECT_TRUE(handler.closed().empty());
}

TEST_F(RecordingPlaybackTest, aSeekThatTheDeviceRefusesIsToldAndTheRestGoesOn)
{
    make([&](Connection& connection, const Request& request) {
        if (!sender)
            sender.emplace(connection);
        connection.reply(request, ++round == 2 ? 457 : 200);
        round == 1 ? sender->keyFrame() : sender->picture();
    });
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(playback->Seek(beginMs + 60'000), 0);
    ASSERT_TRUE(frames.waitState(toResult(ResultCode::streamRefused)));
    ASSERT_TRUE(frames.waitFrames(2));
    EXPECT_EQ(times(), (Times{0, 40}));
    EXPECT_TRUE(handler.gaps().empty());
}

TEST_F(RecordingPlaybackTest, anotherSpeedThanTheOneAskedForIsTold)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, "Scale: 0.5\r\n");
        RecordingSender(connection).keyFrame();
    });
    ASSERT_EQ(playback->Open(hour), 0);
    EXPECT_EQ(playback->SetSpeed(8, false), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitState(toResult(ResultCode::notSupported)));
    settle();
    EXPECT_EQ(playback->SetSpeed(8, false), toResult(ResultCode::notSupported));
    EXPECT_EQ(playback->SetSpeed(2, false), toResult(ResultCode::notSupported)) << "half is less than that, too";
    EXPECT_EQ(plays().size(), 1U) << "a speed that the device has refused is not asked for again";
}

TEST_F(RecordingPlaybackTest, aSlowerSpeedThanTheOneAskedForStaysOnOffer)
{
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, 200, ++round == 1 ? "Scale: 3.9\r\n" : "Scale: 2.2\r\n");
        RecordingSender(connection).keyFrame();
    });
    ASSERT_EQ(playback->Open(hour), 0);
    EXPECT_EQ(playback->SetSpeed(8, false), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitState(toResult(ResultCode::notSupported)));
    ASSERT_TRUE(logger.waitFor("the device does not offer this speed: asked 8, plays at 3.9"));
    settle();
    EXPECT_EQ(playback->SetSpeed(8, false), toResult(ResultCode::notSupported));
    EXPECT_EQ(playback->SetSpeed(2, false), 0);
    EXPECT_TRUE(frames.waitState(0)) << "nearly the speed is the speed";
}

TEST_F(RecordingPlaybackTest, aRecorderThatRefusesToHearOfASpeedPlaysAtItsOwn)
{
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, isPlain(request) ? 200 : status.load());
        if (isPlain(request))
            RecordingSender(connection, 90000, sequenceOf(++round)).keyFrame();
    });
    const unsigned refusals[] = {551, 501, 404, 406, 457};
    std::size_t opened = 0;
    for (const unsigned refusal : refusals) {
        SCOPED_TRACE(refusal);
        status = refusal;
        ASSERT_EQ(playback->Open(hour), 0);
        ASSERT_EQ(playback->SetSpeed(8, false), 0);
        ASSERT_EQ(playback->Play(), 0);
        ASSERT_TRUE(frames.waitFrames(++opened));
        settle();
        EXPECT_EQ(frames.streamStates(), Results(opened, toResult(ResultCode::notSupported)));
        EXPECT_EQ(playback->SetSpeed(2, false), toResult(ResultCode::notSupported));
        playback->Close();
        ASSERT_TRUE(handler.waitClosed(opened));
    }
    EXPECT_EQ(times(), Times(std::size(refusals), 0));
    const auto all = plays();
    ASSERT_EQ(all.size(), 2 * std::size(refusals));
    EXPECT_EQ(headerOf(all[0], "scale"), "8");
    EXPECT_EQ(headerOf(all[1], "range"), headerOf(all[0], "range"));
}

TEST_F(RecordingPlaybackTest, aRecorderThatRefusesToHearOfKeyFramesPlaysAllOfThem)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, isPlain(request) ? 200 : 551);
        if (isPlain(request))
            RecordingSender(connection).keyFrame();
    });
    ASSERT_EQ(playback->Open(hour), 0);
    ASSERT_EQ(playback->SetSpeed(1, true), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    settle();
    EXPECT_EQ(frames.streamStates(), Results{toResult(ResultCode::notSupported)});
    EXPECT_EQ(playback->SetSpeed(1, true), toResult(ResultCode::notSupported));
    EXPECT_EQ(playback->SetSpeed(8, false), 0) << "it was not asked for";
}

TEST_F(RecordingPlaybackTest, aSeekWhoseSpeedIsRefusedGoesOnWithoutIt)
{
    make([&](Connection& connection, const Request& request) {
        const bool refused = ++round > 1 && !isPlain(request);
        connection.reply(request, refused ? 551 : 200, refused ? "" : okFor(request));
        if (!refused)
            RecordingSender(connection, 90000, sequenceOf(round)).keyFrame();
    });
    ASSERT_EQ(playback->Open(hour), 0);
    ASSERT_EQ(playback->SetSpeed(8, false), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    ASSERT_EQ(playback->Seek(beginMs + 60'000), 0);
    ASSERT_TRUE(frames.waitFrames(2));
    ASSERT_EQ(playback->Seek(beginMs + 120'000), 0);
    ASSERT_TRUE(frames.waitFrames(3));
    settle();
    EXPECT_EQ(times(), (Times{0, 60'000, 120'000}));
    EXPECT_EQ(frames.streamStates(), (Results{0, toResult(ResultCode::notSupported), 0}));
    EXPECT_EQ(playback->SetSpeed(8, false), toResult(ResultCode::notSupported));
    const auto all = plays();
    ASSERT_EQ(all.size(), 4U) << "the second seek asks for no speed";
    EXPECT_EQ(headerOf(all[1], "scale"), "8");
    EXPECT_TRUE(isPlain(all[2]));
    EXPECT_EQ(headerOf(all[2], "range"), headerOf(all[1], "range"));
}

TEST_F(RecordingPlaybackTest, aSpeedThatIsRefusedWhilePlayingLeavesTheOneBefore)
{
    make([&](Connection& connection, const Request& request) {
        if (!sender)
            sender.emplace(connection);
        const bool refused = headerOf(request, "scale") == "8";
        connection.reply(request, refused ? 551 : 200, refused ? "" : okFor(request));
        if (!refused)
            round++ == 0 ? sender->keyFrame() : sender->picture();
    });
    ASSERT_EQ(playback->Open(hour), 0);
    ASSERT_EQ(playback->SetSpeed(4, false), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    ASSERT_EQ(playback->SetSpeed(8, false), 0);
    ASSERT_TRUE(frames.waitFrames(2));
    settle();
    EXPECT_EQ(frames.streamStates(), (Results{0, toResult(ResultCode::notSupported)}));
    EXPECT_EQ(playback->SetSpeed(8, false), toResult(ResultCode::notSupported));
    EXPECT_EQ(playback->SetSpeed(4, false), 0);
    settle();
    ASSERT_EQ(plays().size(), 3U);
    EXPECT_EQ(headerOf(plays()[2], "scale"), "4");
}

TEST_F(RecordingPlaybackTest, aPlayThatIsRefusedWithoutASpeedAsWellIsARefusal)
{
    status = 551;
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, status.load());
        if (status == 200)
            RecordingSender(connection).keyFrame();
    });
    ASSERT_EQ(playback->Open(hour), 0);
    ASSERT_EQ(playback->SetSpeed(8, true), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitState(toResult(ResultCode::streamRefused)));
    settle();
    EXPECT_EQ(frames.streamStates(), Results{toResult(ResultCode::streamRefused)});
    EXPECT_EQ(plays().size(), 2U);
    EXPECT_TRUE(handler.closed().empty());
    status = 200;
    EXPECT_EQ(playback->SetSpeed(8, true), 0) << "nothing was shown of that";
    EXPECT_EQ(playback->SetSpeed(1, false), 0);
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_TRUE(isPlain(plays().at(2))) << "no speed was taken that had to be left";
}

TEST_F(RecordingPlaybackTest, aPauseThatTheDeviceDoesNotKnowIsNoMatterOfSpeed)
{
    const Camera recorder = recorderWith([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).keyFrame();
    });
    make(withAnswer(recorder, "PAUSE",
                    [](Connection& connection, const Request& request) { connection.reply(request, 551); }));
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(playback->Pause(), 0);
    ASSERT_TRUE(frames.waitState(toResult(ResultCode::requestRejected)));
    EXPECT_EQ(frames.streamStates(), (Results{0, toResult(ResultCode::requestRejected)}));
}

TEST_F(RecordingPlaybackTest, aRefusedSeekIsLeftByPlay)
{
    make([&](Connection& connection, const Request& request) {
        const bool refused = headerOf(request, "range").starts_with("clock=20170426T022045Z");
        connection.reply(request, refused ? 457 : 200);
        if (!refused)
            RecordingSender(connection, 90000, sequenceOf(++round)).keyFrame();
    });
    const auto seekInVain = [&] {
        EXPECT_EQ(playback->Seek(beginMs + 600'000), 0);
        EXPECT_EQ(playback->Play(), 0);
        EXPECT_TRUE(frames.waitState(toResult(ResultCode::streamRefused)));
    };
    ASSERT_EQ(playback->Open(hour), 0);
    seekInVain();
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(playback->Pause(), 0);
    seekInVain();
    ASSERT_TRUE(logger.waitFor("/replay/: 457 ", 2));
    settle();
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(2));
    const auto all = plays();
    ASSERT_EQ(all.size(), 4U);
    EXPECT_TRUE(headerOf(all[1], "range").starts_with("clock=20170426T021045Z"))
        << "the begin, where nothing was played";
    EXPECT_EQ(headerOf(all[3], "range"), "") << "on from where it was paused";
}

TEST_F(RecordingPlaybackTest, aPlayThatIsRefusedIsToldAndMayBeTriedAgain)
{
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, ++round == 1 ? 404 : 200);
        if (round == 2)
            RecordingSender(connection).keyFrame();
    });
    openAndPlay();
    ASSERT_TRUE(frames.waitState(toResult(ResultCode::resourceNotFound)));
    EXPECT_TRUE(handler.closed().empty());
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(times(), Times{0});
    EXPECT_EQ(headerOf(plays().at(1), "range"), headerOf(plays().at(0), "range"));
}

TEST_F(RecordingPlaybackTest, whatTheRecorderDoesNotHaveIsAFailureOfOpening)
{
    const struct {
        unsigned status;
        ResultCode result;
    } cases[] = {{404, ResultCode::resourceNotFound},
                 {599, ResultCode::deviceError},
                 {454, ResultCode::resourceNotFound},
                 {453, ResultCode::deviceBusy}};
    Camera recorder = recorderWith({});
    recorder.intercept = [&](Connection& connection, const Request& request) {
        return request.method == "DESCRIBE" && connection.reply(request, status);
    };
    make(recorder);
    std::size_t times = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.status);
        status = c.status;
        ASSERT_EQ(playback->Open(hour), 0);
        ASSERT_TRUE(handler.waitOpened(++times));
        EXPECT_EQ(handler.opened().back(), toResult(c.result));
        settle();
    }
    EXPECT_TRUE(handler.closed().empty());
    EXPECT_EQ(playback->Play(), toResult(ResultCode::invalidState));
}

TEST_F(RecordingPlaybackTest, aConnectionThatIsLostIsToldAndNotMadeAgain)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).keyFrame();
        connection.close();
    });
    openAndPlay();
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.closed(), Results{toResult(ResultCode::connectionLost)});
    EXPECT_EQ(handler.ends(), 0U);
    EXPECT_EQ(playback->Play(), toResult(ResultCode::invalidState));
    EXPECT_EQ(rtsp->connectionCount(), 1U);
    EXPECT_EQ(playback->Open(hour), 0) << "by the host it may be opened again";
    EXPECT_TRUE(handler.waitOpened(2));
}

TEST_F(RecordingPlaybackTest, aConnectionThatIsClosedAtTheEndOfTheIntervalIsTheEnd)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).keyFrame().report(recordedMs + 3'599'000).picture();
        connection.close();
    });
    openAndPlay();
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.ends(), 1U);
    EXPECT_EQ(handler.closed(), Results{0});
}

TEST_F(RecordingPlaybackTest, aConnectionThatIsLostFarFromTheEndIsLostAtAnySpeed)
{
    static constexpr struct {
        std::uint32_t speed;
        std::int64_t apartMs;      // the last two frames
        std::int64_t beforeEndMs;  // the last one
        bool isEnd;
    } cases[] = {{8, 40, 10'000, false}, {8, 40, 1500, true}, {8, 4000, 5000, true}, {8, 600'000, 20'000, false}};
    make([&](Connection& connection, const Request& request) {
        const auto& c = cases[static_cast<std::size_t>(round++) % std::size(cases)];
        connection.reply(request, 200, okFor(request));
        const std::int64_t lastMs = recordedMs + 3'600'000 - c.beforeEndMs;
        RecordingSender(connection)
            .report(lastMs - c.apartMs)
            .keyFrame(static_cast<std::uint32_t>(c.apartMs * 90))
            .report(lastMs)
            .keyFrame();
        connection.close();
    });
    std::size_t times = 0;
    std::size_t ends = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.beforeEndMs);
        ASSERT_EQ(playback->Open(hour), 0);
        ASSERT_EQ(playback->SetSpeed(c.speed, false), 0);
        ASSERT_EQ(playback->Play(), 0);
        ASSERT_TRUE(handler.waitClosed(++times));
        EXPECT_EQ(handler.closed().back(), c.isEnd ? 0 : toResult(ResultCode::connectionLost));
        EXPECT_EQ(handler.ends(), ends += c.isEnd ? 1 : 0);
        EXPECT_EQ(frames.frameTotal(), 2 * times);
    }
}

TEST_F(RecordingPlaybackTest, aConnectionThatIsLostOnTheWayBackFromTheEndIsNoEnd)
{
    make([&](Connection& connection, const Request& request) {
        if (++round == 2)
            return connection.close();
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).report(recordedMs + 3'599'000).keyFrame().bye();
    });
    openAndPlay();
    ASSERT_TRUE(handler.waitEnd());
    EXPECT_EQ(playback->Seek(beginMs), 0);
    EXPECT_EQ(playback->Play(), 0);
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.closed(), Results{toResult(ResultCode::connectionLost)});
    EXPECT_EQ(handler.ends(), 1U);
}

TEST_F(RecordingPlaybackTest, aConnectionThatIsLostWhilePausedNearTheEndIsNoEnd)
{
    const Camera recorder = recorderWith([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).report(recordedMs + 3'599'000).keyFrame();
    });
    make(withAnswer(recorder, "PAUSE", [](Connection& connection, const Request& request) {
        connection.reply(request, 200);
        connection.close();
    }));
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(playback->Pause(), 0);
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.closed(), Results{toResult(ResultCode::connectionLost)});
    EXPECT_EQ(handler.ends(), 0U);
}

TEST_F(RecordingPlaybackTest, silenceIsAStallOnlyWhilePlaying)
{
    const Tavro8::ParameterMap impatient{{"stallTimeout", 1}};
    make(recorderWith([](Connection& connection, const Request& request) {
             RecordingSender(connection).keyFrame();
             connection.reply(request, 200, okFor(request));
         }),
         0, impatient);
    // Before PLAY is answered, however long that takes: silence counts from then on.
    frames.onFrame = [this](Tavro8::IContract*) { EXPECT_EQ(playback->Pause(), 0); };
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    // Another one, which falls silent later, shows that the time of the first is over.
    PlaybackHandler stalled;
    Tavro8::GDRV::IRecordingPlayback* other = nullptr;
    ASSERT_EQ(device->CreateRecordingPlayback(0, &stalled, &frames, impatient, &other), 0);
    ASSERT_EQ(other->Open(hour), 0);
    ASSERT_EQ(other->Play(), 0);
    ASSERT_TRUE(stalled.waitClosed());
    other->Destroy();
    EXPECT_EQ(stalled.closed(), Results{toResult(ResultCode::timedOut)});
    EXPECT_TRUE(handler.closed().empty());
}

TEST_F(RecordingPlaybackTest, closeWhileOpeningTellsBoth)
{
    Camera recorder = recorderWith({});
    recorder.intercept = [](Connection&, const Request& request) { return request.method == "DESCRIBE"; };
    make(recorder);
    ASSERT_EQ(playback->Open(hour), 0);
    playback->Close();
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.opened(), Results{toResult(ResultCode::cancelled)});
    EXPECT_EQ(handler.closed(), Results{0});
    playback->Close();
    settle();
    EXPECT_EQ(handler.closed().size(), 1U);
}

TEST_F(RecordingPlaybackTest, mayBeOpenedAnewRightBehindClose)
{
    Camera recorder = recorderWith([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).keyFrame();
    });
    const auto hangs = std::make_shared<std::atomic<bool>>(true);
    const auto asked = std::make_shared<std::promise<void>>();
    recorder.intercept = [hangs, asked, onPlay = recorder.intercept](Connection& connection, const Request& request) {
        if (request.method != "DESCRIBE" || !hangs->exchange(false))
            return onPlay(connection, request);
        asked->set_value();
        return true;
    };
    make(recorder);
    ASSERT_EQ(playback->Open(hour), 0);
    EXPECT_EQ(playback->Open(hour), toResult(ResultCode::invalidState)) << "one at a time";
    asked->get_future().wait();
    playback->Close();
    ASSERT_EQ(playback->Open({beginMs + 5000, hour.end}), 0);
    ASSERT_EQ(playback->Play(), 0);
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_EQ(times(), Times{5000});
    EXPECT_EQ(handler.opened(), (Results{toResult(ResultCode::cancelled), 0}));
    EXPECT_EQ(handler.closed(), Results{0});
}

TEST_F(RecordingPlaybackTest, openAndCloseOfSeveralThreadsTellEachOpening)
{
    constexpr int rounds = 60;
    make([](Connection& connection, const Request& request) { connection.reply(request, 200); });
    std::size_t taken = 0;
    std::thread opener([&] {
        for (int i = 0; i < rounds; ++i)
            taken += playback->Open(hour) == 0 ? 1U : 0U;
    });
    std::thread closer([&] {
        for (int i = 0; i < rounds; ++i)
            playback->Close();
    });
    opener.join();
    closer.join();
    playback->Close();
    ASSERT_GT(taken, 0U);
    EXPECT_TRUE(handler.waitClosed(taken));
    settle();
    EXPECT_EQ(handler.opened().size(), taken);
    EXPECT_EQ(handler.closed(), Results(taken, 0));
}

TEST_F(RecordingPlaybackTest, theHostMayCallItFromItsLogger)
{
    rtsp.emplace(recorderWith([](Connection& connection, const Request& request) {
                     connection.reply(request, 200, okFor(request));
                     RecordingSender(connection).keyFrame();
                 }).script());
    CallingLogger calling;
    DeviceFixture::make();
    leave();
    const auto traits = std::make_shared<DeviceTraits>();
    traits->videoChannelCount = 1;
    device = Device::create(&this->DeviceFixture::handler, &calling, traits, *service);
    peer.answer(Uniview::test::portPath, 200, "\"RTSPPort\":\t" + std::to_string(rtsp->port()));
    connect();
    ASSERT_EQ(device->CreateRecordingPlayback(0, &handler, &frames, {}, &playback), 0);
    calling.playback = playback;
    ASSERT_EQ(playback->Open(hour), 0);
    EXPECT_EQ(calling.result, 0);
    EXPECT_TRUE(frames.waitFrames(1));
    std::exchange(playback, nullptr)->Destroy();
    leave();
}

TEST_F(RecordingPlaybackTest, destroyInsideOpenedAsksTheDeviceForNothing)
{
    make([](Connection& connection, const Request& request) { connection.reply(request, 200, okFor(request)); });
    std::promise<void> destroyed;
    handler.onOpened = [&](Tavro8::GDRV::IRecordingPlayback* going) {
        going->Destroy();
        destroyed.set_value();
    };
    ASSERT_EQ(playback->Open(hour), 0);
    ASSERT_EQ(std::exchange(playback, nullptr)->Play(), 0);
    destroyed.get_future().get();
    leave();
    EXPECT_EQ(rtsp->count("TEARDOWN"), 1U);
    EXPECT_EQ(rtsp->count("PLAY"), 0U);
}

TEST_F(RecordingPlaybackTest, destroyInsideEveryCallbackIsTheLastCall)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).report(recordedMs).keyFrame().report(recordedMs + 60'000).picture().bye();
    });
    std::exchange(playback, nullptr)->Destroy();
    using Callback = std::function<void(Tavro8::GDRV::IRecordingPlayback*)>;
    const std::vector<Callback PlaybackHandler::*> callbacks = {&PlaybackHandler::onOpened, &PlaybackHandler::onGap,
                                                                &PlaybackHandler::onEnd, &PlaybackHandler::onClosed};
    for (std::size_t which = 0; which < callbacks.size(); ++which) {
        SCOPED_TRACE(which);
        PlaybackHandler once;
        ChannelHandler taker;
        std::promise<void> destroyed;
        once.*callbacks[which] = [&](Tavro8::GDRV::IRecordingPlayback* going) {
            going->Destroy();
            destroyed.set_value();
        };
        if (which == 3)
            once.onEnd = [](Tavro8::GDRV::IRecordingPlayback* going) { going->Close(); };
        Tavro8::GDRV::IRecordingPlayback* going = nullptr;
        ASSERT_EQ(device->CreateRecordingPlayback(0, &once, &taker, {}, &going), 0);
        ASSERT_EQ(going->Open(hour), 0);
        ASSERT_EQ(going->Play(), 0);
        destroyed.get_future().get();
        settle();
        EXPECT_EQ(once.gaps().size(), which >= 1 ? 1U : 0U);
        EXPECT_EQ(once.ends(), which >= 2 ? 1U : 0U);
        EXPECT_EQ(once.closed().size(), which >= 3 ? 1U : 0U);
        EXPECT_EQ(taker.frameTotal(), which == 0 ? 0U : which == 1 ? 1U : 2U);
    }
}

TEST_F(RecordingPlaybackTest, destroyInsideAFrameIsTheLastOfThem)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).keyFrame().picture().picture();
    });
    std::promise<void> destroyed;
    frames.onFrame = [&](Tavro8::IContract*) {
        std::exchange(playback, nullptr)->Destroy();
        destroyed.set_value();
    };
    openAndPlay();
    destroyed.get_future().get();
    settle();
    EXPECT_EQ(frames.frameTotal(), 1U);
}

TEST_F(RecordingPlaybackTest, destroyWhileFramesComeAndTheDeviceRightBehindIt)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender sender(connection);
        while (!connection.hasMore()) {
            sender.keyFrame();
            std::this_thread::yield();
        }
    });
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(10));
    std::exchange(playback, nullptr)->Destroy();
    const std::size_t last = frames.frameTotal();
    std::exchange(device, nullptr)->Destroy();
    settle();
    EXPECT_EQ(frames.frameTotal(), last);
}

TEST_F(RecordingPlaybackTest, closingTheDeviceEndsIt)
{
    make([](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        RecordingSender(connection).keyFrame();
    });
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    device->Close();
    ASSERT_TRUE(handler.waitClosed());
    EXPECT_EQ(handler.closed(), Results{toResult(ResultCode::cancelled)});
    EXPECT_EQ(playback->Open(hour), toResult(ResultCode::invalidState));
}

TEST_F(RecordingPlaybackTest, argumentsAndStatesThatMakeNoSenseAreRefused)
{
    DeviceFixture::make(2);
    EXPECT_EQ(device->CreateRecordingPlayback(2, &handler, &frames, {}, &playback), toResult(ResultCode::notFound));
    ASSERT_EQ(device->CreateRecordingPlayback(1, nullptr, nullptr, {}, &playback), 0);
    EXPECT_EQ(playback->Open(hour), toResult(ResultCode::invalidState)) << "the device has not connected";
    EXPECT_EQ(playback->Open({5, 5}), toResult(ResultCode::invalidArgument));
    EXPECT_EQ(playback->Open({4'294'967'296'000, 4'294'967'297'000}), toResult(ResultCode::outOfRange));
    EXPECT_EQ(playback->Play(), toResult(ResultCode::invalidState));
    EXPECT_EQ(playback->Pause(), toResult(ResultCode::invalidState));
    EXPECT_EQ(playback->Seek(5), toResult(ResultCode::invalidState));
    EXPECT_EQ(playback->SetSpeed(1, false), toResult(ResultCode::invalidState));
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IRecordingPlayback>(playback), playback);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IDeviceChannel>(playback), playback);
}

TEST_F(RecordingPlaybackTest, aSlowTakerSlowsTheRecorderDownAndLosesNothing)
{
    constexpr std::size_t total = 3000;
    make([&](Connection& connection, const Request& request) {
        connection.reply(request, 200, okFor(request));
        PacketSender sender;
        for (; sent < total && sender.sendFrame(connection, {spsNal(), ppsNal(), idrNal(20'000)}); ++sent) {
        }
    });
    std::promise<void> go;
    auto gate = go.get_future().share();
    frames.keepFrames = false;
    frames.onFrame = [gate](Tavro8::IContract*) { gate.wait(); };  // the last call may outlive the test's locals
    openAndPlay();
    ASSERT_TRUE(frames.waitFrames(1));
    EXPECT_LT(sent, total) << "the sockets hold a few megabytes, not sixty";
    go.set_value();
    ASSERT_TRUE(frames.waitFrames(total));
}
}  // namespace
