#include <utility>

#include "IODevice.h"

#include "AlarmText.h"
#include "Device.h"
#include "EventHandlers.h"
#include "ScriptedHttpPeer.h"

#include <Tavro8/ResultCode.h>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <future>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{
using namespace Uniview;
using namespace kelvo::test;
using Tavro8::LogSeverity;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Input = IOHandler::Input;
using Relay = IOHandler::Relay;

constexpr const char* relayPath = "/LAPI/V1.0/IO/OutputSwitches/ManualAlarm";
constexpr const char* succeeded = "{\"Response\":{\"ResponseCode\":0,\"ResponseString\":\"Succeed\",\"Data\":{}}}";

class IODeviceTest : public ::testing::Test {
protected:
    IODeviceTest()
    {
        traits->name = "yard";
        traits->videoChannelCount = 2;
        traits->channelModelParameters = {{{"rayCount", 2}, {"relayCount", 2}}, {{"rayCount", 1}}};
        peer.answer("/LAPI/V1.0/Network/Port", 200, "{}");
        peer.answer("/LAPI/V1.0/System/DeviceInfo", 200, "{\"Response\":{\"Data\":{\"DeviceType\":0}}}");
        peer.answer(relayPath, 200, succeeded);
    }
    ~IODeviceTest() override
    {
        if (io != nullptr)
            io->Destroy();
        if (device != nullptr)
            device->Destroy();
    }

    /// Makes the device and its inputs and relays.
    void make(Tavro8::GDRV::IIODeviceHandler* ioHandler, std::uint32_t channel = 0)
    {
        device = Device::create(&deviceHandler, &logger, traits, *service);
        ASSERT_EQ(device->CreateIODevice(channel, ioHandler, &io), 0);
    }
    void make() { make(&handler); }
    void connect(const std::string& address)
    {
        ASSERT_EQ(device->Open(address.c_str()), 0);
        ASSERT_TRUE(deviceHandler.waitConnected());
    }
    void makeConnected()
    {
        make();
        connect(peer.address());
    }
    void destroy() { std::exchange(io, nullptr)->Destroy(); }
    /// What runs now, and what that makes due, has ended.
    void settle()
    {
        service->barrier();
        service->barrier();
    }

    IODevice& object() { return *static_cast<IODevice*>(io); }
    bool on(const char* members = "\"AlarmSrcID\":1")
    {
        return object().handleTriggerInfo(alarmOf("InputAlarmOn", members));
    }
    bool off(const char* members = "\"AlarmSrcID\":1")
    {
        return object().handleTriggerInfo(alarmOf("InputAlarmOff", members));
    }
    /// What the relay commands have sent.
    std::vector<std::string> relayRequests() const
    {
        std::vector<std::string> sent;
        const auto requests = peer.requests();
        const auto bodies = peer.bodies();
        for (std::size_t i = 0; i < requests.size(); ++i) {
            if (requests[i].ends_with(relayPath))
                sent.push_back(requests[i].substr(0, requests[i].find(' ')) + ' ' + bodies[i]);
        }
        return sent;
    }

    RecordingLogger logger;
    IOHandler handler;
    DeviceHandler deviceHandler;
    ScriptedHttpPeer peer;
    std::shared_ptr<DeviceTraits> traits = std::make_shared<DeviceTraits>();
    std::shared_ptr<Tavro8::Utility::GlobalService> service = Tavro8::Utility::GlobalService::instance();
    std::shared_ptr<Device> device;
    Tavro8::GDRV::IIODevice* io = nullptr;
};

TEST_F(IODeviceTest, startAndStopWriteTheirLinesAndAreTold)
{
    make();
    io->Start();
    ASSERT_TRUE(handler.waitStarted());
    io->Stop();
    ASSERT_TRUE(handler.waitStopped());
    destroy();

    std::vector<std::string> lines;
    for (const LogLine& line : logger.lines()) {
        if (line.file == "Drivers/Uniview/src/IODevice")
            lines.push_back(line.function + '|' + line.message);
    }
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "Uniview::IODevice::Start|io: yard, 0: Starting...",
                         "Uniview::IODevice::Start|io: yard, 0: Started.",
                         "Uniview::IODevice::Stop|io: yard, 0: Stopping...",
                         "Uniview::IODevice::Stop|io: yard, 0: Stopped.",
                         "Uniview::IODevice::Destroy|io: yard, 0: Destroy",
                     }));
}

