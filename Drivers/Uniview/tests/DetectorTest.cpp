#include "Detector.h"

#include "AlarmText.h"
#include "Device.h"
#include "EventHandlers.h"
#include "ScriptedHttpPeer.h"

#include <Tavro8/ResultCode.h>
#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{
using namespace Uniview;
using namespace kelvo::test;
using Tavro8::LogSeverity;
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::GDRV::DetectorState;
using Tavro8::GDRV::IDetector;
using Names = std::vector<std::string>;

class DetectorTest : public ::testing::Test {
protected:
    ~DetectorTest() override
    {
        for (IDetector* const detector : detectors)
            detector->Destroy();
        if (device != nullptr)
            device->Destroy();
    }

    void makeDevice(std::uint32_t channels = 1)
    {
        const auto traits = std::make_shared<DeviceTraits>();
        traits->videoChannelCount = channels;
        device = Device::create(&deviceHandler, &logger, traits, *service);
    }
    void connectAs(int deviceType)
    {
        peer.answer("/LAPI/V1.0/Network/Port", 200, "{}");
        peer.answer("/LAPI/V1.0/System/DeviceInfo", 200,
                    "{\"Response\":{\"Data\":{\"DeviceType\":" + std::to_string(deviceType) + "}}}");
        ASSERT_EQ(device->Open(peer.address().c_str()), 0);
        ASSERT_TRUE(deviceHandler.waitConnected());
    }
    Detector& make(const std::string& detectionType, Tavro8::GDRV::IDetectorHandler* detectorHandler,
                   std::uint32_t channel = 0)
    {
        IDetector* made = nullptr;
        EXPECT_EQ(device->CreateDetector(channel, {{"detectionType", detectionType}}, detectorHandler, &made), 0);
        detectors.push_back(made);
        return *static_cast<Detector*>(made);
    }
    Detector& make(const std::string& detectionType, std::uint32_t channel = 0)
    {
        return make(detectionType, &handler, channel);
    }
    /// Destroys the detector that was made last.
    void destroyLast()
    {
        IDetector* const last = detectors.back();
        detectors.pop_back();
        last->Destroy();
    }

    RecordingLogger logger;
    DetectorHandler handler;
    DeviceHandler deviceHandler;
    ScriptedHttpPeer peer;
    std::shared_ptr<Tavro8::Utility::GlobalService> service = Tavro8::Utility::GlobalService::instance();
    std::shared_ptr<Device> device;
    std::vector<IDetector*> detectors;  // destroyed at the end
};

TEST_F(DetectorTest, isMadeForTheNineTypes)
{
    makeDevice();
    for (const DetectorType& type : detectorTypes()) {
        SCOPED_TRACE(type.detectionType);
        const Detector& detector = make(type.detectionType);
        EXPECT_EQ(detector.GetChannelIndex(), 0U);
    }
    EXPECT_EQ(detectors.size(), 9U);
}

TEST_F(DetectorTest, isNotMadeForAnythingElse)
{
    makeDevice();
    for (const ParameterMap& parameters :
         {ParameterMap{}, ParameterMap{{"detectionType", std::string()}},
          ParameterMap{{"detectionType", std::string("Motion")}},
          ParameterMap{{"detectionType", std::string("tamper")}}, ParameterMap{{"detectionType", 1}},
          ParameterMap{{"DetectionType", std::string("motion")}}}) {
        IDetector* detector = nullptr;
        EXPECT_EQ(device->CreateDetector(0, parameters, &handler, &detector), toResult(ResultCode::notFound));
        EXPECT_EQ(detector, nullptr);
    }
    IDetector* detector = nullptr;
    const ParameterMap motion{{"detectionType", std::string("motion")}};
    EXPECT_EQ(device->CreateDetector(1, motion, &handler, &detector), toResult(ResultCode::notFound));
    EXPECT_EQ(device->CreateDetector(0, motion, &handler, nullptr), toResult(ResultCode::invalidArgument));
}

