#include "Device.h"

#include "DeviceFixture.h"

#include <Tavro8/ResultCode.h>
#include <future>
#include <gtest/gtest.h>
#include <string>

namespace
{
using namespace Uniview;
using namespace kelvo::test;
using namespace Uniview::test;
using Tavro8::ParameterMap;
using Tavro8::ResultCode;
using Tavro8::toResult;
using Tavro8::Utility::GlobalService;

class DeviceTest : public DeviceFixture {};

TEST_F(DeviceTest, takesTheRtspPortFromThePortReply)
{
    make();
    connect();
    EXPECT_EQ(device->GetRtspPort(), 8554);
    EXPECT_EQ(device->getRtspConnectionInfo()->port, 8554);
    EXPECT_EQ(device->getHttpConnectionInfo()->port, peer.port());
    EXPECT_TRUE(logger.contains("RTSP port is reachable"));
    EXPECT_EQ(peer.requests(),
              (std::vector<std::string>{std::string("GET ") + portPath, std::string("GET ") + infoPath}));
}

TEST_F(DeviceTest, usesPort554WhenTheReplyNamesNone)
{
    make();
    peer.answer(portPath, 200, "{}");
    connect();
    EXPECT_EQ(device->GetRtspPort(), 554);
    EXPECT_TRUE(logger.contains("Uniview: Can't get find rstp port info in device's answer, use default value"));
}

TEST_F(DeviceTest, usesPort554WhenTheReplysPortIsTooLarge)
{
    make();
    peer.answer(portPath, 200, "\"RTSPPort\":70000");
    connect();
    EXPECT_EQ(device->GetRtspPort(), 554);
    EXPECT_TRUE(logger.contains("Univiewbad lexical cast: source type value could not be interpreted as target"));
}

TEST_F(DeviceTest, usesPort554WhenTheReplysPortIsNoInt)
{
    make();
    peer.answer(portPath, 200, "\"RTSPPort\":99999999999");
    connect();
    EXPECT_EQ(device->GetRtspPort(), 554);
    EXPECT_TRUE(logger.contains("Univiewstoi argument out of range"));
}

TEST_F(DeviceTest, asksForTheOtherSpellingAfter599)
{
    make();
    peer.answer(portPath, 599, "{\"Response\":{\"ResponseCode\":1}}");
    peer.answer(portsPath, 200, "\"RTSPPort\":9554");
    connect();
    EXPECT_EQ(device->GetRtspPort(), 9554);
    EXPECT_EQ(device->getHttpConnectionInfo()->mode, Tavro8::asio::ConnectionMode::alternative);
}

TEST_F(DeviceTest, rejectedPortReplyIs256AfterTheDeviceWasIdentified)
{
    make();
    peer.answer(portPath, 500, "");
    peer.answer(infoPath, 200, deviceInfo(1));
    failToConnect();
    EXPECT_EQ(handler.result(), 256);
    EXPECT_TRUE(logger.contains("Could not connect to the device. Error code:500"));
    EXPECT_EQ(device->GetDeviceKind(), 1U);
    EXPECT_NE(device->getHttpConnectionInfo(), nullptr);
    EXPECT_EQ(device->getRtspConnectionInfo(), nullptr);
}

TEST_F(DeviceTest, redirectOfThePortRequestIsAccepted)
{
    make();
    peer.answer(portPath, 302, "\"RTSPPort\":8555");
    connect();
    EXPECT_EQ(device->GetRtspPort(), 8555);
}

TEST_F(DeviceTest, emptyAddressIs256AndSendsNothing)
{
    make();
    ASSERT_EQ(device->Open(""), 0);
    ASSERT_TRUE(handler.waitFailed());
    EXPECT_EQ(handler.result(), 256);
    EXPECT_TRUE(peer.requests().empty());
    EXPECT_EQ(device->getHttpConnectionInfo(), nullptr);
}

TEST_F(DeviceTest, unusableAddressesAre256)
{
    for (const char* const address : {"http://", "host:99999", "http://user:pa ss@host", "ftp://host", "[::1", "a b"}) {
        SCOPED_TRACE(address);
        DeviceHandler fails;
        const auto other = Device::create(&fails, &logger, std::make_shared<DeviceTraits>(), *service);
        ASSERT_EQ(other->Open(address), 0);
        EXPECT_TRUE(fails.waitFailed());
        EXPECT_EQ(fails.result(), 256);
        other->Destroy();
    }
    EXPECT_FALSE(logger.contains("pa ss"));
}

TEST_F(DeviceTest, nullAddressIsRefused)
{
    make();
    EXPECT_EQ(device->Open(nullptr), toResult(ResultCode::invalidArgument));
}

TEST_F(DeviceTest, prescribedLinesHaveTheirSeverity)
{
    using Tavro8::LogSeverity;
    make();
    peer.answer(portPath, 404, "");
    peer.answer(infoPath, 500, "");
    failToConnect();
    EXPECT_EQ(logger.find("Could not connect to the device. Error code:404").severity, LogSeverity::error);
    EXPECT_EQ(logger.find("Can't get device type").severity, LogSeverity::error);
    EXPECT_EQ(
        logger.find(" HTTP response has error code:404, reason:Scripted, request:/LAPI/V1.0/Network/Port").severity,
        LogSeverity::error);
    EXPECT_EQ(logger.find(" HTTP response has error code:500").severity, LogSeverity::error);
}

TEST_F(DeviceTest, thePortFallbackIsLoggedByTheModuleWithoutTheEndpoint)
{
    make();
    peer.answer(portPath, 200, "{}");
    connect();
    EXPECT_EQ(logger.find("Can't get find rstp port").message,
              "Uniview: Can't get find rstp port info in device's answer, use default value");
}

TEST_F(DeviceTest, closedPortIs256)
{
    make();
    std::string address;
    {
        const ScriptedHttpPeer gone;
        address = gone.address();
    }
    ASSERT_EQ(device->Open(address.c_str()), 0);
    ASSERT_TRUE(handler.waitFailed());
    EXPECT_EQ(handler.result(), 256);
    EXPECT_TRUE(logger.contains(" HTTP request is finished with error:256"));
    EXPECT_TRUE(logger.contains("Could not connect to the device. Error code:0"));
}

TEST_F(DeviceTest, whatIsNotHttpIs256)
{
    make();
    peer.answerRaw(portPath, "SSH-2.0-OpenSSH_9.2\r\n");
    failToConnect();
    EXPECT_EQ(handler.result(), 256);
}

TEST_F(DeviceTest, destroyDoesNotWaitForASilentDevice)
{
    make();
    peer.staySilent(portPath);
    open();
    ASSERT_TRUE(peer.waitForRequests(1));
    device->Destroy();
    device = nullptr;
    service->barrier();  // the attempt has ended too, long before its time-out
    EXPECT_FALSE(logger.contains("RTSP port is reachable"));
}

TEST_F(DeviceTest, typeZeroWithSeveralChannelsIsAMultichannelCamera)
{
    make(2);
    connect();
    EXPECT_EQ(device->GetDeviceKind(), 1000U);
    EXPECT_TRUE(logger.contains("Device type is multichannel IPC"));
    EXPECT_EQ(device->getURL(1, 0), "/media2/video1");
    EXPECT_EQ(device->getURL(0, 0), "/media1/video1");
}

TEST_F(DeviceTest, typesOneAndTwoAreRecorders)
{
    make(4);
    peer.answer(infoPath, 200, deviceInfo(2));
    connect();
    EXPECT_EQ(device->GetDeviceKind(), 1U);
    EXPECT_TRUE(logger.contains("Device type is NVR"));
    EXPECT_EQ(device->getURL(0, 1), "/unicast/c1/s1/live");
    EXPECT_EQ(device->getURL(0, 0), "/unicast/c1/s0/live");
}

TEST_F(DeviceTest, anythingElseIsACamera)
{
    make();
    peer.answer(infoPath, 200, deviceInfo(3));
    connect();
    EXPECT_EQ(device->GetDeviceKind(), 0U);
    EXPECT_TRUE(logger.contains("Device type is IPC"));
    EXPECT_EQ(device->getURL(0, 0), "/media/video1");
    EXPECT_EQ(device->getURL(0, 2), "/media/video3");
}

TEST_F(DeviceTest, deviceTypeFailuresAreLoggedAndDoNotStopTheConnection)
{
    const struct {
        unsigned status;
        const char* body;
        const char* line;
    } cases[] = {
        {500, "", "Can't get device type"},
        {200, "", "Can't get device type"},
        {200, "{\"Response\":", "Cannot parse device type data"},
        {200, "nothing", "Cannot parse device type data"},
        {200, "{\"Response\":{\"Data\":{\"Name\":1}}}", "Unkwown device type"},
        {200, "{\"Response\":{\"ResponseCode\":0}}", "Unkwown device type"},
        {200, "{\"Response\":{\"Data\":{\"DeviceType\":\"x\"}}}", "std::exception during parsing device type data :"},
        {200, "{\"Response\":{\"Data\":[1]}}", "std::exception during parsing device type data :"},
    };
    make();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.body);
        peer.answer(infoPath, c.status, c.body);
        DeviceHandler connects;
        RecordingLogger lines;
        const auto other = Device::create(&connects, &lines, std::make_shared<DeviceTraits>(), *service);
        ASSERT_EQ(other->Open(peer.address().c_str()), 0);
        EXPECT_TRUE(connects.waitConnected());
        EXPECT_TRUE(lines.contains(c.line));
        EXPECT_EQ(other->GetDeviceKind(), 0U);
        other->Destroy();
        service->barrier();  // nothing logs any more
    }
}

