#include "ScriptedPeer.h"
#include "TestClient.h"

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <thread>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;
using namespace Tavro8::http::test;

TEST(Cancellation, endsARequestBeforeItHasBegun)
{
    boost::asio::io_context context;
    ScriptedPeer peer(echoTargets);
    Expectation outcome;
    const CancellationPtr request = asyncGetEx(infoFor(peer.getPort()), "/", context, outcome.handler());
    request->cancel();
    context.run();
    ASSERT_TRUE(outcome.isReady());
    const Outcome result = outcome.get();
    EXPECT_EQ(result.ec, hostError(ResultCode::cancelled));
    EXPECT_EQ(result.response.status, 0U);
    EXPECT_EQ(result.response.transportError, result.ec);
    EXPECT_TRUE(peer.getRequests().empty());
}

TEST(Cancellation, endsARequestThatWaitsForItsTurn)
{
    Signal mayAnswer;
    ScriptedPeer peer([&](PeerConnection& connection) {
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
            mayAnswer.await();
            connection.send(okResponse(targetOf(request)));
        }
    });
    HttpLimits limits;
    limits.connectionsPerDevice = 1;
    Expectation outcomes[3];
    ClientContext client(limits);
    const auto info = infoFor(peer.getPort());
    asyncGetEx(info, "/0", client.get(), outcomes[0].handler());
    const CancellationPtr waiting = asyncGetEx(info, "/1", client.get(), outcomes[1].handler());
    asyncGetEx(info, "/2", client.get(), outcomes[2].handler());
    ASSERT_TRUE(peer.awaitRequests(1));

    waiting->cancel();
    EXPECT_EQ(outcomes[1].get().ec, hostError(ResultCode::cancelled));
    mayAnswer.raise(2);
    EXPECT_EQ(outcomes[0].get().body, "/0");
    EXPECT_EQ(outcomes[2].get().body, "/2");
    EXPECT_EQ(peer.getRequests().size(), 2U);
}

/// A peer that never answers a TLS greeting keeps a client in the opening of its connection.
TEST(Cancellation, endsARequestWhoseConnectionIsBeingOpened)
{
    Signal greeted;
    ScriptedPeer peer([&](PeerConnection& connection) {
        greeted.raise();
        connection.awaitClose();
    });
    Expectation outcome;
    ClientContext client;
    const CancellationPtr request =
        asyncGetEx(infoFor(peer.getPort(), {}, "https"), "/", client.get(), outcome.handler());
    ASSERT_TRUE(greeted.await());
    request->cancel();
    EXPECT_EQ(outcome.get().ec, hostError(ResultCode::cancelled));
    EXPECT_TRUE(peer.awaitScriptEnds(1));
}

TEST(Cancellation, endsARequestThatWaitsForItsReply)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        connection.readRequest();
        connection.send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n12");
        connection.awaitClose();
    });
    Expectation outcome;
    ClientContext client;
    const CancellationPtr request = asyncPostEx(infoFor(peer.getPort()), "/", "{}", client.get(), outcome.handler());
    ASSERT_TRUE(peer.awaitRequests(1));
    request->cancel();
    const Outcome result = outcome.get();
    EXPECT_EQ(result.ec, hostError(ResultCode::cancelled));
    EXPECT_TRUE(result.body.empty());
    EXPECT_TRUE(peer.awaitScriptEnds(1)) << "the connection was to be closed";
}

TEST(Cancellation, isHarmlessAfterTheEnd)
{
    ScriptedPeer peer(echoTargets);
    CancellationPtr request;
    {
        boost::asio::io_context context;
        Expectation outcome;
        request = asyncGetEx(infoFor(peer.getPort()), "/", context, outcome.handler());
        context.run();
        request->cancel();
        request->cancel();
        context.restart();
        context.run();
        EXPECT_FALSE(outcome.get().ec);  // a second call of the handler would throw here
    }
    request->cancel();  // the context is gone
}

TEST(Cancellation, racesWithCompletionAndStillTellsTheHandlerOnce)
{
    ScriptedPeer peer(echoTargets);
    ClientContext client;
    const auto info = infoFor(peer.getPort());
    for (int round = 0; round < 200; ++round) {
        Expectation outcome;
        const CancellationPtr request = asyncGetEx(info, "/", client.get(), outcome.handler());
        std::thread canceller([&] { request->cancel(); });
        const Outcome result = outcome.get();
        canceller.join();
        EXPECT_TRUE(!result.ec || result.ec == hostError(ResultCode::cancelled)) << result.ec.message();
    }
}

TEST(Cancellation, droppingTheHandleDoesNotCancel)
{
    ScriptedPeer peer(echoTargets);
    boost::asio::io_context context;
    Expectation outcome;
    asyncGetEx(infoFor(peer.getPort()), "/", context, outcome.handler()).reset();
    context.run();
    EXPECT_FALSE(outcome.get().ec);
}

TEST(Cancellation, destroysTheHandlersThatADestroyedContextLeaves)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        if (targetOf(connection.readRequest()) == "/kept") {
            connection.send(okResponse("kept"));
            connection.readRequest();
        }
        connection.awaitClose();
    });
    ClientContext client;
    const auto info = infoFor(peer.getPort());
    Expectation kept;
    asyncGetEx(info, "/kept", client.get(), kept.handler());
    EXPECT_EQ(kept.get().body, "kept");

    const auto marker = std::make_shared<int>();
    std::atomic<int> calls = 0;
    std::vector<CancellationPtr> requests;
    for (int i = 0; i < 7; ++i) {
        requests.push_back(asyncGetEx(
            info, "/hangs", client.get(),
            [marker, &calls](const error_code&, const std::vector<char>&, const HttpResponse&) { ++calls; }));
    }
    ASSERT_TRUE(peer.awaitRequests(5));
    EXPECT_GT(marker.use_count(), 1);
    client.destroy();
    EXPECT_EQ(marker.use_count(), 1);
    EXPECT_EQ(calls, 0);
    for (const auto& request : requests)
        request->cancel();
}

TEST(Cancellation, destroysARequestOfAContextThatNeverRan)
{
    const auto marker = std::make_shared<int>();
    {
        boost::asio::io_context context;
        asyncGetEx(infoFor(1), "/", context,
                   [marker](const error_code&, const std::vector<char>&, const HttpResponse&) {});
    }
    EXPECT_EQ(marker.use_count(), 1);
}

TEST(CancellationSource, sharesItsStateWithItsCopies)
{
    CancellationSource source;
    CancellationSource copy = source;
    EXPECT_FALSE(copy.isCancelled());
    source.cancel();
    EXPECT_TRUE(copy.isCancelled());
    copy.reset();
    EXPECT_FALSE(source.isCancelled());
}
}  // namespace
