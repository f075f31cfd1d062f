#include "ServerTestKit.h"

#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>

#if defined(__linux__)
#include <cerrno>
#include <cstddef>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#endif

namespace Tavro8::server::testing
{
namespace
{
using TcpServerExTest = ServerTest;

/// Blocks who passes until it is opened.
class Door {
public:
    ~Door() { open(); }
    void open()
    {
        if (!std::exchange(opened, true))
            promise.set_value();
    }
    void pass() const { future.wait(); }

private:
    bool opened = false;
    std::promise<void> promise;
    std::shared_future<void> future{promise.get_future()};
};
}  // namespace

TEST_F(TcpServerExTest, deliversANotificationWithTheAddressOfItsDevice)
{
    std::string from;
    RecordingClient client(
        [&](const std::string&, const RecordingClient::Session& session) { from = session->getRemoteAddress(); });
    start(client);
    Peer device(port);
    device.send(notification("{}"));
    EXPECT_EQ(client.waitFor(1).front(), notification("{}"));
    stop();
    EXPECT_EQ(from, "127.0.0.1");
    EXPECT_EQ(logger.count("Listening on port " + std::to_string(port)), 1U);
}

TEST_F(TcpServerExTest, deliversEachOfSeveralNotificationsOnOneConnection)
{
    RecordingClient client;
    start(client);
    Peer device(port);
    device.send(notification("{\"a\": 1}") + notification("{\"b\": 2}"));
    device.send(notification("{\"c\": 3}"));
    EXPECT_EQ(client.waitFor(3),
              (std::vector{notification("{\"a\": 1}"), notification("{\"b\": 2}"), notification("{\"c\": 3}")}));
    stop();
}

TEST_F(TcpServerExTest, putsANotificationTogetherThatComesByteByByte)
{
    RecordingClient client;
    start(client);
    Peer slow(port);
    Peer other(port);
    std::size_t others = 0;
    for (const char c : notification("{}")) {
        EXPECT_EQ(client.count(), others);
        slow.send(std::string(1, c));
        // Its turn on the same thread shows that the byte has been read, or will be before what follows.
        other.send(notification("o"));
        client.waitFor(++others);
    }
    const auto messages = client.waitFor(others + 1);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), notification("{}")), 1);
    stop();
}

TEST_F(TcpServerExTest, putsANotificationTogetherWhereverItIsSplit)
{
    RecordingClient client;
    start(client);
    const std::string message = notification("{\"a\": 1}");
    for (std::size_t cut = 1; cut < message.size(); ++cut) {
        SCOPED_TRACE(cut);
        Peer device(port);
        device.send(message.substr(0, cut));
        settle();
        device.send(message.substr(cut));
        ASSERT_EQ(client.waitFor(cut).back(), message);
        ASSERT_EQ(client.count(), cut);
    }
    stop();
}

TEST_F(TcpServerExTest, handsOnBytesThatAreNoHttp)
{
    RecordingClient client;
    start(client);
    Peer device(port);
    device.send("{\"AlarmInfo\": {}}");
    EXPECT_EQ(client.waitFor(1).back(), "{\"AlarmInfo\": {}}");
    device.send("PING");  // may become a request
    device.endSending();
    EXPECT_EQ(client.waitFor(2).back(), "PING");
    stop();
}

TEST_F(TcpServerExTest, deliversByTheAddressOfTheDevice)
{
    RecordingClient first;
    RecordingClient second;
    start(first, "127.0.0.2");
    add(second, "127.0.0.3");
    Peer(port, "127.0.0.3").send(notification("second"));
    Peer(port, "127.0.0.2").send(notification("first"));
    EXPECT_EQ(first.waitFor(1), std::vector{notification("first")});
    EXPECT_EQ(second.waitFor(1), std::vector{notification("second")});
    stop("127.0.0.2");
    stop("127.0.0.3");
}

TEST_F(TcpServerExTest, servesIpv6)
{
    RecordingClient client;
    start(client, "[0:0::1]");
    Peer(port, "::1", "::1").send(notification("six"));
    EXPECT_EQ(client.waitFor(1), std::vector{notification("six")});
    stop("::1");
}

