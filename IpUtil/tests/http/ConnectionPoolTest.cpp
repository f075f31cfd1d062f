#include "http/ConnectionPool.h"
#include "ScriptedPeer.h"
#include "TestClient.h"

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;
using namespace Tavro8::http::test;

std::vector<std::string> targetsOf(const ScriptedPeer& peer)
{
    std::vector<std::string> targets;
    for (const std::string& request : peer.getRequests())
        targets.push_back(targetOf(request));
    return targets;
}

TEST(ConnectionPool, opensFourConnectionsAndServesTheRestInOrder)
{
    Signal mayAnswer;
    ScriptedPeer peer([&](PeerConnection& connection) {
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
            mayAnswer.await();
            connection.send(okResponse(targetOf(request)));
        }
    });
    ClientContext client;
    const auto info = infoFor(peer.getPort());
    std::vector<Expectation> outcomes(12);
    for (std::size_t i = 0; i < outcomes.size(); ++i)
        asyncGetEx(info, "/" + std::to_string(i), client.get(), outcomes[i].handler());

    ASSERT_TRUE(peer.awaitRequests(4));
    for (std::size_t i = 4; i < outcomes.size(); ++i) {
        EXPECT_EQ(peer.getRequests().size(), i);  // the next begins only when one of the four has ended
        mayAnswer.raise();
        ASSERT_TRUE(peer.awaitRequests(i + 1));
        EXPECT_EQ(targetsOf(peer)[i], "/" + std::to_string(i));
    }
    mayAnswer.raise(4);
    for (std::size_t i = 0; i < outcomes.size(); ++i)
        EXPECT_EQ(outcomes[i].get().body, "/" + std::to_string(i));
    EXPECT_EQ(peer.getConnectionCount(), 4U);
}

TEST(ConnectionPool, letsAnotherContextPassTheQueue)
{
    Signal mayAnswer;
    ScriptedPeer peer([&](PeerConnection& connection) {
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
            if (targetOf(request) == "/slow")
                mayAnswer.await();
            connection.send(okResponse(targetOf(request)));
        }
    });
    const auto info = infoFor(peer.getPort());
    std::vector<Expectation> slow(6);
    ClientContext device;
    for (auto& outcome : slow)
        asyncGetEx(info, "/slow", device.get(), outcome.handler());
    ASSERT_TRUE(peer.awaitRequests(4));

    boost::asio::io_context joystick;
    Expectation quick;
    asyncPutEx(info, "/quick", "{}", joystick, quick.handler());
    joystick.run();
    ASSERT_TRUE(quick.isReady());
    EXPECT_EQ(quick.get().body, "/quick");
    EXPECT_EQ(HttpSession(info).get("/session", nullptr)->status, 200U);
    for (const auto& outcome : slow)
        EXPECT_FALSE(outcome.isReady());

    mayAnswer.raise(6);
    for (auto& outcome : slow)
        EXPECT_EQ(outcome.get().body, "/slow");
}

TEST(ConnectionPool, keepsDevicesApart)
{
    Signal mayAnswer;
    ScriptedPeer busy([&](PeerConnection& connection) {
        connection.readRequest();
        mayAnswer.await();
        connection.send(okResponse("late"));
    });
    ScriptedPeer other(echoTargets);
    HttpLimits limits;
    limits.connectionsPerDevice = 1;
    Expectation late;
    Expectation prompt;
    ClientContext client(limits);
    asyncGetEx(infoFor(busy.getPort()), "/", client.get(), late.handler());
    asyncGetEx(infoFor(other.getPort()), "/prompt", client.get(), prompt.handler());
    EXPECT_EQ(prompt.get().body, "/prompt");
    mayAnswer.raise();
    EXPECT_EQ(late.get().body, "late");
}

TEST(ConnectionPool, closesAConnectionThatNobodyNeeds)
{
    ScriptedPeer peer(echoTargets);
    HttpLimits limits;
    limits.idleTimeout = std::chrono::milliseconds(10);
    ClientContext client(limits);
    Expectation outcome;
    asyncGetEx(infoFor(peer.getPort()), "/", client.get(), outcome.handler());
    EXPECT_FALSE(outcome.get().ec);
    EXPECT_TRUE(peer.awaitScriptEnds(1));
}

TEST(ConnectionPool, replacesAConnectionThatTheDeviceClosedMeanwhile)
{
    ScriptedPeer peer(
        [](PeerConnection& connection) { connection.send(okResponse(targetOf(connection.readRequest()))); });
    ClientContext client;
    const auto info = infoFor(peer.getPort());
    for (unsigned round = 0; round < 3; ++round) {
        Expectation outcome;
        asyncPostEx(info, "/again", "{}", client.get(), outcome.handler());
        EXPECT_EQ(outcome.get().body, "/again");
        ASSERT_TRUE(peer.awaitScriptEnds(round + 1));
    }
    EXPECT_EQ(peer.getConnectionCount(), 3U);
}

/// The first connection answers one request and dies after it has read the second.
ScriptedPeer::Script dieOnTheSecondRequest()
{
    return [](PeerConnection& connection) {
        if (connection.getIndex() > 0)
            return echoTargets(connection);
        connection.send(okResponse(targetOf(connection.readRequest())));
        connection.readRequest();
        connection.reset();
    };
}