TEST_F(IODeviceTest, theNameOfANamelessDeviceIsItsChannel)
{
    traits->name.clear();
    make(&handler, 1);
    EXPECT_EQ(io->GetChannelIndex(), 1U);
    io->Start();
    EXPECT_TRUE(logger.waitFor("io: 1: Started."));
}

TEST_F(IODeviceTest, startAndStopMayAlternateAndRepeat)
{
    make();
    for (int i = 1; i <= 3; ++i) {
        io->Start();
        io->Start();
        io->Stop();
        io->Stop();
    }
    ASSERT_TRUE(logger.waitFor("Stopped.", 6));
    EXPECT_TRUE(handler.waitStopped(3));
    EXPECT_EQ(logger.count("Started."), 6U);
    EXPECT_EQ(handler.started(), 3) << "a start of what is started changes nothing";
    EXPECT_EQ(handler.stopped(), 3);
}

TEST_F(IODeviceTest, stopWithoutAStartIsHarmless)
{
    make();
    io->Stop();
    ASSERT_TRUE(logger.waitFor("Stopped."));
    EXPECT_EQ(handler.stopped(), 0);
}

TEST_F(IODeviceTest, theFirstStateOfAnInputIsToldAndThenEachChange)
{
    make();
    EXPECT_TRUE(off());
    EXPECT_TRUE(off());
    EXPECT_TRUE(on());
    EXPECT_TRUE(on("\"AlarmSrcID\":2"));
    EXPECT_EQ(handler.inputs(), (std::vector<Input>{{0, false}, {0, true}, {1, true}}));
}

TEST_F(IODeviceTest, aNotificationWithoutASourceIsOfTheFirstInput)
{
    make();
    EXPECT_TRUE(on("\"TimeStamp\":1489040894"));
    EXPECT_EQ(handler.inputs(), (std::vector<Input>{{0, true}}));
}

TEST_F(IODeviceTest, statesOutliveAStop)
{
    make();
    io->Start();
    ASSERT_TRUE(handler.waitStarted());
    EXPECT_TRUE(on());
    io->Stop();
    ASSERT_TRUE(handler.waitStopped());
    io->Start();
    ASSERT_TRUE(handler.waitStarted(2));
    EXPECT_TRUE(on());
    EXPECT_EQ(handler.inputs(), (std::vector<Input>{{0, true}}));
}

TEST_F(IODeviceTest, inputsOutOfRangeAreLeftToOthersWithAWarning)
{
    make();
    EXPECT_FALSE(on("\"AlarmSrcID\":3"));
    const auto line = logger.find("Ray ID=");
    EXPECT_EQ(line.message, "io: yard, 0: Ray ID=2 is out of range. Size: 2");
    EXPECT_EQ(line.severity, LogSeverity::warning);
    EXPECT_FALSE(on("\"AlarmSrcID\":0"));
    EXPECT_TRUE(logger.contains("io: yard, 0: Ray ID=4294967295 is out of range. Size: 2"));
    EXPECT_TRUE(handler.inputs().empty());
}

TEST_F(IODeviceTest, theCountsAreThoseOfTheChannel)
{
    make(&handler, 1);
    EXPECT_TRUE(on("\"AlarmSrcID\":1"));
    EXPECT_FALSE(on("\"AlarmSrcID\":2"));
    EXPECT_EQ(io->SetRelayStatus(0, 1), toResult(ResultCode::outOfRange)) << "no count, no relays";
}

TEST_F(IODeviceTest, withoutModelParametersThereAreNoInputs)
{
    traits->channelModelParameters.clear();
    make();
    EXPECT_FALSE(on("\"AlarmSrcID\":1"));
    EXPECT_TRUE(logger.contains("Ray ID=0 is out of range. Size: 0"));
}

TEST_F(IODeviceTest, withoutAHandlerStatesAreTakenAllTheSame)
{
    make(nullptr);
    io->Start();
    EXPECT_TRUE(on());
    EXPECT_TRUE(on());
    io->Stop();
    EXPECT_TRUE(logger.waitFor("Stopped."));
}

TEST_F(IODeviceTest, otherEventsAndShapesAreLeftToOthers)
{
    make();
    for (const char* const name : {"MotionAlarmOn", "inputalarmon", "", "\xff"})
        EXPECT_FALSE(object().handleTriggerInfo(alarmOf(name, "\"AlarmSrcID\":1"))) << name;
    for (const char* const shape : oddShapes) {
        SCOPED_TRACE(shape);
        EXPECT_FALSE(object().handleTriggerInfo(alarm(shape)));
        EXPECT_FALSE(object().handleTriggerInfo(alarm(std::string("{\"AlarmType\":") + shape + '}')));
    }
    EXPECT_TRUE(handler.inputs().empty());
    EXPECT_EQ(logger.errorCount(), 0U);
}

