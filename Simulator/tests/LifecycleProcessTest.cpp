#include <utility>  // ahead of Asio, which forgets it

#include "Programs.h"
#include "RtspPeer.h"
#include "SimulatorProcess.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <gtest/gtest.h>

#include <csignal>
#include <future>
#include <thread>
#include <vector>

namespace simulator::test
{
namespace
{

using namespace kelvo::test;

using boost::asio::ip::tcp;

/// A bare connection to one of the simulator's ports, whose waits are bounded.
class Connection {
public:
    explicit Connection(const Json::Value& port) : socket(context)
    {
        socket.connect({boost::asio::ip::address_v4::loopback(), static_cast<std::uint16_t>(port.asUInt())});
    }

    void send(const std::string& text) { boost::asio::write(socket, boost::asio::buffer(text)); }

    /// How the next read ends: success when bytes came, an error of Asio otherwise, timed_out when nothing happened.
    boost::system::error_code read(std::chrono::milliseconds limit = std::chrono::seconds(10))
    {
        boost::system::error_code result = boost::asio::error::timed_out;
        socket.async_read_some(boost::asio::buffer(bytes), [&](const boost::system::error_code& error, std::size_t) {
            if (error != boost::asio::error::operation_aborted)
                result = error;
        });
        context.restart();
        context.run_for(limit);
        socket.cancel();
        context.restart();
        context.run();
        return result;
    }

private:
    boost::asio::io_context context;
    tcp::socket socket;
    std::array<char, 4096> bytes{};
};

TEST(Lifecycle, endsWhenItsInputIsClosed)
{
    SimulatorProcess simulator;
    simulator.process().closeInput();
    EXPECT_EQ(simulator.waitForExit(), 0);
}

TEST(Lifecycle, endsOnEitherSignal)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        SimulatorProcess simulator;
        simulator.process().signal(signal);
        EXPECT_EQ(simulator.waitForExit(), 0) << signal;
    }
}

TEST(Lifecycle, endsWhileAnAnswerIsStillDelayed)
{
    SimulatorProcess simulator({"--auth", "none", "--fault", "slow:600000"});
    Connection waiting(simulator.ready()["httpPort"]);
    waiting.send("GET /LAPI/V1.0/Network/Port HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(waiting.read(std::chrono::milliseconds(200)), boost::asio::error::timed_out);
    simulator.process().signal(SIGTERM);
    EXPECT_EQ(simulator.waitForExit(), 0);
}

/// Plays, again and again, until the simulator has gone.
void playToTheEnd(std::uint16_t port, const std::string& url, std::promise<void>& playing)
{
    bool told = false;
    const auto tell = [&] {
        if (!std::exchange(told, true))
            playing.set_value();
    };
    try {
        for (;;) {
            RtspPeer peer(port);
            peer.play(url, 1);
            peer.nextFrame();
            tell();
        }
    } catch (const std::exception&) {
        tell();
    }
}

TEST(Lifecycle, endsWhileRtspClientsComeAndGo)
{
    for (int round = 0; round < 8; ++round) {
        SCOPED_TRACE(round);
        SimulatorProcess simulator({"--auth", "none", "--no-audio", "--size", "320x240"});
        const auto port = static_cast<std::uint16_t>(simulator.ready()["rtspPort"].asUInt());
        const std::string url = simulator.rtspUrl("/media/video1", "");
        RtspPeer staying(port);  // and never reading
        staying.play(url, 1);
        std::vector<std::thread> clients;
        std::vector<std::promise<void>> playing(4);
        for (std::promise<void>& plays : playing)
            clients.emplace_back([&] { playToTheEnd(port, url, plays); });
        for (std::promise<void>& plays : playing)
            plays.get_future().wait();
        simulator.process().signal(SIGTERM);
        EXPECT_EQ(simulator.waitForExit(), 0) << simulator.process().errors();
        for (std::thread& client : clients)
            client.join();
    }
}

TEST(Lifecycle, printsOneLineAndNoPassword)
{
    SimulatorProcess simulator({"--kind", "multichannel", "--channels", "2", "--password", "very-secret"});
    const Json::Value& ready = simulator.ready();
    EXPECT_EQ(ready["event"], "ready");
    EXPECT_EQ(ready["kind"], "multichannel");
    EXPECT_EQ(ready["channels"], 2);
    ASSERT_EQ(ready["urls"].size(), 4u);
    EXPECT_EQ(ready["urls"][3], "rtsp://127.0.0.1:" + simulator.port("rtspPort") + "/media2/video2");
    EXPECT_TRUE(ready["httpsPort"].isNull());
    simulator.lapi("/LAPI/V1.0/Network/Port", {"--user", "admin:very-secret"});
    simulator.lapi("/LAPI/V1.0/Network/Port", {"--user", "admin:very-secret", "--basic"});

    simulator.process().closeInput();
    EXPECT_EQ(simulator.waitForExit(), 0);
    const std::string& output = simulator.process().output();
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1);
    EXPECT_EQ((output + simulator.process().errors()).find("very-secret"), std::string::npos);
    EXPECT_EQ(simulator.process().errors().find("YWRtaW46dmVyeS1zZWNyZXQ"), std::string::npos) << "nor its Base64 form";
}

