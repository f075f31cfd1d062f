#include <utility>

#include "EndToEnd.h"
#include "EventHandlers.h"
#include "HostFakes.h"
#include "PushPeer.h"

#include <algorithm>
#include <atomic>
#include <dlfcn.h>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <thread>

// The shipped library against a device that streams, driven through the SDK alone.
namespace
{
using namespace kelvo::test;
using namespace Tavro8::GDRV;
using Tavro8::ParameterMap;

class ModuleAgainstSimulator : public ::testing::Test {
protected:
    ModuleAgainstSimulator() : host(folder.path())
    {
        std::filesystem::create_directories(folder.path() / "m");
        std::ofstream(folder.path() / "m" / "Kelvo.Uniview.rep") << "";
        load();
    }
    ~ModuleAgainstSimulator() override { unload(); }

    void load()
    {
        library = ::dlopen(programUnderTest("Kelvo.Uniview.ipd").c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << ::dlerror();
        ASSERT_TRUE(reinterpret_cast<InitModule>(::dlsym(library, "initModule"))(&host, "m"));
        module = reinterpret_cast<GetModule>(::dlsym(library, "getModule"))();
    }
    void unload()
    {
        if (library == nullptr)
            return;
        reinterpret_cast<FiniModule>(::dlsym(library, "finiModule"))();
        ::dlclose(library);
        library = nullptr;
    }

    IDevice* connect(DeviceHandler& handler, const Description& description = {})
    {
        IDevice* device = nullptr;
        EXPECT_EQ(module->CreateDevice(&description, &handler, &device), 0);
        EXPECT_EQ(device->Open(deviceAddress(camera).c_str()), 0);
        EXPECT_TRUE(handler.waitConnected());
        return device;
    }

    static IVideoSource* startVideo(IDevice* device, ChannelHandler& handler, std::uint32_t stream = 0)
    {
        IVideoSource* video = nullptr;
        EXPECT_EQ(device->CreateVideoSource(0, stream, &handler, &handler, {}, nullptr, &video), 0);
        video->Start();
        return video;
    }

    const ScratchFolder folder;
    const SimulatorProcess camera{smallPictures()};
    HostContext host;
    void* library = nullptr;
    IModule* module = nullptr;
};

/// With a device that is connected and a stream of it that runs.
class ReceivingModule : public ModuleAgainstSimulator {
protected:
    ReceivingModule() : device(connect(handler))
    {
        pictures.keepFrames = true;
        video = startVideo(device, pictures);
    }
    ~ReceivingModule() override
    {
        video->Destroy();
        device->Destroy();
    }

    /// Frames up to the first that `isWanted`, that one included; a few may follow it.
    template <typename Predicate>
    std::vector<FrameReference> framesUntil(Predicate isWanted)
    {
        std::vector<FrameReference> frames;
        while (std::ranges::none_of(frames, isWanted) && frames.size() < 500) {
            if (!pictures.waitFrames(pictures.frameTotal() + 1))
                break;
            std::ranges::move(pictures.takeFrames(), std::back_inserter(frames));
        }
        return frames;
    }

    DeviceHandler handler;
    ChannelHandler pictures;
    IDevice* const device;
    IVideoSource* video = nullptr;
};

/// With a device that is connected, and a detector and inputs of it that have been told to start.
class ListeningModule : public ModuleAgainstSimulator {
protected:
    ListeningModule()
    {
        areas.keepFields = false;
        begin();
    }
    ~ListeningModule() override { release(); }