TEST_F(TcpServerExTest, takesMappedAddressesForIpv4)
{
    RecordingClient client;
    start(client, "::ffff:127.0.0.1");
    Peer(port).send(notification("four"));
    EXPECT_EQ(client.waitFor(1), std::vector{notification("four")});
    Peer(port, "::ffff:127.0.0.1", "::ffff:127.0.0.1").send(notification("mapped"));
    EXPECT_EQ(client.waitFor(2).back(), notification("mapped"));
    stop("127.0.0.1");
    EXPECT_TRUE(logger.contains("is closed"));
}

TEST_F(TcpServerExTest, closesConnectionsOfUnknownAddressesAndSaysSoOnce)
{
    RecordingClient client;
    start(client, "127.0.0.2");
    for (int i = 0; i < 200; ++i) {
        Peer stranger(port, "127.0.0.3");
        static_cast<void>(stranger.trySend(notification("stranger")));
        EXPECT_EQ(stranger.readToEnd(), "");
    }
    Peer(port, "127.0.0.2").send(notification("device"));
    EXPECT_EQ(client.waitFor(1), std::vector{notification("device")});
    stop("127.0.0.2");
    EXPECT_EQ(logger.count("Refused"), 2U);
    EXPECT_TRUE(logger.contains("Refused 1 connection(s) to port " + std::to_string(port) +
                                " from addresses of no device, the last one from 127.0.0.3"));
    const auto rest = logger.find("Refused 199 more connection(s) to port " + std::to_string(port));
    EXPECT_EQ(rest.severity, LogSeverity::warning) << "what was counted is told when the port closes";
}

TEST_F(TcpServerExTest, tellsLaterWhatItOnlyCountedThoughNothingMoreHappens)
{
    EventServerLimits limits;
    limits.logPause = std::chrono::seconds(1);
    setLimits(limits);
    RecordingClient client;
    start(client, "127.0.0.2");
    const auto refuse = [&] { EXPECT_EQ(Peer(port, "127.0.0.3").readToEnd(), ""); };
    refuse();
    ASSERT_TRUE(logger.waitFor("Refused 1 connection(s)"));
    refuse();
    refuse();
    EXPECT_TRUE(logger.waitFor("Refused 2 more connection(s)"));
    stop("127.0.0.2");
}

TEST_F(TcpServerExTest, aFloodOfStrangersDoesNotHoldUpADevice)
{
    RecordingClient client;
    start(client, "127.0.0.2");
    std::atomic<bool> enough{false};
    std::atomic<std::size_t> refused{0};
    std::thread flood([&] {
        while (!enough) {
            Peer stranger(port, "127.0.0.3");
            static_cast<void>(stranger.trySend(notification("stranger")));
            EXPECT_EQ(stranger.readToEnd(), "");
            ++refused;
        }
    });
    Peer device(port, "127.0.0.2");
    std::vector<std::string> sent;
    while (sent.size() < 200 || refused < 20) {
        sent.push_back(notification(std::to_string(sent.size())));
        device.send(sent.back());
        client.waitFor(sent.size());
    }
    enough = true;
    flood.join();
    stop("127.0.0.2");
    EXPECT_EQ(client.waitFor(sent.size()), sent) << "all of the device's, in their order, and none of the stranger's";
}

TEST_F(TcpServerExTest, aMessageThatComesByteByByteDelaysNobody)
{
    RecordingClient client;
    start(client);
    add(client, "127.0.0.2");
    const std::string slowly = notification("slow");
    Peer slow(port);
    Peer quick(port, "127.0.0.2");
    std::size_t received = 0;
    for (std::size_t at = 0; at + 1 < slowly.size(); ++at) {
        slow.send(slowly.substr(at, 1));
        quick.send(notification(std::to_string(at)));
        EXPECT_EQ(client.waitFor(++received).back(), notification(std::to_string(at)));
    }
    slow.send(slowly.substr(slowly.size() - 1));
    EXPECT_EQ(client.waitFor(++received).back(), slowly);
    stop();
    stop("127.0.0.2");
}

