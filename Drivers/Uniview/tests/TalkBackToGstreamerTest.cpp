#include "AudioDestination.h"
#include "Programs.h"
#include "Sound.h"
#include "TalkFixture.h"

#include "media/G711.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

// The module's talk-back against an RTSP server that others have written.
namespace
{
using namespace Uniview::test;
using kelvo::test::ChildProcess;
using kelvo::test::correlation;
using kelvo::test::Samples;

/// A second of a voice-like mixture that never repeats itself.
Samples someVoice()
{
    Samples samples(8000);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double t = static_cast<double>(i) / 8000;
        const double sweep = std::sin(2 * std::numbers::pi * (200 + 600 * t) * t);
        const double tone = 0.4 * std::sin(2 * std::numbers::pi * 1234 * t);
        samples[i] = static_cast<std::int16_t>(12000 * (0.3 + 0.7 * t) * (sweep + tone) / 1.4);
    }
    return samples;
}

class TalkBackToGstreamer : public TalkFixture {
protected:
    ~TalkBackToGstreamer() override
    {
        server.reset();
        std::filesystem::remove(heardFile);
    }

    void startServer(const std::string& law)
    {
        heardFile = std::filesystem::temp_directory_path() /
                    ("kelvo-heard-" + law + '-' + std::to_string(std::hash<void*>{}(this)) + ".g711");
        server = std::make_unique<ChildProcess>(
            std::vector{kelvo::test::programUnderTest("onvif-server"), heardFile.string(), law});
        // The first start on a machine takes its time: GStreamer looks through all its plug-ins.
        const auto port = server->readLine(ChildProcess::Clock::now() + std::chrono::seconds(30));
        ASSERT_TRUE(port) << server->errors();
        connectTo(static_cast<std::uint16_t>(std::stoi(*port)));
    }
    /// Speaks for a second; gives what the server has heard.
    std::vector<std::uint8_t> speak(const Samples& voice)
    {
        createDestination();
        destination->Call();
        EXPECT_TRUE(calls.waitStarted()) << logger.text();
        for (std::size_t at = 0; at < voice.size(); at += 320)
            push({voice.begin() + static_cast<std::ptrdiff_t>(at),
                  voice.begin() + static_cast<std::ptrdiff_t>(at + 320)});
        server->awaitOutput("heard " + std::to_string(voice.size()) + "\n");
        hangUp();
        std::ifstream file(heardFile, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::filesystem::path heardFile;
    std::unique_ptr<ChildProcess> server;
};

TEST_F(TalkBackToGstreamer, isHeardInMuLaw)
{
    startServer("PCMU");
    const Samples voice = someVoice();
    const auto heard = speak(voice);
    ASSERT_EQ(heard.size(), voice.size());
    Samples decoded(heard.size());
    Tavro8::media::g711::decodeULaw(heard, decoded);
    EXPECT_GT(correlation(voice, decoded), 0.99);
    EXPECT_EQ(calls.ends(), std::vector<std::int32_t>{0});
    EXPECT_EQ(logger.errorCount(), 0U) << logger.text();
}

TEST_F(TalkBackToGstreamer, isHeardInALaw)
{
    startServer("PCMA");
    const Samples voice = someVoice();
    const auto heard = speak(voice);
    ASSERT_EQ(heard.size(), voice.size());
    Samples decoded(heard.size());
    Tavro8::media::g711::decodeALaw(heard, decoded);
    EXPECT_GT(correlation(voice, decoded), 0.99);
}
}  // namespace