TEST_F(DetectorTest, startAndStopWriteTheirLinesAndAreTold)
{
    makeDevice(4);
    Detector& detector = make("motion", 3);
    detector.Start();
    ASSERT_TRUE(handler.waitStarted());
    detector.Stop();
    ASSERT_TRUE(handler.waitStopped());
    destroyLast();

    Names lines;
    for (const LogLine& line : logger.lines()) {
        if (line.file == "Drivers/Uniview/src/Detector")
            lines.push_back(line.function + '|' + line.message);
    }
    EXPECT_EQ(lines, (Names{
                         "Uniview::Detector::Start|detector motion.3: Starting...",
                         "Uniview::Detector::Start|detector motion.3: Started.",
                         "Uniview::Detector::Stop|detector motion.3: Stopping...",
                         "Uniview::Detector::Stop|detector motion.3: Stopped.",
                         "Uniview::Detector::Destroy|detector motion.3: Destroy",
                     }));
}

TEST_F(DetectorTest, tellsBeginAndEndWithAllThatTheDeviceSaid)
{
    makeDevice();
    Detector& detector = make("temperatureDetectType");
    detector.handleTriggerInfo(alarm("{\"AlarmType\":\"TemperatureDetectionAlarm\",\"AlarmLevel\":2,\"TimeStamp\":"
                                     "1489040894,\"AlarmSeq\":327,\"AlarmSrcID\":1,\"AlarmSrcType\":8,"
                                     "\"AlarmSrcName\":\"Camera1\",\"Celsius\":61.5}"));
    detector.handleTriggerInfo(alarmOf("ThermalTemperatureDetectOff", "\"TimeStamp\":\"1489040899\""));
    const auto events = handler.events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].detectionType, "temperatureDetectType");
    EXPECT_EQ(events[0].alarmType, "TemperatureDetectionAlarm");
    EXPECT_EQ(events[0].state, DetectorState::begin);
    EXPECT_EQ(events[0].channel, 0U);
    EXPECT_EQ(events[0].deviceTimeMs, 1489040894000);
    EXPECT_EQ(boost::any_cast<int>(events[0].fields.at("AlarmSeq")), 327);
    EXPECT_EQ(boost::any_cast<std::string>(events[0].fields.at("AlarmSrcName")), "Camera1");
    EXPECT_DOUBLE_EQ(boost::any_cast<double>(events[0].fields.at("Celsius")), 61.5);
    EXPECT_EQ(events[1].alarmType, "ThermalTemperatureDetectOff");
    EXPECT_EQ(events[1].state, DetectorState::end);
    EXPECT_EQ(events[1].deviceTimeMs, 1489040899000);
}

TEST_F(DetectorTest, tellsMomentsAsOftenAsTheyCome)
{
    makeDevice(2);
    Detector& detector = make("crossLineDetectType", 1);
    for (int i = 0; i < 3; ++i)
        detector.handleTriggerInfo(alarmOf("LineDetectorCrossed", "\"AlarmSrcID\":2,\"TimeStamp\":5"));
    const auto events = handler.events();
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(events[2].state, DetectorState::momentary);
    EXPECT_EQ(events[2].channel, 1U);
}

TEST_F(DetectorTest, leavesEveryEventToThoseThatRegisteredLater)
{
    makeDevice();
    EXPECT_FALSE(make("motion").handleTriggerInfo(alarmOf("MotionAlarmOn")));
    EXPECT_FALSE(make("motionTCP").handleTriggerInfo(alarmOf("MotionAlarmOn")));
    EXPECT_FALSE(make("motion").handleTriggerInfo(alarmOf("MotionAlarmOn")));
    EXPECT_EQ(handler.names().size(), 3U);
}