TEST_F(TcpServerExTest, sendsWhatAClientAnswers)
{
    RecordingClient client([](const std::string& message, const RecordingClient::Session& session) {
        EXPECT_TRUE(session->send("answer to "));
        EXPECT_TRUE(session->send(message.substr(message.size() - 1)));
    });
    start(client);
    Peer device(port);
    for (const char* body : {"1", "2"}) {
        device.send(notification(body));
        EXPECT_EQ(device.read(11), std::string("answer to ") + body);
    }
    device.send(notification("3"));
    device.endSending();
    EXPECT_EQ(device.readToEnd(), "answer to 3");
    stop();
}

TEST_F(TcpServerExTest, closesAConnectionForItsClientOnceTheAnswerIsSent)
{
    const std::string answer(300000, 'a');
    RecordingClient client([&](const std::string&, const RecordingClient::Session& session) {
        EXPECT_TRUE(session->send(answer));
        session->close();
        EXPECT_FALSE(session->send("too late"));
    });
    start(client);
    Peer device(port);
    device.send(notification("1") + notification("2"));
    EXPECT_EQ(device.readToEnd(), answer);
    EXPECT_TRUE(client.waitForClosed(1));
    EXPECT_EQ(client.count(), 1U);
    stop();
}

TEST_F(TcpServerExTest, letsASessionOutliveItsConnection)
{
    RecordingClient::Session kept;
    RecordingClient client([&](const std::string&, const RecordingClient::Session& session) { kept = session; });
    start(client);
    {
        Peer device(port);
        device.send(notification("1"));
        client.waitFor(1);
    }
    EXPECT_TRUE(client.waitForClosed(1));
    EXPECT_FALSE(kept->send("nobody"));
    stop();
    service.reset();
    EXPECT_FALSE(kept->send("nobody"));
    kept->close();
    EXPECT_EQ(kept->getRemoteAddress(), "127.0.0.1");
}

TEST_F(TcpServerExTest, refusesToQueueAnswersWithoutEnd)
{
    RecordingClient client([](const std::string&, const RecordingClient::Session& session) {
        EXPECT_FALSE(session->send(std::string(EventSession::maxWaitingBytes + 1, 'x')));
    });
    start(client);
    Peer device(port);
    device.send(notification("1"));
    EXPECT_EQ(device.readToEnd(), "");
    stop();
}

TEST_F(TcpServerExTest, goesOnAfterAClientHasThrown)
{
    int calls = 0;
    RecordingClient client([&](const std::string&, const RecordingClient::Session&) {
        if (++calls == 1)
            throw std::out_of_range("string_view::substr");
        if (calls == 2)
            throw 5;
    });
    start(client);
    Peer device(port);
    device.send(notification("1") + notification("2") + notification("3"));
    client.waitFor(3);
    Peer(port).send(notification("4"));
    client.waitFor(4);
    stop();
    EXPECT_EQ(logger.count("string_view::substr"), 1U);
    EXPECT_EQ(logger.count("unknown exception"), 1U);
    EXPECT_EQ(logger.find("string_view::substr").severity, LogSeverity::error);
}

TEST_F(TcpServerExTest, foldsTheFailuresOfAClientThatRepeat)
{
    RecordingClient client(
        [](const std::string&, const RecordingClient::Session&) { throw std::runtime_error("again"); });
    start(client);
    Peer device(port);
    for (int i = 0; i < 101; ++i)
        device.send(notification("x"));
    client.waitFor(101);
    stop();
    EXPECT_EQ(logger.count("again"), 3U);
}

TEST_F(TcpServerExTest, deliversToTheNewestRegistrationAndEndsThatFirst)
{
    RecordingClient older;
    RecordingClient newer;
    start(older);
    add(newer, "::ffff:127.0.0.1");
    EXPECT_EQ(logger.count("registered 2 times"), 1U);
    Peer device(port);
    device.send(notification("1"));
    EXPECT_EQ(newer.waitFor(1).size(), 1U);
    stop();
    EXPECT_EQ(logger.count("The newest of 2 registrations"), 1U);
    device.send(notification("2"));
    EXPECT_EQ(older.waitFor(1), std::vector{notification("2")});
    EXPECT_EQ(newer.count(), 1U);
    stop();
    EXPECT_EQ(device.readToEnd(), "");
}

