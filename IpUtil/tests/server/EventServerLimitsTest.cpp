#include "ServerTestKit.h"

#include <future>

namespace Tavro8::server::testing
{
namespace
{
using EventServerLimitsTest = ServerTest;
constexpr std::size_t maxMessageBytes = wire::HttpRequestFramer::maxMessageBytes;

EventServerLimits shortIdle()
{
    EventServerLimits limits;
    limits.idle = std::chrono::milliseconds(30);
    return limits;
}
}  // namespace

TEST_F(EventServerLimitsTest, closesSilentConnections)
{
    setLimits(shortIdle());
    RecordingClient client;
    start(client);
    Peer silent(port);
    Peer half(port);
    half.send("POST /a HTTP/1.1\r\nContent-Le");
    EXPECT_EQ(silent.readToEnd(), "");
    EXPECT_EQ(half.readToEnd(), "");
    EXPECT_TRUE(client.waitForClosed(2));
    EXPECT_EQ(client.count(), 0U);
    stop();
}

TEST_F(EventServerLimitsTest, handsOnWhatASilentConnectionHasCompleted)
{
    setLimits(shortIdle());
    RecordingClient client;
    start(client);
    const std::string message = "POST /a HTTP/1.0\r\n\r\n{}";
    Peer device(port);
    device.send(message);
    EXPECT_EQ(device.readToEnd(), "");
    EXPECT_EQ(client.waitFor(1), std::vector{message});
    stop();
}

TEST_F(EventServerLimitsTest, doesNotTakeForSilentWhomItHasNotListenedTo)
{
    setLimits(shortIdle());
    std::promise<void> inside;
    std::promise<void> sent;
    bool first = true;
    RecordingClient client([&](const std::string&, const RecordingClient::Session&) {
        if (!std::exchange(first, false))
            return;
        inside.set_value();
        sent.get_future().wait();
        // Longer than the idle limit, in which nobody was read from.
        const auto end = EventServer::Clock::now() + std::chrono::milliseconds(50);
        while (EventServer::Clock::now() < end)
            std::this_thread::yield();
    });
    start(client);
    Peer other(port);
    Peer device(port);
    device.send(notification("1"));
    inside.get_future().wait();
    other.send(notification("2"));
    sent.set_value();
    EXPECT_EQ(client.waitFor(2).back(), notification("2"));
    stop();
}

TEST_F(EventServerLimitsTest, keepsConnectionsThatAreNotSilent)
{
    EventServerLimits limits;
    limits.idle = std::chrono::milliseconds(200);
    setLimits(limits);
    RecordingClient client;
    start(client);
    Peer silent(port);
    Peer talking(port);
    std::future<std::string> end = std::async(std::launch::async, [&] { return silent.readToEnd(); });
    std::size_t sent = 0;
    // As long as the silent one lives, each message shows that the other one does.
    while (end.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready) {
        talking.send(notification("x"));
        client.waitFor(++sent);
    }
    talking.send(notification("x"));
    client.waitFor(sent + 1);
    stop();
}

TEST_F(EventServerLimitsTest, dropsAConnectionWhoseMessageIsTooLargeAndServesTheOthers)
{
    RecordingClient client;
    start(client);
    Peer device(port);
    Peer other(port);
    device.send("POST /a HTTP/1.1\r\nContent-Length: 10000000\r\n\r\n");
    EXPECT_EQ(device.readToEnd(), "");
    Peer endless(port);
    const std::string part(65536, 'h');
    static_cast<void>(endless.trySend("POST /a HTTP/1.1\r\nX: "));
    while (endless.trySend(part)) {
    }
    other.send(notification("1"));
    EXPECT_EQ(client.waitFor(1), std::vector{notification("1")});
    stop();
    EXPECT_EQ(logger.count("Content-Length is beyond the limit"), 1U);
    EXPECT_EQ(logger.count("was dropped"), 1U);
    EXPECT_EQ(logger.count("Dropped 1 more connection(s) to port"), 1U) << "within the pause it is only counted";
}

TEST_F(EventServerLimitsTest, deliversALargePicture)
{
    RecordingClient client;
    start(client);
    const std::string message = notification(std::string(maxMessageBytes - 1000, 'p'));
    Peer device(port);
    device.send(message + message);
    EXPECT_EQ(client.waitFor(2), (std::vector{message, message}));
    stop();
}

TEST_F(EventServerLimitsTest, dropsHalfAMessageAndSaysSo)
{
    RecordingClient client;
    start(client);
    {
        Peer device(port);
        device.send("POST /a HTTP/1.1\r\nContent-Length: 10\r\n\r\n{");
    }
    EXPECT_TRUE(logger.waitFor("broke off in the middle of a message"));
    EXPECT_TRUE(client.waitForClosed(1));
    EXPECT_EQ(client.count(), 0U);
    stop();
}

TEST_F(EventServerLimitsTest, closesTheLongestSilentConnectionForOneTooMany)
{
    EventServerLimits limits;
    limits.connectionsPerAddress = 3;
    setLimits(limits);
    RecordingClient client;
    start(client);
    add(client, "127.0.0.2");
    Peer first(port);
    first.send(notification("1"));
    client.waitFor(1);
    Peer second(port);
    second.send(notification("2"));
    client.waitFor(2);
    Peer third(port);
    third.send(notification("3"));
    client.waitFor(3);
    first.send(notification("4"));
    client.waitFor(4);
    Peer elsewhere(port, "127.0.0.2");
    Peer fourth(port);
    EXPECT_EQ(second.readToEnd(), "");
    for (Peer* peer : {&first, &third, &fourth, &elsewhere})
        peer->send(notification("x"));
    client.waitFor(8);
    stop();
    stop("127.0.0.2");
    EXPECT_EQ(logger.count("too many connections"), 1U);
}

TEST_F(EventServerLimitsTest, boundsWhatAnAddressKeeps)
{
    EventServerLimits limits;
    limits.keptBytesPerAddress = 100000;
    setLimits(limits);
    RecordingClient client;
    start(client);
    add(client, "127.0.0.2");
    const std::string half = notification(std::string(60000, 'x')).substr(0, 50000);
    Peer patient(port);
    patient.send(half);
    settle();
    Peer greedy(port);
    Peer greedier(port);
    static_cast<void>(greedy.trySend(half));
    static_cast<void>(greedier.trySend(half));
    EXPECT_TRUE(logger.waitFor("of this address are beyond the limit"));
    Peer other(port, "127.0.0.2");
    other.send(notification("1"));
    client.waitFor(1);
    stop();
    stop("127.0.0.2");
}

TEST_F(EventServerLimitsTest, boundsWhatAllKeepButGrantsSmallRemains)
{
    EventServerLimits limits;
    limits.keptBytesInAll = 20000;
    setLimits(limits);
    RecordingClient client;
    start(client);
    add(client, "127.0.0.2");
    Peer greedy(port);
    static_cast<void>(greedy.trySend(notification(std::string(60000, 'x')).substr(0, 50000)));
    EXPECT_TRUE(logger.waitFor("of all devices are beyond the limit"));
    EXPECT_EQ(greedy.readToEnd(), "");
    const std::string message = notification(std::string(1000, 'y'));
    Peer modest(port, "127.0.0.2");
    modest.send(message.substr(0, 500));
    settle();
    modest.send(message.substr(500));
    EXPECT_EQ(client.waitFor(1), std::vector{message});
    stop();
    stop("127.0.0.2");
}
}  // namespace Tavro8::server::testing
