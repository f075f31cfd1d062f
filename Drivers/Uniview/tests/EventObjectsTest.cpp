#include <utility>

#include "Device.h"
#include "EventHandlers.h"
#include "EventNames.h"
#include "PushPeer.h"
#include "ScriptedHttpPeer.h"

#include <atomic>
#include <future>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

// Detectors and inputs together with what delivers to them: a device that is subscribed to and pushes.
namespace
{
using namespace Uniview;
using namespace kelvo::test;
using Tavro8::GDRV::IDetector;
using Tavro8::GDRV::IIODevice;
using Input = IOHandler::Input;
using Names = std::vector<std::string>;

constexpr const char* subscribing = "POST /LAPI/V1.0/System/Event/Subscription";
constexpr const char* subscription = "/LAPI/V1.0/System/Event/Subscription/5";

/// A notification as cameras write it.
std::string alarm(const std::string& type, const std::string& members = "\"AlarmSrcID\":\t1")
{
    return notification("{\"Reference\":\t\"192.0.2.10:80/Subscribers/5\",\t\"AlarmInfo\":\t{\"AlarmType\":\t\"" +
                        type + "\",\t\"TimeStamp\":\t1489040894,\t" + members + "}}");
}

class EventObjects : public ::testing::Test {
protected:
    EventObjects()
    {
        peer.answer("/LAPI/V1.0/Network/Port", 200, "{}");
        peer.answer("/LAPI/V1.0/System/DeviceInfo", 200, "{\"Response\":{\"Data\":{\"DeviceType\":1}}}");
        peer.answer(subscribing, 200, "{\"Response\":{\"ResponseCode\":0,\"Data\":{\"ID\":\"5\"}}}");
        peer.answer(subscription, 200, "{\"Response\":{\"ResponseCode\":0,\"Data\":{}}}");
        const auto traits = std::make_shared<DeviceTraits>();
        traits->videoChannelCount = 2;
        traits->channelModelParameters.assign(2, {{"rayCount", 2}, {"relayCount", 1}});
        traits->properties = {{"localServerPort", int{port}}, {"localServerIP", std::string("127.0.0.1")}};
        device = Device::create(&deviceHandler, &logger, traits, *service);
    }
    ~EventObjects() override
    {
        for (IDetector* const detector : detectors)
            detector->Destroy();
        for (IIODevice* const io : ioDevices)
            io->Destroy();
        device->Destroy();
        service->barrier();  // nothing logs any more
    }

    void connect()
    {
        ASSERT_EQ(device->Open(peer.address().c_str()), 0);
        ASSERT_TRUE(deviceHandler.waitConnected());
    }
    IDetector* detector(const std::string& detectionType, DetectorHandler& handler, std::uint32_t channel = 0)
    {
        IDetector* made = nullptr;
        EXPECT_EQ(device->CreateDetector(channel, {{"detectionType", detectionType}}, &handler, &made), 0);
        detectors.push_back(made);
        return made;
    }
    IDetector* startedDetector(const std::string& detectionType, DetectorHandler& handler, std::uint32_t channel = 0)
    {
        IDetector* const made = detector(detectionType, handler, channel);
        const int before = handler.started();
        made->Start();
        EXPECT_TRUE(handler.waitStarted(before + 1));
        return made;
    }
    IIODevice* startedInputs(IOHandler& handler, std::uint32_t channel = 0)
    {
        IIODevice* made = nullptr;
        EXPECT_EQ(device->CreateIODevice(channel, &handler, &made), 0);
        ioDevices.push_back(made);
        made->Start();
        EXPECT_TRUE(handler.waitStarted());
        return made;
    }
    /// Destroys it now instead of at the end.
    void destroy(IDetector* made)
    {
        std::erase(detectors, made);
        made->Destroy();
    }