TEST_F(IODeviceTest, aFloodOfBrokenNotificationsIsFoldedInTheLog)
{
    make();
    for (int i = 0; i < 500; ++i) {
        EXPECT_FALSE(on("\"AlarmSrcID\":9"));
        EXPECT_FALSE(on("\"AlarmSrcID\":\"1\""));
    }
    EXPECT_EQ(logger.count("Ray ID=8"), 10U);
    EXPECT_EQ(logger.count("io: yard, 0: AlarmSrcID is not the number of an input"), 10U);
    EXPECT_TRUE(logger.contains("[collapsed 50]io: yard, 0: Ray ID=8 is out of range. Size: 2"));
}

TEST_F(IODeviceTest, aFloodOfInventedInputsIsFoldedInTheLog)
{
    make();
    for (int input = 3; input < 5000; ++input)
        EXPECT_FALSE(on(("\"AlarmSrcID\":" + std::to_string(input)).c_str()));
    EXPECT_TRUE(logger.contains("Ray ID=2 is out of range. Size: 2"));
    EXPECT_TRUE(logger.contains("Ray ID=3 is out of range. Size: 2")) << "the first few are told each by itself";
    EXPECT_LT(logger.count("Ray ID="), 5000U / 25);
    EXPECT_FALSE(on("\"AlarmSrcID\":\"1\""));
    EXPECT_TRUE(logger.contains("AlarmSrcID is not the number of an input")) << "the flood hides no other complaint";
}

TEST_F(IODeviceTest, relaysAreSwitchedWithTheseVeryBytes)
{
    makeConnected();
    EXPECT_EQ(io->SetRelayStatus(0, 1), 0);
    ASSERT_TRUE(handler.waitRelays(1));
    EXPECT_EQ(io->SetRelayStatus(1, 255), 0);
    ASSERT_TRUE(handler.waitRelays(2));
    EXPECT_EQ(io->SetRelayStatus(1, 0), 0);
    ASSERT_TRUE(handler.waitRelays(3));
    EXPECT_EQ(relayRequests(), (std::vector<std::string>{
                                   "PUT {\"Num\":1,\"IDs\":[1],\"AlarmAction\":1}",
                                   "PUT {\"Num\":1,\"IDs\":[2],\"AlarmAction\":1}",
                                   "PUT {\"Num\":1,\"IDs\":[2],\"AlarmAction\":0}",
                               }));
    EXPECT_EQ(handler.relays(), (std::vector<Relay>{{0, 0}, {1, 0}, {1, 0}}));
    EXPECT_EQ(logger.errorCount(), 0U);
}

TEST_F(IODeviceTest, aRelayBeyondTheDevicesSendsNothing)
{
    makeConnected();
    for (const std::uint32_t relay : {2U, std::numeric_limits<std::uint32_t>::max()})
        EXPECT_EQ(io->SetRelayStatus(relay, 0), toResult(ResultCode::outOfRange));
    const auto line = logger.find("Relay index out of range");
    EXPECT_EQ(line.message.substr(line.message.find("io:")), "io: yard, 0: Relay index out of range");
    EXPECT_EQ(line.severity, LogSeverity::error);
    EXPECT_EQ(logger.count("Relay index out of range"), 2U);
    EXPECT_EQ(io->SetRelayStatus(0, 0), 0);
    ASSERT_TRUE(handler.waitRelays(1));
    EXPECT_EQ(relayRequests().size(), 1U);
    EXPECT_EQ(handler.relays().size(), 1U) << "only what was taken is told";
}

TEST_F(IODeviceTest, aRelayCannotBeSwitchedBeforeTheDeviceIsKnown)
{
    make();
    EXPECT_EQ(io->SetRelayStatus(0, 1), toResult(ResultCode::invalidState));
    EXPECT_TRUE(handler.relays().empty());
}