TEST_F(TcpServerExTest, endsAllRegistrationsOfAClientThatGoes)
{
    RecordingClient staying;
    {
        RecordingClient going;
        start(going);
        add(staying, "127.0.0.1");
        add(going, "127.0.0.1");
        add(going, "127.0.0.2");
        TcpServerEx::stopAllOfClient(&going);
        EXPECT_TRUE(logger.contains("3 registration(s)"));
        EXPECT_EQ(Peer(port, "127.0.0.2").readToEnd(), "");
    }
    Peer(port).send(notification("1"));
    EXPECT_EQ(staying.waitFor(1), std::vector{notification("1")});
    TcpServerEx::stopAllOfClient(&staying);
    TcpServerEx::stopAllOfClient(&staying);
    EXPECT_TRUE(logger.contains("1 registration(s)"));
}

TEST_F(TcpServerExTest, waitsForADeliveryWhoseRegistrationSomebodyElseIsEnding)
{
    Door door;
    std::promise<void> inside;
    std::atomic<bool> left{false};
    RecordingClient going([&](const std::string&, const RecordingClient::Session&) {
        inside.set_value();
        door.pass();
        left = true;
    });
    start(going);
    Peer device(port);
    device.send(notification("1"));
    inside.get_future().wait();
    std::thread other([&] { stop(); });
    ASSERT_TRUE(logger.waitFor("is closed"));  // said when the registration has ended, before the wait for its delivery
    std::thread owner([&] {
        TcpServerEx::stopAllOfClient(&going);
        EXPECT_TRUE(left);
    });
    door.open();
    other.join();
    owner.join();
}

TEST_F(TcpServerExTest, closesThePortWithItsLastRegistration)
{
    RecordingClient client;
    start(client, "127.0.0.1");
    add(client, "127.0.0.2");
    stop("127.0.0.1");
    EXPECT_EQ(Peer(port, "127.0.0.1").readToEnd(), "");  // still listened on, for the other
    stop("127.0.0.2");
    settle();
    EXPECT_THROW(Peer(port, "127.0.0.2"), boost::system::system_error);
    stop("127.0.0.2");  // nothing is left to stop
    EXPECT_EQ(logger.count("is closed"), 1U);
}

TEST_F(TcpServerExTest, canBeginAgainAtOnceOnThePortThatWasLeft)
{
    RecordingClient client;
    start(client);
    for (std::size_t round = 1; round <= 50; ++round) {
        stop();
        add(client, "127.0.0.1");
        Peer(port).send(notification("again"));
        client.waitFor(round);
    }
    stop();
    EXPECT_EQ(logger.errorCount(), 0U);
}

TEST_F(TcpServerExTest, doesNotListenOnPortZeroOrForTextThatIsNoAddress)
{
    RecordingClient client;
    TcpServerEx::startForClient(0, &logger, "127.0.0.1", &client);
    EXPECT_EQ(logger.count("Port 0"), 1U);
    TcpServerEx::startForClient(freePort(), &logger, "", &client);
    EXPECT_EQ(logger.count("is no IP address"), 1U);
    TcpServerEx::startForClient(freePort(), &logger, "127.0.0.1", nullptr);
    EXPECT_EQ(logger.errorCount(), 3U);
    EXPECT_EQ(logger.lines().size(), 3U);
    TcpServerEx::stopForClient(0, "127.0.0.1");
    TcpServerEx::stopForClient(1, "camera");
}

TEST_F(TcpServerExTest, servesWithoutALogger)
{
    RecordingClient client([](const std::string&, const RecordingClient::Session&) { throw 1; });
    start(client);
    TcpServerEx::startForClient(port, nullptr, "127.0.0.2", &client);
    Peer(port, "127.0.0.2").send(notification("1"));
    client.waitFor(1);
    stop("127.0.0.2");
    stop();
}

