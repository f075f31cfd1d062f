#include "CallHandler.h"
#include "HostFakes.h"
#include "Programs.h"
#include "ScriptedHttpPeer.h"

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <unistd.h>

// The library that is shipped, loaded as a host loads it: through its entry points and the SDK alone.
namespace
{
using namespace kelvo::test;
using namespace Tavro8::GDRV;

std::string modulePath()
{
    return programUnderTest("Kelvo.Uniview.ipd");
}

class ModuleLibrary : public ::testing::Test {
protected:
    ModuleLibrary()
        : directory(std::filesystem::temp_directory_path() / ("kelvo-module-" + std::to_string(::getpid()))),
          host(directory)
    {
        std::filesystem::create_directories(directory / "m");
        std::ofstream(directory / "m" / "Kelvo.Uniview.rep") << "";
        load();
    }
    ~ModuleLibrary() override
    {
        if (library != nullptr)
            ::dlclose(library);
        std::filesystem::remove_all(directory);
    }

    void load()
    {
        library = ::dlopen(modulePath().c_str(), RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << ::dlerror();
        init = reinterpret_cast<InitModule>(::dlsym(library, "initModule"));
        get = reinterpret_cast<GetModule>(::dlsym(library, "getModule"));
        fini = reinterpret_cast<FiniModule>(::dlsym(library, "finiModule"));
        ASSERT_TRUE(init != nullptr && get != nullptr && fini != nullptr);
    }
    void unload()
    {
        ::dlclose(library);
        library = nullptr;
    }

    std::filesystem::path directory;
    HostContext host;
    void* library = nullptr;
    InitModule init = nullptr;
    GetModule get = nullptr;
    FiniModule fini = nullptr;
};

TEST_F(ModuleLibrary, exportsItsEntryPointsAndTwoHelpersAndNothingElse)
{
    const std::string command = "nm -D --defined-only '" + modulePath() + "'";
    std::FILE* const pipe = ::popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> names;
    std::array<char, 512> line{};
    while (std::fgets(line.data(), static_cast<int>(line.size()), pipe) != nullptr) {
        std::string text = line.data();
        text.erase(text.find_last_not_of(" \n") + 1);
        names.insert(text.substr(text.rfind(' ') + 1));
    }
    ASSERT_EQ(::pclose(pipe), 0);
    EXPECT_EQ(names,
              (std::set<std::string>{
                  "initModule", "getModule", "finiModule", "_ZNK7Uniview6Device6getURLB5cxx11Ejj",
                  "_ZN7Uniview15adjustingRangesERKN4Json5ValueERSt6vectorIN6Tavro84GDRV13DateTimeRangeESaIS7_EEmPNS5_"
                  "7ILoggerE"}));
}

TEST_F(ModuleLibrary, canBeUnloadedAndLoadedAgainWhileADeviceWasConnecting)
{
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        ScriptedHttpPeer peer;
        peer.staySilent("/LAPI/V1.0/Network/Port");
        DeviceHandler handler;
        const Description description;
        ASSERT_TRUE(init(&host, "m"));
        IDevice* device = nullptr;
        ASSERT_EQ(get()->CreateDevice(&description, &handler, &device), 0);
        ASSERT_EQ(device->Open(peer.address().c_str()), 0);
        ASSERT_TRUE(peer.waitForRequests(1));
        device->Destroy();
        fini();
        unload();
        load();
    }
}

TEST_F(ModuleLibrary, manyThreadsMayUseItAtOnce)
{
    ScriptedHttpPeer peer;
    peer.answer("/LAPI/V1.0/Network/Port", 200, "\"RTSPPort\":1");
    peer.answer("/LAPI/V1.0/System/DeviceInfo", 200, "{\"Response\":{\"Data\":{\"DeviceType\":0}}}");
    ASSERT_TRUE(init(&host, "m"));
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index) {
        threads.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                DeviceHandler handler;
                ChannelHandler channel;
                const Description description;
                IDevice* device = nullptr;
                ASSERT_EQ(get()->CreateDevice(&description, &handler, &device), 0);
                ASSERT_EQ(device->Open(peer.address().c_str()), 0);
                IVideoSource* source = nullptr;
                ASSERT_EQ(device->CreateVideoSource(0, 0, &channel, &channel, {}, nullptr, &source), 0);
                source->Start();
                std::thread stopper([source] { source->Stop(); });
                source->Start();
                stopper.join();
                ASSERT_TRUE(handler.waitConnected());
                source->Destroy();
                device->Destroy();
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    fini();
}

TEST_F(ModuleLibrary, canBeUnloadedInTheMiddleOfACall)
{
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor silent(io, {boost::asio::ip::address_v4::loopback(), 0});  // accepts, says nothing
    ScriptedHttpPeer peer;
    peer.answer("/LAPI/V1.0/Network/Port", 200, "\"RTSPPort\":" + std::to_string(silent.local_endpoint().port()));
    peer.answer("/LAPI/V1.0/System/DeviceInfo", 200, "{\"Response\":{\"Data\":{\"DeviceType\":0}}}");
    for (int round = 0; round < 10; ++round) {
        SCOPED_TRACE(round);
        DeviceHandler handler;
        CallHandler calls;
        const Description description;
        ASSERT_TRUE(init(&host, "m"));
        IDevice* device = nullptr;
        ASSERT_EQ(get()->CreateDevice(&description, &handler, &device), 0);
        ASSERT_EQ(device->Open(peer.address().c_str()), 0);
        ASSERT_TRUE(handler.waitConnected());
        IAudioDestination* destination = nullptr;
        ASSERT_EQ(device->CreateAudioDestination(0, &calls, {}, &destination), 0);
        destination->Call();
        const std::vector<std::int16_t> sound(160);
        destination->PushAudioFrame({sound});
        if (round % 2 == 0) {
            boost::asio::ip::tcp::socket asked(io);
            silent.accept(asked);
            std::array<char, 1> request{};
            ASSERT_EQ(asked.read_some(boost::asio::buffer(request)), 1U) << "the device is asked and does not answer";
        }
        destination->Destroy();
        device->Destroy();
        fini();
        unload();
        load();
    }
}

TEST_F(ModuleLibrary, canBeUnloadedWhileSettingsAreUnderWay)
{
    ScriptedHttpPeer peer;
    peer.answer("/LAPI/V1.0/Network/Port", 200, "\"RTSPPort\":1");
    peer.answer("/LAPI/V1.0/System/DeviceInfo", 200, "{\"Response\":{\"Data\":{\"DeviceType\":0}}}");
    const std::string exposure = "/LAPI/V1.0/Channels/0/Image/Advanced/Exposure";
    const std::string enhance = "/LAPI/V1.0/Channels/0/Image/Enhance";
    for (const bool writing : {false, true}) {
        SCOPED_TRACE(writing);
        const std::string hanging = (writing ? "PUT " : "GET ") + enhance;
        peer.answer("GET " + enhance, 200, R"({"Response":{"ResponseCode":0,"Data":{}}})");
        peer.staySilent("GET " + exposure);
        peer.staySilent(hanging);
        DeviceHandler handler;
        ChannelHandler channel;
        const Description description;
        ASSERT_TRUE(init(&host, "m"));
        IDevice* device = nullptr;
        ASSERT_EQ(get()->CreateDevice(&description, &handler, &device), 0);
        ASSERT_EQ(device->Open(peer.address().c_str()), 0);
        ASSERT_TRUE(handler.waitConnected());
        std::array<IVideoSource*, 2> sources{};
        for (IVideoSource*& source : sources) {
            ASSERT_EQ(device->CreateVideoSource(0, 0, &channel, &channel, {}, nullptr, &source), 0);
            ASSERT_EQ(source->ApplySettings({{"brightness", 1}}), 0);
            ASSERT_EQ(source->ApplySettings({{"contrast", 1}}), 0);
        }
        ASSERT_TRUE(peer.waitForRequest(hanging));
        const auto before = std::chrono::steady_clock::now();
        for (IVideoSource* const source : sources)
            source->Destroy();
        device->Destroy();
        fini();
        const std::chrono::seconds limitOfARequest(15);
        EXPECT_LT(std::chrono::steady_clock::now() - before, limitOfARequest) << "the device was waited for";
        for (const auto& [resource, result] : channel.settingsResults())
            EXPECT_NE(resource, "all") << "nothing was finished";
        unload();
        load();
    }
}

TEST_F(ModuleLibrary, keepsTheSoundOfCallsWhereTheEnvironmentSaidAtItsLoad)
{
    constexpr const char* variable = "KELVO_SPEAKER_AUDIO_OUTPUT_DUMP_DIR";
    const auto dumps = directory / "dumps";
    std::filesystem::create_directories(dumps);
    unload();
    ::setenv(variable, dumps.c_str(), 1);
    load();
    ::unsetenv(variable);  // comes too late
    ASSERT_TRUE(init(&host, "m"));
    DeviceHandler handler;
    CallHandler calls;
    const Description description;
    IDevice* device = nullptr;
    ASSERT_EQ(get()->CreateDevice(&description, &handler, &device), 0);
    IAudioDestination* destination = nullptr;
    ASSERT_EQ(device->CreateAudioDestination(0, &calls, {}, &destination), 0);
    for (std::size_t i = 1; i <= 2; ++i) {
        destination->Call();  // there is no device, which does not matter here
        ASSERT_TRUE(calls.waitEnded(i));
    }
    destination->Destroy();
    device->Destroy();
    fini();
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dumps)) {
        const std::string name = entry.path().filename().string();
        EXPECT_TRUE(name.find("file") != std::string::npos && name.ends_with(".bin")) << name;
        ++files;
    }
    EXPECT_EQ(files, 2U) << "one for each call";
    unload();
}
}  // namespace