TEST_F(DetectorTest, theOnlyChannelOfACameraTakesEverySource)
{
    makeDevice();
    connectAs(0);
    Detector& detector = make("enterAreaDetectType");
    for (const char* const members : {"\"AlarmSrcID\":0", "\"AlarmSrcID\":1", "\"SourceID\":7", "\"AlarmSeq\":1"})
        detector.handleTriggerInfo(alarmOf("EnterArea", members));
    EXPECT_EQ(handler.events().size(), 4U);
}

TEST_F(DetectorTest, theChannelOfARecorderTakesItsOwnSource)
{
    makeDevice();
    connectAs(1);
    Detector& detector = make("enterAreaDetectType");
    for (const char* const members : {"\"AlarmSrcID\":0", "\"AlarmSrcID\":1", "\"SourceID\":2,\"AlarmSrcID\":1"})
        detector.handleTriggerInfo(alarmOf("EnterArea", members));
    EXPECT_EQ(handler.events().size(), 1U);
}

TEST_F(DetectorTest, theChannelsOfACameraWithSeveralTakeTheirOwnSource)
{
    makeDevice(3);
    connectAs(0);
    Detector& second = make("leaveAreaDetectType", 1);
    Detector& third = make("leaveAreaDetectType", 2);
    for (const char* const members : {"\"AlarmSrcID\":2", "\"SourceID\":3", "\"AlarmSrcID\":1", "\"AlarmSeq\":1"}) {
        second.handleTriggerInfo(alarmOf("LeaveArea", members));
        third.handleTriggerInfo(alarmOf("LeaveArea", members));
    }
    const auto events = handler.events();
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].channel, 1U);
    EXPECT_EQ(events[1].channel, 2U);
    EXPECT_EQ(logger.find("The number of the source is not found").severity, LogSeverity::warning);
}

TEST_F(DetectorTest, missingMembersHaveTheirLines)
{
    makeDevice();
    Detector& detector = make("intrusionDetectType");
    detector.handleTriggerInfo(alarm("{\"AlarmSrcID\":1}"));
    EXPECT_EQ(logger.find("AlarmType is not found in response.").severity, LogSeverity::error);
    EXPECT_TRUE(handler.events().empty());

    detector.handleTriggerInfo(alarmOf("FieldDetectorObjectsInside", "\"AlarmSrcID\":1"));
    const auto line = logger.find("TimeStamp");
    EXPECT_EQ(line.message, "detector intrusionDetectType.0: TimeStamp is not found in respons.");
    EXPECT_EQ(line.severity, LogSeverity::error);
    ASSERT_EQ(handler.events().size(), 1U) << "told with time 0";
    EXPECT_EQ(handler.events()[0].deviceTimeMs, 0);
}

TEST_F(DetectorTest, theTimeOfOtherDetectorsEventsIsNotMissed)
{
    makeDevice();
    Detector& detector = make("intrusionDetectType");
    detector.handleTriggerInfo(alarmOf("MotionAlarmOn", "\"AlarmSrcID\":1"));
    EXPECT_EQ(logger.errorCount(), 0U);
}

TEST_F(DetectorTest, oddShapesReachNobody)
{
    makeDevice();
    for (const DetectorType& type : detectorTypes()) {
        Detector& detector = make(type.detectionType);
        for (const char* const shape : oddShapes) {
            SCOPED_TRACE(shape);
            EXPECT_FALSE(detector.handleTriggerInfo(alarm(shape)));
            EXPECT_FALSE(detector.handleTriggerInfo(alarm(std::string("{\"AlarmType\":") + shape + '}')));
        }
    }
    EXPECT_TRUE(handler.events().empty());
}

TEST_F(DetectorTest, aFloodOfBrokenNotificationsIsFoldedInTheLog)
{
    makeDevice();
    Detector& detector = make("enterAreaDetectType");
    for (int i = 0; i < 500; ++i) {
        detector.handleTriggerInfo(alarm("{\"AlarmSrcID\":1}"));
        detector.handleTriggerInfo(alarmOf("EnterArea"));
    }
    EXPECT_EQ(logger.count("AlarmType is not found in response."), 10U);
    EXPECT_EQ(logger.count("TimeStamp is not found in respons."), 10U);
    EXPECT_EQ(handler.events().size(), 500U);
}