TEST_F(TcpServerExTest, takesAPortThatIsFreedLaterAndReportsItOnce)
{
    EventServerLimits limits;
    limits.firstRetry = limits.longestRetry = std::chrono::milliseconds(2);
    setLimits(limits);
    boost::asio::io_context context;
    tcp::acceptor holder(context, tcp::endpoint(tcp::v6(), 0));
    port = holder.local_endpoint().port();
    RecordingClient client;
    add(client, "127.0.0.1");
    add(client, "127.0.0.2");
    EXPECT_EQ(logger.count("Cannot listen on port " + std::to_string(port) + ": Address already in use"), 1U);
    for (int i = 0; i < 3; ++i)
        settle();
    holder.close();
    ASSERT_TRUE(logger.waitFor("at last"));
    EXPECT_EQ(logger.find("at last").severity, LogSeverity::warning) << "as visible as the failure that it ends";
    EXPECT_EQ(logger.count("Cannot listen"), 1U);
    Peer(port).send(notification("1"));
    client.waitFor(1);
    stop("127.0.0.1");
    stop("127.0.0.2");
}

TEST_F(TcpServerExTest, remindsOfAPortThatStaysTaken)
{
    EventServerLimits limits;
    limits.firstRetry = limits.longestRetry = std::chrono::milliseconds(1);
    limits.reminder = std::chrono::milliseconds(3);
    setLimits(limits);
    boost::asio::io_context context;
    const tcp::acceptor holder(context, tcp::endpoint(tcp::v6(), 0));
    port = holder.local_endpoint().port();
    RecordingClient client;
    add(client, "127.0.0.1");
    EXPECT_TRUE(logger.waitFor("Cannot listen on port " + std::to_string(port) + ": Address already in use", 3));
    stop();
}

TEST_F(TcpServerExTest, waitsForAPortThatIsTakenForIPv4Alone)
{
    EventServerLimits limits;
    limits.firstRetry = limits.longestRetry = std::chrono::milliseconds(2);
    setLimits(limits);
    boost::asio::io_context context;
    tcp::acceptor holder(context, tcp::endpoint(tcp::v4(), 0));
    port = holder.local_endpoint().port();
    RecordingClient client;
    add(client, "127.0.0.1");
    EXPECT_TRUE(logger.contains("Cannot listen on port " + std::to_string(port) + ": Address already in use"))
        << "IPv6 alone would be no use to IPv4 devices";
    settle();
    EXPECT_FALSE(logger.contains("at last"));
    holder.close();
    ASSERT_TRUE(logger.waitFor("at last"));
    Peer(port).send(notification("1"));
    client.waitFor(1);
    stop();
}

#if defined(__linux__)
namespace
{
/// From now on the system makes no IPv6 sockets for this thread, as where IPv6 is switched off.
bool switchOffIPv6()
{
    constexpr auto step = [](unsigned code, std::uint32_t k, std::uint8_t ifTrue, std::uint8_t ifFalse) {
        return sock_filter{static_cast<std::uint16_t>(code), ifTrue, ifFalse, k};
    };
    sock_filter steps[] = {
        step(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr), 0, 0),
        step(BPF_JMP | BPF_JEQ | BPF_K, __NR_socket, 0, 3),
        step(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args), 0, 0),
        step(BPF_JMP | BPF_JEQ | BPF_K, AF_INET6, 0, 1),
        step(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EAFNOSUPPORT, 0, 0),
        step(BPF_RET | BPF_K, SECCOMP_RET_ALLOW, 0, 0),
    };
    const sock_fprog filter{std::size(steps), steps};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}
}  // namespace

TEST_F(TcpServerExTest, makesDoWithIPv4WhereIPv6IsSwitchedOff)
{
    RecordingClient client;
    port = freePort();
    std::thread registering([&] {  // whoever registers opens the port
        ASSERT_TRUE(switchOffIPv6());
        add(client, "127.0.0.1");
    });
    registering.join();
    EXPECT_TRUE(logger.contains("Listening on port " + std::to_string(port)));
    EXPECT_THROW(Peer(port, "::1", "::1"), boost::system::system_error);
    Peer(port).send(notification("1"));
    client.waitFor(1);
    stop();
}
#endif

TEST_F(TcpServerExTest, givesUpATakenPortThatNobodyWantsAnyMore)
{
    EventServerLimits limits;
    limits.firstRetry = limits.longestRetry = std::chrono::milliseconds(1);
    setLimits(limits);
    boost::asio::io_context context;
    tcp::acceptor holder(context, tcp::endpoint(tcp::v6(), 0));
    port = holder.local_endpoint().port();
    RecordingClient client;
    add(client, "127.0.0.1");
    stop();
    settle();
    holder.close();
    settle();
    EXPECT_THROW(Peer(port, "127.0.0.1"), boost::system::system_error);
    EXPECT_FALSE(logger.contains("at last"));
}