TEST_F(DeviceTest, listenerSettingsOfTheRepositoryAreKeptAndLogged)
{
    make(1, {{"localServerIP", std::string("192.0.2.7")}, {"localServerPort", std::string("32100")}, {"other", 1}});
    EXPECT_TRUE(logger.contains("Set listener IP from repository, value='192.0.2.7'"));
    EXPECT_TRUE(logger.contains("Set listener port from repository, value='32100'"));
    EXPECT_EQ(device->getParameters().get<std::string>("localServerIP").value(), "192.0.2.7");
    EXPECT_EQ(device->getParameters().get<int>("localServerPort").value(), 32100);
    EXPECT_EQ(device->getParameters().get<int>("other").value(), 1);
}

TEST_F(DeviceTest, listenerPortThatIsNoneIsLoggedAndIgnored)
{
    const struct {
        boost::any value;
        const char* shown;
    } cases[] = {
        {std::string("http"), "'http'"}, {std::string("70000"), "'70000'"},      {-1, "-1"},
        {std::string("80x"), "'80x'"},   {1.5, "neither a text nor an integer"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.shown);
        const auto description = std::make_shared<DeviceTraits>();
        description->properties["localServerPort"] = c.value;
        RecordingLogger lines;
        const auto other = Device::create(nullptr, &lines, description, *service);
        EXPECT_TRUE(lines.contains("The value of localServerPort is no port and is ignored: " + std::string(c.shown) +
                                   "; port 32000 is used"));
        EXPECT_FALSE(other->getParameters().get<int>("localServerPort"));
        other->Destroy();
    }
}

