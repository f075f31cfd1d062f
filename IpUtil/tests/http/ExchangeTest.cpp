#include "ScriptedPeer.h"
#include "TestClient.h"

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <gtest/gtest.h>
#include <stdexcept>
#include <thread>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;
using namespace Tavro8::http::test;

/// A peer that answers the first request of each connection with these bytes and closes.
ScriptedPeer::Script answerWith(std::string bytes)
{
    return [bytes](PeerConnection& connection) {
        connection.readRequest();
        connection.send(bytes);
    };
}

Outcome getFrom(const ScriptedPeer& peer, const HttpLimits& limits = {})
{
    Expectation outcome;
    ClientContext client(limits);
    asyncGetEx(infoFor(peer.getPort()), "/path", client.get(), outcome.handler());
    return outcome.get();
}

TEST(Exchange, sendsEachMethodAsItIsAndDeliversTheReply)
{
    ScriptedPeer peer(echoTargets);
    const auto info = infoFor(peer.getPort());
    const std::string host = "Host: 127.0.0.1:" + std::to_string(peer.getPort()) + "\r\n";
    ClientContext client;
    HttpHeaders close;
    close.set(HTTP_HEADER_CONNECTION, "close");

    Expectation outcomes[5];
    asyncGetEx(info, "/get", client.get(), outcomes[0].handler());
    EXPECT_EQ(outcomes[0].get().body, "/get");
    asyncPutEx(info, "/put", "{}", client.get(), outcomes[1].handler());
    EXPECT_EQ(outcomes[1].get().body, "/put");
    asyncPostEx(info, "/post", "[1]", client.get(), outcomes[2].handler());
    EXPECT_EQ(outcomes[2].get().body, "/post");
    asyncDeleteEx(info, "/delete", client.get(), outcomes[3].handler());
    EXPECT_EQ(outcomes[3].get().body, "/delete");
    asyncPostEx(info, "/closing", "", client.get(), close, outcomes[4].handler(), 5);
    const Outcome last = outcomes[4].get();
    EXPECT_FALSE(last.ec);
    EXPECT_EQ(last.response.status, 200U);
    EXPECT_EQ(last.response.reason, "OK");

    const std::vector<std::string> expected = {
        "GET /get HTTP/1.1\r\n" + host + "\r\n",
        "PUT /put HTTP/1.1\r\n" + host + "Content-Type: application/json\r\nContent-Length: 2\r\n\r\n{}",
        "POST /post HTTP/1.1\r\n" + host + "Content-Type: application/json\r\nContent-Length: 3\r\n\r\n[1]",
        "DELETE /delete HTTP/1.1\r\n" + host + "\r\n",
        "POST /closing HTTP/1.1\r\n" + host + "Connection: close\r\nContent-Length: 0\r\n\r\n",
    };
    EXPECT_EQ(peer.getRequests(), expected);
    EXPECT_EQ(peer.getConnectionCount(), 1U);
    EXPECT_TRUE(peer.awaitScriptEnds(1)) << "the connection was to be closed after the last reply";
}

TEST(Exchange, readsAReplyThatArrivesInPieces)
{
    Signal mayGoOn;
    ScriptedPeer peer([&](PeerConnection& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 200 O");
        mayGoOn.await();
        connection.send("K\r\nTRANSFER-encoding: chunked\r\nX-A: b\r\n\r\n3\r\nab");
        mayGoOn.await();
        connection.send("c\r\n2\r");
        mayGoOn.await();
        connection.send("\nde\r\n0\r\n\r\n");
    });
    Expectation outcome;
    ClientContext client;
    asyncGetEx(infoFor(peer.getPort()), "/", client.get(), outcome.handler());
    ASSERT_TRUE(peer.awaitRequests(1));
    mayGoOn.raise(3);
    const Outcome result = outcome.get();
    EXPECT_FALSE(result.ec);
    EXPECT_EQ(result.body, "abcde");
    ASSERT_NE(result.response.headers.find("x-a"), nullptr);
    EXPECT_EQ(*result.response.headers.find("x-a"), "b");
}

TEST(Exchange, readsAReplyThatEndsWithTheConnection)
{
    ScriptedPeer peer(answerWith("HTTP/1.1 200 OK\r\n\r\nup to the end"));
    EXPECT_EQ(getFrom(peer).body, "up to the end");
}