    // Handlers live until the objects that they were given to are gone.
    std::list<DetectorHandler> detectorHandlers;
    std::list<IOHandler> ioHandlers;
    RecordingLogger logger;
    DeviceHandler deviceHandler;
    ScriptedHttpPeer peer;
    const std::uint16_t port = freePort();
    std::shared_ptr<Tavro8::Utility::GlobalService> service = Tavro8::Utility::GlobalService::instance();
    std::shared_ptr<Device> device;
    std::vector<IDetector*> detectors;
    std::vector<IIODevice*> ioDevices;
};

TEST_F(EventObjects, allDetectorsOfAnEventHearIt)
{
    DetectorHandler& motion = detectorHandlers.emplace_back();
    DetectorHandler& motionTcp = detectorHandlers.emplace_back();
    DetectorHandler& another = detectorHandlers.emplace_back();
    DetectorHandler& otherChannel = detectorHandlers.emplace_back();
    connect();
    startedDetector("motion", motion);
    startedDetector("motionTCP", motionTcp);
    startedDetector("motion", another);
    startedDetector("motion", otherChannel, 1);
    PushPeer pushes(port);
    pushes.send(alarm("MotionAlarmOn") + alarm("MotionAlarmOff", "\"SourceID\":\t1,\t\"AlarmSrcID\":\t2") +
                alarm("MotionAlarmOn", "\"AlarmSrcID\":\t2"));
    ASSERT_TRUE(otherChannel.waitEvents(1));
    for (const DetectorHandler* const handler : {&motion, &motionTcp, &another})
        EXPECT_EQ(handler->names(), (Names{"MotionAlarmOn", "MotionAlarmOff"}));
    EXPECT_EQ(otherChannel.names(), (Names{"MotionAlarmOn"}));
    EXPECT_EQ(motionTcp.events()[1].deviceTimeMs, 1489040894000);
}

TEST_F(EventObjects, theFirstObjectThatHasAnInputTakesItsEvent)
{
    IOHandler& first = ioHandlers.emplace_back();
    IOHandler& second = ioHandlers.emplace_back();
    connect();
    startedInputs(first);
    startedInputs(second);
    PushPeer pushes(port);
    pushes.send(alarm("InputAlarmOn", "\"AlarmSrcID\":\t2") + alarm("InputAlarmOff"));
    ASSERT_TRUE(first.waitInputs(2));
    EXPECT_EQ(first.inputs(), (std::vector<Input>{{1, true}, {0, false}}));
    EXPECT_TRUE(second.inputs().empty());
}

TEST_F(EventObjects, whatStartsBeforeTheDeviceConnectsTakesPartLater)
{
    DetectorHandler& moments = detectorHandlers.emplace_back();
    IOHandler& inputs = ioHandlers.emplace_back();
    startedDetector("enterAreaDetectType", moments);
    startedInputs(inputs);
    connect();
    ASSERT_TRUE(peer.waitForRequest(subscribing));
    PushPeer pushes(port);
    pushes.send(alarm("EnterArea") + alarm("InputAlarmOn"));
    ASSERT_TRUE(inputs.waitInputs(1));
    EXPECT_EQ(moments.names(), (Names{"EnterArea"}));
}

TEST_F(EventObjects, nothingFollowsStopped)
{
    DetectorHandler& stopped = detectorHandlers.emplace_back();
    DetectorHandler& other = detectorHandlers.emplace_back();
    connect();
    IDetector* const leaves = startedDetector("leaveAreaDetectType", stopped);
    startedDetector("leaveAreaDetectType", other);
    PushPeer pushes(port);
    pushes.send(alarm("LeaveArea"));
    ASSERT_TRUE(other.waitEvents(1));
    ASSERT_TRUE(peer.waitForRequest(std::string("PUT ") + subscription));  // its number is known
    leaves->Stop();
    ASSERT_TRUE(stopped.waitStopped());
    EXPECT_TRUE(peer.waitForRequest(std::string("DELETE ") + subscription));
    pushes.send(alarm("LeaveArea"));  // the device may not have read yet that it should not
    ASSERT_TRUE(other.waitEvents(2));
    EXPECT_EQ(stopped.events().size(), 1U);
}

TEST_F(EventObjects, aStopFromInsideTheCallbackEndsWithThatEvent)
{
    DetectorHandler& handler = detectorHandlers.emplace_back();
    DetectorHandler& other = detectorHandlers.emplace_back();
    connect();
    IDetector* const leaves = startedDetector("leaveAreaDetectType", handler);
    startedDetector("leaveAreaDetectType", other);
    handler.onEvent = [leaves](IDetector*) { leaves->Stop(); };
    PushPeer pushes(port);
    pushes.send(alarm("LeaveArea"));
    ASSERT_TRUE(handler.waitStopped());
    pushes.send(alarm("LeaveArea"));
    ASSERT_TRUE(other.waitEvents(2));
    EXPECT_EQ(handler.events().size(), 1U);
}

TEST_F(EventObjects, aDetectorDestroyedInsideItsCallbackDisturbsNoOther)
{
    DetectorHandler& handler = detectorHandlers.emplace_back();
    DetectorHandler& other = detectorHandlers.emplace_back();
    connect();
    startedDetector("enterAreaDetectType", handler);
    startedDetector("enterAreaDetectType", other);
    handler.onEvent = [this](IDetector* made) { destroy(made); };
    PushPeer pushes(port);
    pushes.send(alarm("EnterArea") + alarm("EnterArea"));
    ASSERT_TRUE(other.waitEvents(2));
    EXPECT_EQ(handler.events().size(), 1U);
}

TEST_F(EventObjects, destroyWaitsForADelivery)
{
    DetectorHandler& handler = detectorHandlers.emplace_back();
    connect();
    IDetector* const made = startedDetector("enterAreaDetectType", handler);
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> inside{false};
    handler.onEvent = [&](IDetector*) {
        inside = true;
        entered.set_value();
        leave.get_future().wait();
        inside = false;
    };
    PushPeer pushes(port);
    pushes.send(alarm("EnterArea"));
    entered.get_future().wait();
    std::thread owner([&] {
        destroy(made);
        EXPECT_FALSE(inside);
    });
    EXPECT_TRUE(logger.waitFor("Destroy"));
    leave.set_value();
    owner.join();
}

TEST_F(EventObjects, brokenNotificationsDisturbNothing)
{
    DetectorHandler& handler = detectorHandlers.emplace_back();
    IOHandler& inputs = ioHandlers.emplace_back();
    connect();
    startedDetector("enterAreaDetectType", handler);
    startedInputs(inputs);
    PushPeer pushes(port);
    for (const char* const body :
         {"{\"AlarmInfo\":7}", "{\"AlarmInfo\":\"EnterArea\"}", "{\"AlarmInfo\":[{\"AlarmType\":\"EnterArea\"}]}",
          "{\"AlarmInfo\":{}}", "{\"AlarmInfo\":{\"AlarmType\":[\"EnterArea\"]}}",
          "{\"AlarmInfo\":{\"AlarmType\":\"EnterArea\",\"AlarmSrcID\":{}}}",
          "{\"AlarmInfo\":{\"AlarmType\":\"InputAlarmOn\",\"AlarmSrcID\":\"1\"}}",
          "{\"AlarmInfo\":{\"AlarmType\":\"InputAlarmOn\",\"AlarmSrcID\":-1}}",
          "{\"AlarmInfo\":{\"AlarmType\":\"\xff\xfe\",\"AlarmSrcID\":1e300}}"})
        pushes.send(notification(body));
    pushes.send(alarm("EnterArea") + alarm("InputAlarmOn"));
    ASSERT_TRUE(inputs.waitInputs(1));
    EXPECT_EQ(handler.names(), (Names{"EnterArea"}));
    EXPECT_EQ(inputs.inputs(), (std::vector<Input>{{0, true}}));
}

/// For the thread sanitizer: what hosts do on their threads while a device pushes without end.
TEST_F(EventObjects, hostsComeAndGoWhileEventsArrive)
{
    DetectorHandler& stays = detectorHandlers.emplace_back();
    connect();
    startedDetector("enterAreaDetectType", stays);
    std::atomic<bool> over{false};
    std::thread pushing([&] {
        PushPeer pushes(port);
        while (!over)
            pushes.send(alarm("EnterArea") + alarm("MotionAlarmOn") + alarm("MotionAlarmOff") + alarm("InputAlarmOn"));
    });
    std::vector<std::thread> hosts;
    for (const char* const type : {"motion", "enterAreaDetectType"}) {
        hosts.emplace_back([&, type] {
            for (int i = 0; i < 20; ++i) {
                DetectorHandler handler;
                IDetector* made = nullptr;
                ASSERT_EQ(device->CreateDetector(0, {{"detectionType", std::string(type)}}, &handler, &made), 0);
                made->Start();
                EXPECT_TRUE(handler.waitEvents(1));
                if (i % 2 == 0) {
                    made->Stop();
                    EXPECT_TRUE(handler.waitStopped());
                }
                made->Destroy();
            }
        });
    }
    for (std::thread& host : hosts)
        host.join();
    over = true;
    pushing.join();
    EXPECT_TRUE(stays.waitEvents(20));
}
}  // namespace
