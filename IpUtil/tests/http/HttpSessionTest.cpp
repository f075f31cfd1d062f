#include "ScriptedPeer.h"
#include "TestClient.h"
#include "http/BlockingClient.h"

#include <future>
#include <gtest/gtest.h>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;
using namespace Tavro8::http::test;

std::string textOf(const std::vector<char>& body)
{
    return {body.begin(), body.end()};
}

TEST(HttpSession, getsOneReplyAfterTheOtherOnOneConnection)
{
    ScriptedPeer peer(echoTargets);
    HttpSession session(infoFor(peer.getPort()));
    std::vector<char> body = {'o', 'l', 'd'};
    for (const std::string path : {"/LAPI/V1.0/Network/Port", "/LAPI/V1.0/System/DeviceInfo", "/third"}) {
        const auto response = session.get(path, &body);
        ASSERT_NE(response, nullptr);
        EXPECT_EQ(response->status, 200U);
        EXPECT_FALSE(response->transportError);
        EXPECT_EQ(textOf(body), path);
    }
    EXPECT_EQ(session.get("/unread", nullptr)->status, 200U);
    EXPECT_EQ(peer.getConnectionCount(), 1U);
}

TEST(HttpSession, givesStatusZeroForAClosedPort)
{
    HttpSession session(infoFor(closedPort()));
    std::vector<char> body = {'o', 'l', 'd'};
    const auto response = session.get("/", &body);
    ASSERT_NE(response, nullptr);
    EXPECT_EQ(response->status, 0U);
    EXPECT_EQ(response->transportError, hostError(ResultCode::deviceUnreachable));
    EXPECT_EQ(translateResponseError(*response), 256);
    EXPECT_TRUE(body.empty());
}

TEST(HttpSession, goesOnAfterAFailure)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        if (connection.getIndex() > 0)
            return echoTargets(connection);
        connection.readRequest();
        connection.send("nonsense\r\n\r\n");
    });
    HttpSession session(infoFor(peer.getPort()));
    EXPECT_EQ(session.get("/", nullptr)->transportError, hostError(ResultCode::malformedResponse));
    EXPECT_EQ(session.get("/", nullptr)->status, 200U);
}

TEST(HttpSession, replacesAConnectionThatDiedBetweenTwoRequests)
{
    ScriptedPeer peer(
        [](PeerConnection& connection) { connection.send(okResponse(targetOf(connection.readRequest()))); });
    HttpSession session(infoFor(peer.getPort()));
    for (unsigned round = 0; round < 3; ++round) {
        EXPECT_EQ(session.get("/", nullptr)->status, 200U);
        ASSERT_TRUE(peer.awaitScriptEnds(round + 1));
    }
}

TEST(HttpSession, endsAtOnceWhenCancelledFromAnotherThread)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.awaitClose();
    });
    CancellationSource source;
    HttpSession session(infoFor(peer.getPort()), source);
    auto response = std::async(std::launch::async, [&] { return session.get("/", nullptr); });
    ASSERT_TRUE(peer.awaitRequests(1));
    source.cancel();
    ASSERT_EQ(response.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(response.get()->transportError, hostError(ResultCode::cancelled));
}

TEST(HttpSession, sendsNothingWhileItsSourceIsCancelled)
{
    ScriptedPeer peer(echoTargets);
    CancellationSource source;
    HttpSession session(infoFor(peer.getPort()), source);
    source.cancel();
    EXPECT_EQ(session.get("/", nullptr)->transportError, hostError(ResultCode::cancelled));
    EXPECT_EQ(session.get("/", nullptr)->transportError, hostError(ResultCode::cancelled));
    EXPECT_TRUE(peer.getRequests().empty());
    source.reset();
    EXPECT_EQ(session.get("/", nullptr)->status, 200U);
}

TEST(HttpSession, cancelsManyRequestsFromOneSource)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.awaitClose();
    });
    CancellationSource source;
    std::vector<std::future<ResultCode>> results;
    for (int i = 0; i < 8; ++i) {
        results.push_back(std::async(std::launch::async, [&] {
            HttpSession session(infoFor(peer.getPort()), source);
            return static_cast<ResultCode>(session.get("/", nullptr)->transportError.value());
        }));
    }
    ASSERT_TRUE(peer.awaitRequests(8));
    source.cancel();
    for (auto& result : results)
        EXPECT_EQ(result.get(), ResultCode::cancelled);
}

TEST(BlockingClient, givesUpOnASilentDevice)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.awaitClose();
    });
    HttpLimits limits;
    limits.requestTimeout = std::chrono::milliseconds(50);
    BlockingClient client(infoFor(peer.getPort()), CancellationSource{}, limits);
    const auto response = client.get("/", nullptr);
    EXPECT_EQ(response->status, 0U);
    EXPECT_EQ(response->transportError, hostError(ResultCode::timedOut));
}
}  // namespace
