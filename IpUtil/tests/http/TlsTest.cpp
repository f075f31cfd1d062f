#include "ScriptedPeer.h"
#include "TestClient.h"

#include <gtest/gtest.h>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;
using namespace Tavro8::http::test;

TEST(Tls, talksToADeviceWithASelfSignedCertificate)
{
    ScriptedPeer peer(echoTargets, ScriptedPeer::Security::tls);
    const auto info = infoFor(peer.getPort(), {}, "https");
    ClientContext client;
    for (const std::string path : {"/first", "/second"}) {
        Expectation outcome;
        asyncPutEx(info, path, "{}", client.get(), outcome.handler());
        const Outcome result = outcome.get();
        EXPECT_FALSE(result.ec) << result.ec.message();
        EXPECT_EQ(result.body, path);
    }
    EXPECT_EQ(peer.getConnectionCount(), 1U);
}

TEST(Tls, worksInABlockingSession)
{
    ScriptedPeer peer(echoTargets, ScriptedPeer::Security::tls);
    HttpSession session(infoFor(peer.getPort(), {}, "https"));
    std::vector<char> body;
    EXPECT_EQ(session.get("/blocking", &body)->status, 200U);
    EXPECT_EQ(std::string(body.begin(), body.end()), "/blocking");
}

TEST(Tls, takesTheEndOfTheSocketForTheEndOfTheReply)
{
    ScriptedPeer peer(
        [](PeerConnection& connection) {
            connection.readRequest();
            connection.send("HTTP/1.1 200 OK\r\n\r\nup to the end");
        },
        ScriptedPeer::Security::tls);
    Expectation outcome;
    ClientContext client;
    asyncGetEx(infoFor(peer.getPort(), {}, "https"), "/", client.get(), outcome.handler());
    const Outcome result = outcome.get();
    EXPECT_FALSE(result.ec) << result.ec.message();
    EXPECT_EQ(result.body, "up to the end");
}

TEST(Tls, reportsADeviceThatDoesNotSpeakIt)
{
    ScriptedPeer peer([](PeerConnection& connection) { connection.send("HTTP/1.1 400 Bad Request\r\n\r\n"); });
    Expectation outcome;
    ClientContext client;
    asyncGetEx(infoFor(peer.getPort(), {}, "https"), "/", client.get(), outcome.handler());
    EXPECT_EQ(outcome.get().ec, hostError(ResultCode::secureChannelFailed));
}

TEST(Tls, givesUpOnADeviceThatDoesNotAnswerTheGreeting)
{
    ScriptedPeer peer([](PeerConnection& connection) { connection.awaitClose(); });
    HttpLimits limits;
    limits.connectTimeout = std::chrono::milliseconds(50);
    Expectation outcome;
    ClientContext client(limits);
    asyncGetEx(infoFor(peer.getPort(), {}, "https"), "/", client.get(), outcome.handler());
    EXPECT_EQ(outcome.get().ec, hostError(ResultCode::timedOut));
    EXPECT_TRUE(peer.awaitScriptEnds(1));
}

TEST(Tls, survivesADestroyedContextDuringTheHandshake)
{
    Signal connected;
    ScriptedPeer peer([&](PeerConnection& connection) {
        connected.raise();
        connection.awaitClose();
    });
    const auto marker = std::make_shared<int>();
    ClientContext client;
    asyncGetEx(infoFor(peer.getPort(), {}, "https"), "/", client.get(),
               [marker](const error_code&, const std::vector<char>&, const HttpResponse&) {});
    ASSERT_TRUE(connected.await());
    client.destroy();
    EXPECT_EQ(marker.use_count(), 1);
}
}  // namespace