TEST(Lifecycle, refusesAWrongCommandLineWithStatusTwo)
{
    const ProgramResult result = runProgram({simulatorProgram(), "--fault", "explode"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.errors.find("There is no fault 'explode'"), std::string::npos) << result.errors;
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(runProgram({simulatorProgram(), "--help"}).status, 0);
}

TEST(Lifecycle, saysWhyItCannotStart)
{
    const SimulatorProcess first;
    const struct {
        std::vector<std::string> arguments;
        std::string part;
    } cases[] = {
        {{"--http-port", first.port("httpPort")}, "cannot listen on 127.0.0.1:" + first.port("httpPort")},
        {{"--http-port", "0", "--bind", "nowhere"}, "'nowhere' is no address to listen on"},
        {{"--http-port", "0", "--media", "/etc/passwd"}, "The media file '/etc/passwd'"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.part);
        std::vector<std::string> command{simulatorProgram(), "--rtsp-port", "0"};
        command.insert(command.end(), c.arguments.begin(), c.arguments.end());
        const ProgramResult result = runProgram(command);
        EXPECT_EQ(result.status, 1);
        EXPECT_NE(result.errors.find(c.part), std::string::npos) << result.errors;
        EXPECT_EQ(result.output, "");
    }
}

TEST(Lifecycle, namesThePackageOfWhatGStreamerLacks)
{
    const ProgramResult result =
        runProgram({"env", "GST_PLUGIN_SYSTEM_PATH_1_0=/there/is/no/such", "GST_REGISTRY_1_0=/dev/null",
                    simulatorProgram(), "--http-port", "0", "--rtsp-port", "0"});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.errors.find("The GStreamer element 'x264enc' is missing; on Debian it is in the package "
                                 "gstreamer1.0-plugins-ugly."),
              std::string::npos)
        << result.errors;
}

TEST(Lifecycle, allowsAHandfulOfConnections)
{
    const SimulatorProcess simulator({"--auth", "none", "--max-connections", "2"});
    Connection first(simulator.ready()["httpPort"]);
    Connection second(simulator.ready()["httpPort"]);
    Connection third(simulator.ready()["httpPort"]);
    EXPECT_EQ(third.read(), boost::asio::error::connection_reset);
    first.send("GET /LAPI/V1.0/Network/Port HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(first.read(), boost::system::error_code());
    EXPECT_EQ(simulator.admin("GET", "counters")["rejectedConnections"], 1);
}

TEST(Lifecycle, closesIdleConnections)
{
    const SimulatorProcess simulator({"--auth", "none", "--idle-timeout", "0.3"});
    Connection connection(simulator.ready()["httpPort"]);
    connection.send("GET /LAPI/V1.0/Network/Port HTTP/1.1\r\nHost: x\r\n\r\n");
    EXPECT_EQ(connection.read(), boost::system::error_code());
    EXPECT_EQ(connection.read(), boost::asio::error::eof);
}

}  // namespace
}  // namespace simulator::test