TEST_F(TcpServerExTest, waitsForADeliveryThatIsUnderWay)
{
    Door door;
    std::promise<void> inside;
    std::atomic<bool> left{false};
    RecordingClient client([&](const std::string&, const RecordingClient::Session&) {
        inside.set_value();
        door.pass();
        left = true;
    });
    start(client);
    Peer device(port);
    device.send(notification("1") + notification("2"));
    inside.get_future().wait();
    std::thread stopper([&] {
        stop();
        EXPECT_TRUE(left);
    });
    ASSERT_TRUE(logger.waitFor("is closed"));  // the registration has ended, and its delivery goes on
    door.open();
    stopper.join();
    EXPECT_EQ(client.count(), 1U);
    EXPECT_EQ(device.readToEnd(), "");
}

TEST_F(TcpServerExTest, doesNotWaitForADeliveryToSomebodyElse)
{
    Door door;
    std::promise<void> inside;
    RecordingClient busy([&](const std::string&, const RecordingClient::Session&) {
        inside.set_value();
        door.pass();
    });
    RecordingClient other;
    start(busy, "127.0.0.2");
    add(other, "127.0.0.3");
    Peer device(port, "127.0.0.2");
    device.send(notification("1"));
    inside.get_future().wait();
    stop("127.0.0.3");
    add(other, "127.0.0.3");
    stop("127.0.0.3");
    door.open();
    stop("127.0.0.2");
}

TEST_F(TcpServerExTest, canBeLeftFromWithinADelivery)
{
    RecordingClient client([&](const std::string&, const RecordingClient::Session&) { stop(); });
    start(client);
    Peer device(port);
    device.send(notification("1") + notification("2"));
    EXPECT_EQ(device.readToEnd(), "");
    EXPECT_EQ(client.count(), 1U);
    settle();
    EXPECT_THROW(Peer(port, "127.0.0.1"), boost::system::system_error);
}

TEST_F(TcpServerExTest, canBeJoinedFromWithinADelivery)
{
    RecordingClient second;
    RecordingClient first([&](const std::string&, const RecordingClient::Session&) { add(second, "127.0.0.1"); });
    start(first);
    Peer(port).send(notification("1") + notification("2"));
    EXPECT_EQ(second.waitFor(1), std::vector{notification("2")});
    stop();
    stop();
}

TEST_F(TcpServerExTest, endsItsThreadWithTheLastRegistrationWhenNobodyElseHoldsTheService)
{
    std::weak_ptr<Utility::GlobalService> watched = service;
    RecordingClient client;
    start(client);
    service.reset();
    EXPECT_FALSE(watched.expired());
    Peer(port).send(notification("1"));
    client.waitFor(1);
    stop();
    EXPECT_TRUE(watched.expired());
    EXPECT_THROW(Peer(port, "127.0.0.1"), boost::system::system_error);
}

TEST_F(TcpServerExTest, isEndedByItsOwnThreadWithinADelivery)
{
    std::weak_ptr<Utility::GlobalService> watched = service;
    std::promise<void> left;
    RecordingClient client([&](const std::string&, const RecordingClient::Session&) {
        stop();
        left.set_value();
    });
    start(client);
    service.reset();
    Peer device(port);
    device.send(notification("1"));
    left.get_future().wait();
    EXPECT_EQ(device.readToEnd(), "");  // the sockets go with the context, which another thread destroys
    EXPECT_TRUE(watched.expired());
}

TEST_F(TcpServerExTest, lettingTheServiceGoWaitsForABusyDelivery)
{
    Door door;
    std::promise<void> inside;
    std::atomic<bool> left{false};
    RecordingClient client([&](const std::string&, const RecordingClient::Session&) {
        stop();
        inside.set_value();
        door.pass();
        left = true;
    });
    start(client);
    Peer device(port);
    device.send(notification("1"));
    inside.get_future().wait();
    std::thread opener([&] { door.open(); });
    service->barrier();  // as a module does before its code goes
    EXPECT_TRUE(left);
    service.reset();
    opener.join();
}
}  // namespace Tavro8::server::testing