TEST_F(IODeviceTest, failedRelayCommandsHaveTheirWordsAndResults)
{
    const struct {
        unsigned status;
        const char* body;
        ResultCode result;
        const char* line;
    } cases[] = {
        {404, "", ResultCode::resourceNotFound,
         "io: yard, 0: HTTP response has error code:404, reason:Scripted, "
         "request:/LAPI/V1.0/IO/OutputSwitches/ManualAlarm"},
        {401, succeeded, ResultCode::accessDenied, "io: yard, 0: HTTP response has error code:401, reason:Scripted"},
        {500, succeeded, ResultCode::deviceError, "io: yard, 0: HTTP response has error code:500"},
        {300, succeeded, ResultCode::unexpectedStatus, "io: yard, 0: HTTP response has error code:300"},
        {200, "", ResultCode::emptyReply,
         "io: yard, 0: HTTP responce is empty, request:/LAPI/V1.0/IO/OutputSwitches/ManualAlarm"},
        {200, "done", ResultCode::malformedReply, "io: yard, 0: Cannot parse the reply to a relay command: "},
        {200, "[]", ResultCode::malformedReply, "io: yard, 0: Cannot parse the reply to a relay command: "},
        {200, "{\"Response\":{\"ResponseCode\":1,\"ResponseString\":\"Not Supported\",\"StatusString\":\"x\"}}",
         ResultCode::apiError, "Internal API error :Not Supported, status :x"},
    };
    makeConnected();
    std::size_t told = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        peer.answer(relayPath, c.status, c.body);
        EXPECT_EQ(io->SetRelayStatus(1, 1), 0);
        ASSERT_TRUE(handler.waitRelays(++told));
        EXPECT_EQ(handler.relays().back(), (Relay{1, toResult(c.result)}));
        EXPECT_EQ(logger.find(c.line).severity, LogSeverity::error);
        EXPECT_EQ(logger.errorCount(), told) << "each failure is logged once";
    }
}

TEST_F(IODeviceTest, aRedirectOfARelayCommandIsSuccess)
{
    makeConnected();
    peer.answer(relayPath, 302, succeeded);
    EXPECT_EQ(io->SetRelayStatus(0, 1), 0);
    ASSERT_TRUE(handler.waitRelays(1));
    EXPECT_EQ(handler.relays().back(), (Relay{0, 0}));
}

TEST_F(IODeviceTest, aDeviceThatIsGoneGivesTheTransportsWords)
{
    make();
    {
        ScriptedHttpPeer gone;
        gone.answer("/LAPI/V1.0/Network/Port", 200, "{}");
        connect(gone.address());
    }
    EXPECT_EQ(io->SetRelayStatus(0, 1), 0);
    ASSERT_TRUE(handler.waitRelays(1));
    EXPECT_EQ(handler.relays().back(), (Relay{0, toResult(ResultCode::deviceUnreachable)}));
    EXPECT_TRUE(logger.contains("io: yard, 0: HTTP request is finished with error:256, message:"));
    EXPECT_TRUE(logger.contains(", request:/LAPI/V1.0/IO/OutputSwitches/ManualAlarm"));

    EXPECT_EQ(io->SetRelayStatus(0, 1), 0);  // two in a row, and the device counts as lost
    EXPECT_TRUE(deviceHandler.waitLost());
}

TEST_F(IODeviceTest, aRelayCommandUnderWayIsCarriedOutAfterDestroy)
{
    makeConnected();
    std::promise<void> destroyed;
    boost::asio::post(device->service(), [&] { destroyed.get_future().wait(); });  // so that no reply comes earlier
    EXPECT_EQ(io->SetRelayStatus(0, 1), 0);
    destroy();
    destroyed.set_value();
    EXPECT_TRUE(peer.waitForRequest(std::string("PUT ") + relayPath));
    service->barrier();
    EXPECT_EQ(relayRequests().size(), 1U);
    EXPECT_TRUE(handler.relays().empty());
}

TEST_F(IODeviceTest, aRelayCommandWithoutAReplyIsTakenBackSoonAfterDestroy)
{
    makeConnected();
    io->Destroy();
    io = IODevice::create(device.get(), 0, &handler, std::chrono::milliseconds(20));
    const std::weak_ptr<IODevice> gone = object().weak_from_this();
    peer.staySilent(relayPath);
    EXPECT_EQ(io->SetRelayStatus(0, 1), 0);
    EXPECT_EQ(io->SetRelayStatus(1, 1), 0);
    ASSERT_TRUE(peer.waitForRequest(std::string("PUT ") + relayPath, 2));
    destroy();
    // Long before the request would have timed out by itself.
    EXPECT_TRUE(logger.waitFor("HTTP request is finished with error:", 2));
    settle();
    EXPECT_TRUE(gone.expired()) << "it would keep the module from being unloaded";
    EXPECT_TRUE(handler.relays().empty());
}