TEST(ConnectionPool, repeatsAnIdempotentRequestWhenTheKeptConnectionDies)
{
    using Issue = std::function<void(const ConnectionInfoPtr&, boost::asio::io_context&, CompletionHandler)>;
    const struct {
        const char* name;
        Issue issue;
    } methods[] = {
        {"GET", [](auto& info, auto& context, auto handler) { asyncGetEx(info, "/2", context, std::move(handler)); }},
        {"PUT",
         [](auto& info, auto& context, auto handler) { asyncPutEx(info, "/2", "{}", context, std::move(handler)); }},
        {"DELETE",
         [](auto& info, auto& context, auto handler) { asyncDeleteEx(info, "/2", context, std::move(handler)); }},
    };
    for (const auto& method : methods) {
        SCOPED_TRACE(method.name);
        ScriptedPeer peer(dieOnTheSecondRequest());
        const auto info = infoFor(peer.getPort());
        Expectation first;
        Expectation second;
        ClientContext client;
        asyncGetEx(info, "/1", client.get(), first.handler());
        EXPECT_EQ(first.get().body, "/1");
        method.issue(info, client.get(), second.handler());
        const Outcome result = second.get();
        EXPECT_FALSE(result.ec);
        EXPECT_EQ(result.body, "/2");
        const std::vector<std::string> expected = {"/1", "/2", "/2"};
        EXPECT_EQ(targetsOf(peer), expected);
        EXPECT_EQ(peer.getConnectionCount(), 2U);
    }
}

TEST(ConnectionPool, doesNotRepeatAPostThatMayHaveHadItsEffect)
{
    ScriptedPeer peer(dieOnTheSecondRequest());
    const auto info = infoFor(peer.getPort());
    Expectation first;
    Expectation second;
    Expectation third;
    ClientContext client;
    asyncGetEx(info, "/1", client.get(), first.handler());
    EXPECT_EQ(first.get().body, "/1");
    asyncPostEx(info, "/2", "{}", client.get(), second.handler());
    EXPECT_EQ(second.get().ec, hostError(ResultCode::connectionLost));
    asyncPostEx(info, "/3", "{}", client.get(), third.handler());
    EXPECT_EQ(third.get().body, "/3");
    const std::vector<std::string> expected = {"/1", "/2", "/3"};
    EXPECT_EQ(targetsOf(peer), expected);
}

TEST(ConnectionPool, repeatsOnlyOnce)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        if (connection.getIndex() == 0)
            connection.send(okResponse(targetOf(connection.readRequest())));
        connection.readRequest();
    });
    const auto info = infoFor(peer.getPort());
    Expectation first;
    Expectation second;
    ClientContext client;
    asyncGetEx(info, "/1", client.get(), first.handler());
    EXPECT_EQ(first.get().body, "/1");
    asyncGetEx(info, "/2", client.get(), second.handler());
    EXPECT_EQ(second.get().ec, hostError(ResultCode::connectionLost));
    EXPECT_EQ(peer.getConnectionCount(), 2U);
}

TEST(ConnectionPool, doesNotRepeatWhenAnAnswerHasBegun)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.send(okResponse(targetOf(connection.readRequest())));
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\nConte");
    });
    const auto info = infoFor(peer.getPort());
    Expectation first;
    Expectation second;
    ClientContext client;
    asyncGetEx(info, "/1", client.get(), first.handler());
    EXPECT_EQ(first.get().body, "/1");
    asyncGetEx(info, "/2", client.get(), second.handler());
    EXPECT_EQ(second.get().ec, hostError(ResultCode::connectionLost));
    EXPECT_EQ(peer.getConnectionCount(), 1U);
}

TEST(ConnectionPool, distrustsAConnectionThatSpeaksUnasked)
{
    Signal hasSpoken;
    ScriptedPeer peer([&](PeerConnection& connection) {
        connection.send(okResponse(targetOf(connection.readRequest())));
        connection.send("HTTP/1.1 408 Request Timeout\r\nContent-Length: 0\r\n\r\n");
        hasSpoken.raise();
        connection.awaitClose();
    });
    const auto info = infoFor(peer.getPort());
    ClientContext client;
    for (int round = 0; round < 2; ++round) {
        Expectation outcome;
        asyncGetEx(info, "/right", client.get(), outcome.handler());
        const Outcome result = outcome.get();
        EXPECT_EQ(result.response.status, 200U);
        EXPECT_EQ(result.body, "/right");
        ASSERT_TRUE(hasSpoken.await());
    }
    EXPECT_EQ(peer.getConnectionCount(), 2U);
}

TEST(ConnectionPool, isForgottenWhenNothingIsLeftOfIt)
{
    boost::asio::io_context context;
    const auto info = infoFor(closedPort());
    const std::weak_ptr<ConnectionPool> pool = ConnectionPool::of(context, *info);
    Expectation outcome;
    asyncGetEx(info, "/", context, outcome.handler());
    context.run();
    EXPECT_TRUE(outcome.get().ec);
    EXPECT_TRUE(pool.expired());
}
}  // namespace
