#include "HostFakes.h"
#include "ModuleSettings.h"
#include "ScriptedHttpPeer.h"

#include <Tavro8/ResultCode.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

extern "C" {
bool initModule(Tavro8::GDRV::IModuleContext* host, const char* moduleIdentifier);
Tavro8::GDRV::IModule* getModule();
void finiModule();
}

namespace
{
using namespace kelvo::test;
using Tavro8::ResultCode;
using Tavro8::toResult;

class EntryPoints : public ::testing::Test {
protected:
    EntryPoints()
        : directory(std::filesystem::temp_directory_path() / ("kelvo-entry-" + std::to_string(::getpid()))),
          host(directory)
    {
        std::filesystem::create_directories(directory / "Kelvo");
        std::ofstream(directory / "Kelvo" / "Kelvo.Uniview.rep")
            << "localServerPort = 32123\n; a comment\nfree = yes\n";
    }
    ~EntryPoints() override
    {
        finiModule();
        std::filesystem::remove_all(directory);
    }

    std::filesystem::path directory;
    HostContext host;
};

TEST_F(EntryPoints, thereIsNoModuleBeforeInitAndAfterFini)
{
    EXPECT_EQ(getModule(), nullptr);
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    EXPECT_NE(getModule(), nullptr);
    finiModule();
    EXPECT_EQ(getModule(), nullptr);
}

TEST_F(EntryPoints, secondInitIsRefusedAndKeepsTheFirstModule)
{
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    auto* const first = getModule();
    HostContext other(directory);
    EXPECT_FALSE(initModule(&other, "Kelvo"));
    EXPECT_EQ(getModule(), first);
    EXPECT_EQ(Uniview::ModuleSettings::loggerHolder().host, &host);
}

TEST_F(EntryPoints, nullArgumentsAreRefusedAndCreateNothing)
{
    EXPECT_FALSE(initModule(nullptr, "Kelvo"));
    EXPECT_FALSE(initModule(&host, nullptr));
    EXPECT_EQ(getModule(), nullptr);
    EXPECT_EQ(host.loggingContextCalls, 0);
}

TEST_F(EntryPoints, finiTwiceIsHarmless)
{
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    finiModule();
    finiModule();
    EXPECT_EQ(getModule(), nullptr);
}

TEST_F(EntryPoints, asksForTheLoggingContextOnceForTheRepositoryAndOnceForTheLoggers)
{
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    EXPECT_EQ(host.loggingContextCalls, 2);
    EXPECT_EQ(Uniview::ModuleSettings::loggerHolder().loggingContext, &host);
    EXPECT_NE(Uniview::ModuleSettings::loggerHolder().fileLogger.get(), nullptr);
}

TEST_F(EntryPoints, missingRepositoryIsRefusedWithAReason)
{
    EXPECT_FALSE(initModule(&host, "Nobody"));
    EXPECT_EQ(getModule(), nullptr);
    EXPECT_TRUE(host.logger.contains("Kelvo.Uniview.rep"));
    EXPECT_TRUE(initModule(&host, "Kelvo")) << "nothing of the failed start may remain";
}

TEST_F(EntryPoints, moduleIdentifierMayHoldLettersBeyondAscii)
{
    const auto named = directory / std::filesystem::path(u8"K\u00e4fer");
    std::filesystem::create_directories(named);
    std::ofstream(named / "Kelvo.Uniview.rep") << "";
    EXPECT_TRUE(initModule(&host, "K\xC3\xA4"
                                  "fer"));
}

TEST_F(EntryPoints, hostOfAnotherSdkVersionIsRefusedWithAReason)
{
    host.version = Tavro8::makeSdkVersion(2, 0);
    EXPECT_FALSE(initModule(&host, "Kelvo"));
    EXPECT_EQ(getModule(), nullptr);
    EXPECT_TRUE(host.logger.contains("Kelvo.Uniview.ipd needs host SDK 1.1, the host offers 2.0"));
}

TEST_F(EntryPoints, hostThatDoesNotKnowTheEndOfACallIsRefused)
{
    host.version = Tavro8::makeSdkVersion(1, 0);
    EXPECT_FALSE(initModule(&host, "Kelvo"));
    EXPECT_TRUE(host.logger.contains("Kelvo.Uniview.ipd needs host SDK 1.1, the host offers 1.0"));
}

TEST_F(EntryPoints, facilitiesThatTheModuleDoesNotHaveAreNotSupported)
{
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    Tavro8::IContract* facility = static_cast<Tavro8::GDRV::IModuleContext*>(&host);
    EXPECT_EQ(getModule()->CreateFirmwareUpdater(&facility), toResult(ResultCode::notSupported));
    EXPECT_EQ(facility, nullptr);
    EXPECT_EQ(getModule()->CreateConfigurator(&facility), toResult(ResultCode::notSupported));
    EXPECT_EQ(getModule()->CreateLicenceInspector(&facility), toResult(ResultCode::notSupported));
    EXPECT_EQ(getModule()->CreateLicenceInspector(nullptr), toResult(ResultCode::invalidArgument));
    Tavro8::GDRV::IDeviceDiscovery* discovery = nullptr;
    EXPECT_EQ(getModule()->CreateDiscovery(nullptr, &discovery), toResult(ResultCode::notSupported));
}

TEST_F(EntryPoints, theModuleNamesItsVersion)
{
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    EXPECT_EQ(getModule()->GetSdkVersion(), Tavro8::sdkVersion);
    EXPECT_EQ(Tavro8::queryContract<Tavro8::GDRV::IModule>(getModule()), getModule());
    EXPECT_STREQ(getModule()->GetModuleName(), "Uniview");
}

TEST_F(EntryPoints, devicesGetTheRepositorysProperties)
{
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    const Description description;
    Tavro8::GDRV::IDevice* device = nullptr;
    ASSERT_EQ(getModule()->CreateDevice(&description, nullptr, &device), 0);
    EXPECT_TRUE(host.logger.contains("Set listener port from repository, value='32123'"));
    device->Destroy();
}

TEST_F(EntryPoints, createDeviceRefusesNullArguments)
{
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    const Description description;
    Tavro8::GDRV::IDevice* device = nullptr;
    EXPECT_EQ(getModule()->CreateDevice(nullptr, nullptr, &device), toResult(ResultCode::invalidArgument));
    EXPECT_EQ(getModule()->CreateDevice(&description, nullptr, nullptr), toResult(ResultCode::invalidArgument));
}

TEST_F(EntryPoints, secondLifeLogsThroughTheSecondHost)
{
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    finiModule();
    const auto before = host.logger.lines().size();
    HostContext second(directory);
    ASSERT_TRUE(initModule(&second, "Kelvo"));
    const Description description;
    Tavro8::GDRV::IDevice* device = nullptr;
    ASSERT_EQ(getModule()->CreateDevice(&description, nullptr, &device), 0);
    device->Destroy();
    EXPECT_EQ(host.logger.lines().size(), before);
    EXPECT_TRUE(second.logger.contains("Set listener port"));
    finiModule();
}

TEST_F(EntryPoints, finiEndsAnAttemptThatIsUnderWay)
{
    ScriptedHttpPeer peer;
    peer.staySilent("/LAPI/V1.0/Network/Port");
    ASSERT_TRUE(initModule(&host, "Kelvo"));
    const Description description;
    Tavro8::GDRV::IDevice* device = nullptr;
    ASSERT_EQ(getModule()->CreateDevice(&description, nullptr, &device), 0);
    ASSERT_EQ(device->Open(peer.address().c_str()), 0);
    ASSERT_TRUE(peer.waitForRequests(1));
    device->Destroy();
    finiModule();
    EXPECT_EQ(getModule(), nullptr);
}
}  // namespace