TEST_F(IODeviceTest, theFarewellEndsWithTheLastReply)
{
    makeConnected();
    io->Destroy();
    io = IODevice::create(device.get(), 0, &handler, std::chrono::hours(1));
    const std::weak_ptr<IODevice> gone = object().weak_from_this();
    peer.answer(relayPath, 500, "");
    std::promise<void> destroyed;
    boost::asio::post(device->service(), [&] { destroyed.get_future().wait(); });  // so that no reply comes earlier
    EXPECT_EQ(io->SetRelayStatus(0, 1), 0);
    destroy();
    destroyed.set_value();
    ASSERT_TRUE(logger.waitFor("HTTP response has error code:500"));
    settle();
    EXPECT_TRUE(gone.expired());
}

TEST_F(IODeviceTest, mayBeDestroyedFromInsideAnyCallback)
{
    makeConnected();
    const auto destroyIt = [](Tavro8::GDRV::IIODevice* object) { object->Destroy(); };

    handler.onRelay = destroyIt;
    EXPECT_EQ(io->SetRelayStatus(0, 1), 0);
    ASSERT_TRUE(handler.waitRelays(1));
    service->barrier();

    ASSERT_EQ(device->CreateIODevice(0, &handler, &io), 0);
    handler.onInput = destroyIt;
    const auto keep = object().shared_from_this();
    EXPECT_TRUE(on());
    EXPECT_FALSE(off()) << "what is destroyed takes nothing any more";
    EXPECT_EQ(handler.inputs(), (std::vector<Input>{{0, true}}));

    ASSERT_EQ(device->CreateIODevice(0, &handler, &io), 0);
    handler.onStarted = [this] { destroy(); };
    io->Start();
    ASSERT_TRUE(handler.waitStarted());
    service->barrier();
    EXPECT_EQ(logger.count("Started."), 1U);
    io = nullptr;
}

TEST_F(IODeviceTest, destroyWaitsForACallbackOfAnotherThread)
{
    make();
    std::promise<void> entered;
    std::promise<void> leave;
    std::atomic<bool> inside{false};
    handler.onInput = [&](Tavro8::GDRV::IIODevice*) {
        inside = true;
        entered.set_value();
        leave.get_future().wait();
        inside = false;
    };
    std::thread delivery([this, keep = object().shared_from_this()] { EXPECT_TRUE(on()); });
    entered.get_future().wait();
    std::thread owner([&] {
        io->Destroy();
        EXPECT_FALSE(inside);
    });
    EXPECT_TRUE(logger.waitFor("io: yard, 0: Destroy"));
    leave.set_value();
    owner.join();
    delivery.join();
    io = nullptr;
}

TEST_F(IODeviceTest, whatWasStartedMayBeDestroyedAtOnceAndItsDeviceToo)
{
    make();
    io->Start();
    io->Stop();
    io->Start();
    destroy();
    std::exchange(device, nullptr)->Destroy();
    service->barrier();
    EXPECT_TRUE(logger.contains("Destroy"));
}

TEST_F(IODeviceTest, channelsThatAreNotThereHaveNone)
{
    device = Device::create(nullptr, &logger, traits, *service);
    EXPECT_EQ(device->CreateIODevice(2, nullptr, &io), toResult(ResultCode::notFound));
    EXPECT_EQ(io, nullptr);
    EXPECT_EQ(device->CreateIODevice(0, nullptr, nullptr), toResult(ResultCode::invalidArgument));
}

TEST_F(IODeviceTest, countsThatAreNoneAreRefused)
{
    for (const boost::any& count : {boost::any(-1), boost::any(IODevice::maxCount + 1), boost::any(std::string("2"))}) {
        for (const char* const key : {"rayCount", "relayCount"}) {
            const auto broken = std::make_shared<DeviceTraits>(*traits);
            broken->channelModelParameters[0][key] = count;
            const auto other = Device::create(nullptr, &logger, broken, *service);
            EXPECT_EQ(other->CreateIODevice(0, nullptr, &io), toResult(ResultCode::unexpected));
            EXPECT_EQ(io, nullptr);
            other->Destroy();
        }
    }
    EXPECT_EQ(logger.errorCount(), 6U);
    EXPECT_TRUE(logger.contains("the model parameter \"rayCount\" is out of range"));
}

TEST_F(IODeviceTest, offersItsContracts)
{
    make();
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IIODevice>(io), io);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IDeviceChannel>(io), io);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IDetector>(io), nullptr);
}
}  // namespace