TEST_F(DeviceTest, listenerAddressThatIsNoneIsLoggedAndIgnored)
{
    for (const boost::any& value : {boost::any(std::string("nonsense")), boost::any(std::string("1.2.3.4\",\"x\":\"")),
                                    boost::any(std::string("192.0.2.7:80")), boost::any(7)}) {
        const auto description = std::make_shared<DeviceTraits>();
        description->properties["localServerIP"] = value;
        RecordingLogger lines;
        const auto other = Device::create(nullptr, &lines, description, *service);
        const auto line = lines.find("The value of localServerIP is no IP address and is ignored");
        EXPECT_EQ(line.severity, Tavro8::LogSeverity::error);
        EXPECT_FALSE(lines.contains("Set listener IP"));
        EXPECT_FALSE(other->getParameters().get<std::string>("localServerIP"));
        other->Destroy();
    }
}

TEST_F(DeviceTest, emptyListenerSettingsAreNoSettings)
{
    make(1, {{"localServerIP", std::string()}, {"localServerPort", std::string()}});
    EXPECT_FALSE(logger.contains("Set listener"));
    EXPECT_FALSE(device->getParameters().get<int>("localServerPort"));
}

TEST(DeviceTraits, whatTheHostSetsOutranksTheRepository)
{
    Description description;
    description.properties = {{"localServerPort", 1}, {"mine", 2}};
    const DeviceTraits traits(description, {{"localServerPort", std::string("9")}, {"theirs", std::string("3")}});
    EXPECT_EQ(boost::any_cast<int>(traits.properties.at("localServerPort")), 1);
    EXPECT_EQ(boost::any_cast<int>(traits.properties.at("mine")), 2);
    EXPECT_EQ(boost::any_cast<std::string>(traits.properties.at("theirs")), "3");
}