    void begin()
    {
        Description description;
        description.properties["localServerPort"] = int{freePort()};
        description.channelModelParameters["rayCount"] = 2;
        handler = std::make_unique<DeviceHandler>();
        device = connect(*handler, description);
        EXPECT_EQ(device->CreateDetector(0, {{"detectionType", std::string("enterAreaDetectType")}}, &areas, &detector),
                  0);
        EXPECT_EQ(device->CreateIODevice(0, &inputs, &io), 0);
        detector->Start();
        io->Start();
    }
    void release()
    {
        if (device == nullptr)
            return;
        if (video != nullptr)
            std::exchange(video, nullptr)->Destroy();
        if (detector != nullptr)
            std::exchange(detector, nullptr)->Destroy();
        std::exchange(io, nullptr)->Destroy();
        std::exchange(device, nullptr)->Destroy();
    }
    void beginAnew()
    {
        load();
        begin();
    }
    void releaseAndUnload()
    {
        release();
        unload();
    }
    void enterArea() const { camera.admin("POST", "events", R"({"type": "EnterArea"})"); }

    std::unique_ptr<DeviceHandler> handler;
    DetectorHandler areas;
    IOHandler inputs;
    ChannelHandler pictures;
    IDevice* device = nullptr;
    IVideoSource* video = nullptr;
    IDetector* detector = nullptr;
    IIODevice* io = nullptr;
};

TEST_F(ModuleAgainstSimulator, pictureAndSoundShareOneConnection)
{
    DeviceHandler handler;
    IDevice* const device = connect(handler);
    ChannelHandler pictures;
    ChannelHandler sound;
    pictures.keepFrames = sound.keepFrames = true;
    IVideoSource* video = nullptr;
    IAudioSource* audio = nullptr;
    ASSERT_EQ(device->CreateVideoSource(0, 0, &pictures, &pictures, {}, nullptr, &video), 0);
    ASSERT_EQ(device->CreateAudioSource(0, &sound, &sound, {}, nullptr, &audio), 0);
    video->Start();
    audio->Start();
    EXPECT_TRUE(pictures.waitFrames(30));
    EXPECT_TRUE(sound.waitFrames(30));

    const auto frames = pictures.takeFrames();
    ASSERT_FALSE(frames.empty());
    EXPECT_TRUE(frames.front()->keyFrame);
    EXPECT_FALSE(frames.front()->parameterSets.empty());
    EXPECT_EQ(frames.front()->codec, MediaCodec::h264);
    EXPECT_EQ(frames.front()->width, 320U);
    const auto samples = sound.takeFrames();
    ASSERT_FALSE(samples.empty());
    EXPECT_EQ(samples.front()->codec, MediaCodec::g711U);
    EXPECT_EQ(samples.front()->sampleRate, 8000U);
    EXPECT_EQ(samples.front()->sampleCount, samples.front()->data.size());

    video->Stop();
    EXPECT_TRUE(pictures.waitStopped());
    audio->Destroy();
    video->Destroy();
    device->Destroy();
}

TEST_F(ModuleAgainstSimulator, timesAreThoseOfTheDevicesClockAndNeverRunBackwards)
{
    DeviceHandler handler;
    IDevice* const device = connect(handler);
    ChannelHandler pictures;
    pictures.keepFrames = true;
    IVideoSource* const video = startVideo(device, pictures);
    ASSERT_TRUE(pictures.waitFrames(50));
    video->Destroy();
    device->Destroy();
    const auto frames = pictures.takeFrames();
    const auto now =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    for (std::size_t at = 1; at < frames.size(); ++at)
        EXPECT_GE(frames[at]->timestampMs, frames[at - 1]->timestampMs);
    EXPECT_LT(std::abs(now - frames.back()->timestampMs), 10000);
}

TEST_F(ReceivingModule, statisticsTellWhatIsReceived)
{
    EXPECT_TRUE(pictures.waitStatistics([](const StreamStatistics& s) {
        return s.frames > 20 && s.keyFrames > 0 && s.framesPerSecond > 15 && s.bitsPerSecond > 10000 &&
               s.connects == 1 && s.reconnects == 0 && s.lostPackets == 0;
    }));
}

TEST_F(ModuleAgainstSimulator, aSourceStartedBeforeTheConnectionReceivesOnceItStands)
{
    DeviceHandler handler;
    const Description description;
    IDevice* device = nullptr;
    ASSERT_EQ(module->CreateDevice(&description, &handler, &device), 0);
    ChannelHandler pictures;
    IVideoSource* const video = startVideo(device, pictures);
    ASSERT_EQ(device->Open(deviceAddress(camera).c_str()), 0);
    EXPECT_TRUE(pictures.waitFrames(5));
    video->Destroy();
    device->Destroy();
}

TEST_F(ReceivingModule, aClosedDeviceSendsNothingAndANewAddressIsFollowed)
{
    const SimulatorProcess other({"--size", "160x128", "--no-audio"});
    ASSERT_TRUE(pictures.waitFrames(3));
    device->Close();
    ASSERT_TRUE(handler.waitClosed());
    ASSERT_EQ(device->Open(deviceAddress(other).c_str()), 0);
    ASSERT_TRUE(handler.waitConnected(2));
    pictures.takeFrames();
    const auto before = pictures.frameTotal();
    ASSERT_TRUE(pictures.waitFrames(before + 3));
    const auto frames = pictures.takeFrames();
    EXPECT_EQ(frames.back()->width, 160U);
    EXPECT_EQ(frames.back()->height, 128U);
}

TEST_F(ModuleAgainstSimulator, aStreamThatTheDeviceDoesNotHaveIsReported)
{
    DeviceHandler handler;
    IDevice* const device = connect(handler);
    ChannelHandler pictures;
    IVideoSource* const video = startVideo(device, pictures, 7);
    EXPECT_TRUE(pictures.waitState(Tavro8::toResult(Tavro8::ResultCode::resourceNotFound)));
    video->Destroy();
    device->Destroy();
}

TEST_F(ReceivingModule, aRebootedDeviceIsLostAndFoundAgain)
{
    ASSERT_TRUE(pictures.waitFrames(5));
    camera.admin("POST", "reboot", R"({"milliseconds": 1500})");
    EXPECT_TRUE(handler.waitLost());
    EXPECT_TRUE(handler.waitConnected(2));
    EXPECT_TRUE(pictures.waitFrames(pictures.frameTotal() + 10));
}

TEST_F(ReceivingModule, anotherSizeComesWithTheNextKeyFrameOfTheRunningStream)
{
    ASSERT_TRUE(pictures.waitFrames(5));
    camera.admin("POST", "picture", R"({"size": "640x360"})");
    const auto isLarge = [](const FrameReference& frame) { return frame->width == 640; };
    const auto frames = framesUntil(isLarge);
    const auto first = std::ranges::find_if(frames, isLarge);
    ASSERT_NE(first, frames.end()) << "the size never changed";
    EXPECT_EQ((*first)->height, 360U);
    EXPECT_TRUE((*first)->keyFrame);
    EXPECT_FALSE((*first)->parameterSets.empty());
    EXPECT_FALSE((*first)->lostPacketsBefore) << "the connection stands";
    EXPECT_EQ(camera.admin("GET", "counters")["rtsp"]["connections"].asUInt(), 1U);
}

/// The stream is restarted before the device knows of the new format.
TEST_F(ReceivingModule, settingsOfTheRunningSourceBringItsNextFormatByThemselves)
{
    ASSERT_TRUE(pictures.waitFrames(5));
    const ParameterMap changed{{"codec", std::string("H.265")}, {"resolution", std::string("640x360")}};
    ASSERT_EQ(video->ApplySettings(changed), 0);
    ASSERT_TRUE(pictures.waitSettings("all"));
    EXPECT_EQ(pictures.settingsResults().back(), std::pair(std::string("all"), 0));
    const auto isNew = [](const FrameReference& frame) {
        return frame->codec == MediaCodec::h265 && frame->width == 640 && frame->height == 360;
    };
    const auto frames = framesUntil(isNew);
    const auto first = std::ranges::find_if(frames, isNew);
    ASSERT_NE(first, frames.end()) << "the new format never came";
    EXPECT_TRUE((*first)->keyFrame);
    EXPECT_FALSE((*first)->parameterSets.empty());
}

TEST_F(ReceivingModule, settingsThatAreWhatTheyWereKeepTheConnection)
{
    ASSERT_TRUE(pictures.waitFrames(5));
    const ParameterMap same{{"codec", std::string("H.264")}, {"resolution", std::string("320x240")}};
    ASSERT_EQ(video->ApplySettings(same), 0);
    ASSERT_TRUE(pictures.waitSettings("all"));
    ASSERT_TRUE(pictures.waitFrames(pictures.frameTotal() + 5));
    EXPECT_EQ(camera.admin("GET", "counters")["rtsp"]["connections"].asUInt(), 1U);
}

TEST_F(ReceivingModule, anotherCodecIsDescribedAnewWhenTheDeviceEndsItsConnections)
{
    ASSERT_TRUE(pictures.waitFrames(5));
    camera.admin("POST", "picture", R"({"codec": "h265"})");
    camera.admin("POST", "rtsp/drop");
    const auto isHevc = [](const FrameReference& frame) { return frame->codec == MediaCodec::h265; };
    const auto frames = framesUntil(isHevc);
    const auto first = std::ranges::find_if(frames, isHevc);
    ASSERT_NE(first, frames.end()) << "the codec never changed";
    EXPECT_EQ((*first)->width, 320U);
    EXPECT_TRUE((*first)->keyFrame);
    EXPECT_TRUE((*first)->lostPacketsBefore);
    for (std::size_t at = 1; at < frames.size(); ++at)
        EXPECT_GE(frames[at]->timestampMs, frames[at - 1]->timestampMs);
    EXPECT_EQ(handler.lostTotal(), 0) << "the device was there all the time";
}

TEST_F(ModuleAgainstSimulator, sourcesMayBeStartedStoppedAndDestroyedFromManyThreads)
{
    DeviceHandler handler;
    IDevice* const device = connect(handler);
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([device] {
            for (int round = 0; round < 6; ++round) {
                ChannelHandler channel;
                IVideoSource* video = nullptr;
                ASSERT_EQ(device->CreateVideoSource(0, 0, &channel, &channel, {}, nullptr, &video), 0);
                std::thread second([video] {
                    video->Start();
                    video->Stop();
                });
                video->Start();
                second.join();
                video->Start();
                if (round % 2 == 0) {
                    EXPECT_TRUE(channel.waitFrames(1));
                }
                video->Destroy();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    device->Destroy();
}

TEST_F(ModuleAgainstSimulator, mayBeUnloadedInTheMiddleOfEverything)
{
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        DeviceHandler handler;
        ChannelHandler channel;
        IDevice* const device = connect(handler);
        IVideoSource* video = nullptr;
        ASSERT_EQ(device->CreateVideoSource(0, 0, &channel, &channel, {}, nullptr, &video), 0);
        video->Start();
        if (round % 2 == 0) {
            ASSERT_TRUE(channel.waitFrames(3));
        }
        video->Destroy();
        device->Destroy();
        unload();
        load();
    }
}

TEST_F(ModuleAgainstSimulator, aSourceMayBeDestroyedFromInsideItsFrame)
{
    DeviceHandler handler;
    IDevice* const device = connect(handler);
    ChannelHandler channel;
    IVideoSource* video = nullptr;
    ASSERT_EQ(device->CreateVideoSource(0, 0, &channel, &channel, {}, nullptr, &video), 0);
    std::atomic<bool> destroyed{false};
    channel.onFrame = [&](Tavro8::IContract*) {
        if (!destroyed.exchange(true))
            video->Destroy();
    };
    video->Start();
    ASSERT_TRUE(channel.waitFrames(1));
    device->Destroy();
    unload();  // the frame is counted before the handler destroys the source; after this it has returned
    EXPECT_EQ(channel.frameTotal(), 1U);
}

TEST_F(ListeningModule, mayBeUnloadedAsSoonAsItListens)
{
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        releaseAndUnload();  // the subscription may not have been sent, or be on its way
        beginAnew();
    }
    EXPECT_TRUE(eventually([&] {
        enterArea();
        return !areas.events().empty();
    }));
}

TEST_F(ListeningModule, mayBeUnloadedBetweenNotifications)
{
    ASSERT_TRUE(hasSubscribed(camera));
    std::atomic<bool> enough{false};
    std::thread pushing([&] {
        while (!enough)
            camera.admin("POST", "events", R"({"type": "EnterArea", "count": 200})");
    });
    EXPECT_TRUE(areas.waitEvents(100));
    releaseAndUnload();
    const std::size_t before = areas.events().size();
    EXPECT_TRUE(eventually([&] { return camera.admin("GET", "state")["subscriptions"].empty(); }));
    enough = true;
    pushing.join();
    EXPECT_EQ(areas.events().size(), before);
}

TEST_F(ListeningModule, isUnloadedNoEarlierThanADeliveryHasReturned)
{
    ASSERT_TRUE(hasSubscribed(camera));
    std::promise<void> inside;
    std::promise<void> leave;
    std::atomic<bool> left{false};
    areas.callOnEvent([&](IDetector* teller) {
        teller->Destroy();  // so that nothing but the delivery itself still holds it
        inside.set_value();
        leave.get_future().wait();
        left = true;
    });
    enterArea();
    inside.get_future().wait();
    detector = nullptr;
    std::promise<void> unloading;
    std::thread ending([&] {
        unloading.set_value();
        releaseAndUnload();
        EXPECT_TRUE(left);
    });
    unloading.get_future().wait();
    leave.set_value();
    ending.join();
    EXPECT_EQ(areas.events().size(), 1U);
}

TEST_F(ListeningModule, mayBeUnloadedWhileASubscriptionIsUnansweredOrToBeRepeated)
{
    const struct {
        std::vector<const char*> faults;
        const char* line;
    } cases[] = {
        {{"hang@POST /LAPI/V1.0/System/Event"}, "Selected parameters for local server"},
        {{"apierror:7@POST /LAPI/V1.0/System/Event", "nodata@POST /LAPI/V1.0/System/Event"},
         "Can't get subscription id."},
        {{"status:503@System/Event"}, "Event subscription completed with error: "},
    };
    ASSERT_TRUE(hasSubscribed(camera));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        releaseAndUnload();
        for (const char* const fault : c.faults)
            camera.admin("POST", "faults", std::string(R"({"fault": ")") + fault + "\"}");
        const std::size_t before = host.logger.count(c.line);
        beginAnew();
        EXPECT_TRUE(host.logger.waitFor(c.line, before + 1));
        releaseAndUnload();
        camera.admin("DELETE", "faults");
        camera.admin("DELETE", "subscriptions");  // some faults concern the answer alone
        beginAnew();
        EXPECT_TRUE(hasSubscribed(camera));
    }
}

TEST_F(ListeningModule, subscribesAnewAtADeviceThatHasForgottenIt)
{
    video = startVideo(device, pictures);  // without a stream nobody would notice for a while
    ASSERT_TRUE(pictures.waitFrames(3));
    ASSERT_TRUE(hasSubscribed(camera));
    enterArea();
    ASSERT_TRUE(areas.waitEvents(1));
    camera.admin("POST", "reboot", R"({"milliseconds": 1500})");
    ASSERT_TRUE(handler->waitLost());
    ASSERT_TRUE(handler->waitConnected(2));
    ASSERT_TRUE(hasSubscribed(camera));
    camera.admin("POST", "inputs/0", R"({"state": true})");
    EXPECT_TRUE(inputs.waitInputs(1));
    enterArea();
    EXPECT_TRUE(areas.waitEvents(2));
}
}  // namespace