TEST(Exchange, handsARedirectOnInsteadOfFollowingIt)
{
    ScriptedPeer peer(answerWith(emptyResponse("302 Found", "Location: /elsewhere\r\n")));
    const Outcome result = getFrom(peer);
    EXPECT_FALSE(result.ec);
    EXPECT_EQ(result.response.status, 302U);
    EXPECT_EQ(translateResponseError(result.response), 0);
    EXPECT_EQ(peer.getRequests().size(), 1U);
}

TEST(Exchange, reportsAReplyThatIsNoHttp)
{
    ScriptedPeer peer(answerWith("220 mail server ready\r\n"));
    const Outcome result = getFrom(peer);
    EXPECT_EQ(result.ec, hostError(ResultCode::malformedResponse));
    EXPECT_EQ(result.response.status, 0U);
    EXPECT_EQ(result.response.transportError, result.ec);
    EXPECT_TRUE(result.body.empty());
}

TEST(Exchange, reportsAChunkedReplyThatBreaksOff)
{
    ScriptedPeer peer(answerWith("HTTP/1.1 404 Not Found\r\nTransfer-Encoding: chunked\r\n\r\n20\r\n{\"Resp"));
    const Outcome result = getFrom(peer);
    EXPECT_EQ(result.ec, hostError(ResultCode::connectionLost));
    EXPECT_EQ(result.response.status, 0U);
}

TEST(Exchange, reportsAnEndWithoutAReply)
{
    ScriptedPeer peer([](PeerConnection& connection) { connection.readRequest(); });
    EXPECT_EQ(getFrom(peer).ec, hostError(ResultCode::connectionLost));
    EXPECT_EQ(peer.getConnectionCount(), 1U) << "a device that closes at once is not asked again";
}

TEST(Exchange, reportsAResetConnection)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.reset();
    });
    EXPECT_EQ(getFrom(peer).ec, hostError(ResultCode::connectionLost));
}

TEST(Exchange, refusesAReplyOverTheLimit)
{
    ScriptedPeer peer(answerWith("HTTP/1.1 200 OK\r\nContent-Length: 16777217\r\n\r\n"));
    EXPECT_EQ(getFrom(peer).ec, hostError(ResultCode::responseTooLarge));
}

TEST(Exchange, reportsARefusedConnectionAsUnreachable)
{
    Expectation outcome;
    ClientContext client;
    asyncGetEx(infoFor(closedPort()), "/", client.get(), outcome.handler());
    const Outcome result = outcome.get();
    EXPECT_EQ(result.ec, hostError(ResultCode::deviceUnreachable));
    EXPECT_EQ(translateResponseError(result.response), 256);
    EXPECT_EQ(Utility::translateSystemError(result.ec), 256);
}

TEST(Exchange, reportsANameThatCannotBeResolved)
{
    Expectation outcome;
    ClientContext client;
    const std::string tooLongForALabel(64, 'x');  // refused by the resolver itself, no server is asked
    asyncGetEx(asio::parseConnectionInfo(tooLongForALabel + ".invalid"), "/", client.get(), outcome.handler());
    EXPECT_EQ(outcome.get().ec, hostError(ResultCode::nameNotResolved));
}

TEST(Exchange, reachesADeviceByName)
{
    ScriptedPeer peer(echoTargets);
    Expectation outcome;
    ClientContext client;
    asyncGetEx(asio::parseConnectionInfo("localhost:" + std::to_string(peer.getPort())), "/named", client.get(),
               outcome.handler());
    EXPECT_EQ(outcome.get().body, "/named");
}

TEST(Exchange, givesUpOnASilentDevice)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.awaitClose();
    });
    HttpLimits limits;
    limits.requestTimeout = std::chrono::milliseconds(50);
    const Outcome result = getFrom(peer, limits);
    EXPECT_EQ(result.ec, hostError(ResultCode::timedOut));
    EXPECT_TRUE(peer.awaitScriptEnds(1)) << "the connection was to be closed";
}