TEST_F(DeviceTest, aSingleChannelCameraIsAddressedByTheIndexUnlessItCountsFromOne)
{
    make();
    connect();
    EXPECT_EQ(device->channelNumber(0), 0U);

    const auto countsFromOne = std::make_shared<DeviceTraits>();
    countsFromOne->modelParameters["channelNumbering"] = 0;
    const auto other = Device::create(nullptr, nullptr, countsFromOne, *service);
    EXPECT_EQ(other->channelNumber(0), 1U);
    other->Destroy();
}

TEST_F(DeviceTest, recordersAreAddressedFromOne)
{
    make(4);
    peer.answer(infoPath, 200, deviceInfo(1));
    connect();
    EXPECT_EQ(device->channelNumber(0), 1U);
    EXPECT_EQ(device->channelNumber(3), 4U);
}

TEST_F(DeviceTest, everyAttemptReplacesTheDescriptions)
{
    make();
    connect();
    const auto first = device->getRtspConnectionInfo();
    peer.answer(portPath, 200, "\"RTSPPort\":9000");
    device->Close();
    ASSERT_TRUE(handler.waitClosed());
    open();
    ASSERT_TRUE(handler.waitConnected(2));
    EXPECT_EQ(first->port, 8554);
    EXPECT_EQ(device->GetRtspPort(), 9000);
}

TEST_F(DeviceTest, neverLogsThePassword)
{
    make();
    peer.answer(portPath, 401, "");
    failToConnect();
    for (const auto& line : logger.lines())
        EXPECT_EQ(line.message.find("secret"), std::string::npos) << line;
}

TEST_F(DeviceTest, linesCarryTheEndpointAndThePrescribedSource)
{
    make();
    connect();
    const auto line = logger.find("RTSP port is reachable");
    EXPECT_EQ(line.function, "Uniview::Device::tryConnect");
    EXPECT_EQ(line.file, "Drivers/Uniview/src/ModuleDriver");
    EXPECT_NE(line.message.find(peer.address()), std::string::npos) << line;
}

TEST_F(DeviceTest, offersItsInformationAsAContract)
{
    make(2);
    connect();
    auto* const information =
        Tavro8::queryContract<Tavro8::GDRV::IDeviceInformation>(static_cast<Tavro8::GDRV::IDevice*>(device.get()));
    ASSERT_NE(information, nullptr);
    EXPECT_EQ(information->GetDeviceKind(), 1000U);
    EXPECT_EQ(information->GetChannelCount(), 2U);
    EXPECT_EQ(information->GetRtspPort(), 8554);

    char path[64];
    EXPECT_EQ(information->GetLivePath(1, 0, path, sizeof path), 14U);
    EXPECT_STREQ(path, "/media2/video1");
    char cut[7];
    EXPECT_EQ(information->GetLivePath(1, 0, cut, sizeof cut), 14U);
    EXPECT_STREQ(cut, "/media");
    EXPECT_EQ(information->GetLivePath(1, 0, nullptr, 0), 14U);
}

TEST_F(DeviceTest, mayBeDestroyedFromInsideItsCallback)
{
    make();
    std::promise<void> destroyed;
    handler.onConnected = [&](Tavro8::GDRV::IDevice* connected) {
        connected->Destroy();
        destroyed.set_value();
    };
    open();
    ASSERT_EQ(destroyed.get_future().wait_for(patience), std::future_status::ready);
    device = nullptr;
}
}  // namespace