TEST_F(DetectorTest, whatHadBegunBeforeAStopHasNoEnd)
{
    makeDevice();
    Detector& detector = make("motion");
    detector.Start();
    ASSERT_TRUE(handler.waitStarted());
    detector.handleTriggerInfo(alarmOf("MotionAlarmOn"));
    detector.Stop();
    ASSERT_TRUE(handler.waitStopped());
    EXPECT_EQ(handler.names(), (Names{"MotionAlarmOn"})) << "no end is invented";
    detector.Start();
    ASSERT_TRUE(handler.waitStarted(2));
    detector.handleTriggerInfo(alarmOf("MotionAlarmOff"));
    detector.handleTriggerInfo(alarmOf("MotionAlarmOn"));
    detector.handleTriggerInfo(alarmOf("MotionAlarmOff"));
    EXPECT_EQ(handler.names(), (Names{"MotionAlarmOn", "MotionAlarmOn", "MotionAlarmOff"}));
}

TEST_F(DetectorTest, aSecondStartForgetsNothing)
{
    makeDevice();
    Detector& detector = make("motion");
    detector.Start();
    ASSERT_TRUE(handler.waitStarted());
    detector.handleTriggerInfo(alarmOf("MotionAlarmOn"));
    detector.Start();
    ASSERT_TRUE(logger.waitFor("Started.", 2));
    detector.handleTriggerInfo(alarmOf("MotionAlarmOff"));
    EXPECT_EQ(handler.names(), (Names{"MotionAlarmOn", "MotionAlarmOff"}));
    EXPECT_EQ(handler.started(), 1);
}

TEST_F(DetectorTest, worksWithoutAHandler)
{
    makeDevice();
    Detector& detector = make("motion", nullptr);
    detector.Start();
    ASSERT_TRUE(logger.waitFor("Started."));
    detector.handleTriggerInfo(alarmOf("MotionAlarmOn"));
    detector.Stop();
    EXPECT_TRUE(logger.waitFor("Stopped."));
}

TEST_F(DetectorTest, mayBeDestroyedFromInsideItsCallback)
{
    makeDevice();
    Detector& detector = make("enterAreaDetectType");
    handler.onEvent = [this](IDetector*) { destroyLast(); };
    const auto keep = detector.shared_from_this();
    detector.handleTriggerInfo(alarmOf("EnterArea"));
    detector.handleTriggerInfo(alarmOf("EnterArea"));
    EXPECT_EQ(handler.events().size(), 1U);
}

TEST_F(DetectorTest, destroyWaitsForACallbackOfAnotherThread)
{
    makeDevice();
    Detector& detector = make("enterAreaDetectType");
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> inside{false};
    handler.onEvent = [&](IDetector*) {
        inside = true;
        entered.set_value();
        leave.get_future().wait();
        inside = false;
    };
    std::thread delivery([keep = detector.shared_from_this()] { keep->handleTriggerInfo(alarmOf("EnterArea")); });
    entered.get_future().wait();
    std::thread owner([&] {
        destroyLast();
        EXPECT_FALSE(inside);
    });
    EXPECT_TRUE(logger.waitFor("detector enterAreaDetectType.0: Destroy"));
    leave.set_value();
    owner.join();
    delivery.join();
}

TEST_F(DetectorTest, offersItsContracts)
{
    makeDevice();
    IDetector* const detector = &make("motion");
    EXPECT_EQ(Tavro8::queryContract<IDetector>(detector), detector);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IDeviceChannel>(detector), detector);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IIODevice>(detector), nullptr);
}
}  // namespace