TEST(Exchange, givesUpWhenTheDescriptionOfTheDeviceSaysSo)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.awaitClose();
    });
    const auto info = std::make_shared<asio::ConnectionInfo>(*infoFor(peer.getPort()));
    info->requestTimeout = std::chrono::milliseconds(50);
    Expectation outcome;
    ClientContext client;
    asyncPutEx(info, "/", "{}", client.get(), outcome.handler());
    EXPECT_EQ(outcome.get().ec, hostError(ResultCode::timedOut));
}

TEST(Exchange, givesUpOnADeviceThatNeverEndsItsReply)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345");
        connection.awaitClose();
    });
    HttpLimits limits;
    limits.requestTimeout = std::chrono::milliseconds(50);
    const Outcome result = getFrom(peer, limits);
    EXPECT_EQ(result.ec, hostError(ResultCode::timedOut));
    EXPECT_TRUE(result.body.empty());
}

TEST(Exchange, countsTheTimeInTheQueueToo)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.awaitClose();
    });
    HttpLimits limits;
    limits.requestTimeout = std::chrono::milliseconds(50);
    limits.connectionsPerDevice = 1;
    Expectation outcomes[3];
    ClientContext client(limits);
    for (auto& outcome : outcomes)
        asyncGetEx(infoFor(peer.getPort()), "/", client.get(), outcome.handler());
    for (auto& outcome : outcomes)
        EXPECT_EQ(outcome.get().ec, hostError(ResultCode::timedOut));
}

TEST(Exchange, runsTheHandlerOnTheContextAndNeverInsideTheCall)
{
    boost::asio::io_context context;
    bool called = false;
    asyncGetEx(nullptr, "/", context, [&](const error_code& ec, const std::vector<char>&, const HttpResponse&) {
        EXPECT_EQ(ec, hostError(ResultCode::deviceUnreachable));
        called = true;
    });
    EXPECT_FALSE(called);
    context.run();
    EXPECT_TRUE(called);
}

TEST(Exchange, letsAContextRunOutAlthoughItsConnectionIsKept)
{
    ScriptedPeer peer(echoTargets);
    HttpLimits limits;
    limits.idleTimeout = std::chrono::hours(1);
    boost::asio::io_context context;
    for (int round = 0; round < 3; ++round) {
        Expectation outcome;
        asyncGetEx(infoFor(peer.getPort()), "/", context, outcome.handler());
        context.restart();
        context.run();
        ASSERT_TRUE(outcome.isReady());
        EXPECT_FALSE(outcome.get().ec);
    }
    EXPECT_EQ(peer.getConnectionCount(), 1U);
}

TEST(Exchange, survivesAHandlerThatThrows)
{
    ScriptedPeer peer(echoTargets);
    boost::asio::io_context context;
    const auto info = infoFor(peer.getPort());
    asyncGetEx(info, "/first", context, [](const error_code&, const std::vector<char>&, const HttpResponse&) {
        throw std::runtime_error("handler");
    });
    EXPECT_THROW(context.run(), std::runtime_error);

    Expectation outcome;
    asyncGetEx(info, "/second", context, outcome.handler());
    context.restart();
    context.run();
    EXPECT_EQ(outcome.get().body, "/second");
    EXPECT_EQ(peer.getConnectionCount(), 1U);
}

TEST(Exchange, letsAHandlerMakeTheNextRequest)
{
    ScriptedPeer peer(echoTargets);
    boost::asio::io_context context;
    const auto info = infoFor(peer.getPort());
    Expectation second;
    asyncGetEx(info, "/first", context, [&](const error_code&, const std::vector<char>&, const HttpResponse&) {
        asyncGetEx(info, "/second", context, second.handler());
    });
    context.run();
    EXPECT_EQ(second.get().body, "/second");
    EXPECT_EQ(peer.getConnectionCount(), 1U);
}

TEST(Exchange, neverShowsCredentialsInAnError)
{
    ScriptedPeer peer(answerWith("garbage\r\n\r\n"));
    for (const std::uint16_t port : {peer.getPort(), closedPort()}) {
        Expectation outcome;
        ClientContext client;
        asyncGetEx(infoFor(port, "someone:hidden"), "/", client.get(), outcome.handler());
        const Outcome result = outcome.get();
        EXPECT_TRUE(result.ec);
        EXPECT_EQ(result.ec.message().find("hidden"), std::string::npos);
        EXPECT_EQ(result.ec.message().find("someone"), std::string::npos);
    }
}
}  // namespace
