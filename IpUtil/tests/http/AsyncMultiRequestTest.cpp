#include "ScriptedPeer.h"
#include "TestClient.h"
#include "http/ConnectionPool.h"

#include <IpUtil/AsyncMultiRequest.h>
#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;
using namespace Tavro8::http::test;
using boost::posix_time::milliseconds;
using boost::posix_time::seconds;
using boost::posix_time::time_duration;
using Utility::AsyncMultiRequest;

using Lines = std::vector<std::string>;

const time_duration usualLimit = seconds(20);

std::string bodyOf(const std::string& request)
{
    return request.substr(request.find("\r\n\r\n") + 4);
}

/// Answers each request by its target, a 200 when nothing else was said.
ScriptedPeer::Script answering(const std::map<std::string, std::string>& answers)
{
    return [answers](PeerConnection& connection) {
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
            const auto found = answers.find(targetOf(request));
            connection.send(found == answers.end() ? okResponse(targetOf(request)) : found->second);
        }
    };
}

/// Answers everything but "/hangs".
void hangingOne(PeerConnection& connection)
{
    std::string request = connection.readRequest();
    while (!request.empty() && targetOf(request) != "/hangs") {
        connection.send(okResponse("done"));
        request = connection.readRequest();
    }
    connection.awaitClose();
}

class BatchLogger final : public ILogger {
public:
    void* FindContract(const char* name) noexcept override { return findContractIn<ILogger>(this, name); }
    LogSeverity GetLevel() const noexcept override { return LogSeverity::debug; }
    void Log(LogSeverity, const char* function, const char* file, int, const char* message) noexcept override
    {
        lines.push_back(std::string(function) + " [" + file + "] " + message);
    }
    void Destroy() noexcept override {}

    Lines lines;
};

/// A batch to one peer, run on the test's own thread.
class MultiRequest : public ::testing::Test {
protected:
    void make(ScriptedPeer::Script script, bool parallel = true, bool stopAtFailure = false)
    {
        peer.emplace(std::move(script));
        makeFor(infoFor(peer->getPort()), parallel, stopAtFailure);
    }
    void makeFor(ConnectionInfoPtr info, bool parallel = true, bool stopAtFailure = false)
    {
        batch = std::make_unique<AsyncMultiRequest>(context, std::move(info), &logger, parallel, stopAtFailure);
    }
    /// Notes how the request ended.
    CompletionHandler noting(const std::string& name)
    {
        return [this, name](const error_code& ec, const std::vector<char>&, const HttpResponse& response) {
            EXPECT_TRUE(!ec || ec.category() == Utility::get_tavro8_category());
            events.push_back(name + ' ' + (ec ? ec.message() : std::to_string(response.status)));
        };
    }
    void get(const std::string& path) { batch->addGetRequest(path, usualLimit, noting(path)); }
    void start()
    {
        batch->start([this](std::int32_t result) { events.push_back("end " + std::to_string(result)); });
    }
    void run()
    {
        start();
        EXPECT_TRUE(events.empty()) << "nothing is called inside the start";
        context.run();
    }
    static Lines sorted(Lines lines)
    {
        std::ranges::sort(lines);
        return lines;
    }

    Signal mayGoOn;  // used by the threads of the peer, which ends first
    std::optional<ScriptedPeer> peer;
    BatchLogger logger;
    boost::asio::io_context context;
    std::unique_ptr<AsyncMultiRequest> batch;
    Lines events;
};

TEST_F(MultiRequest, sendsItsRequestsTogetherAndEndsOnce)
{
    make([&](PeerConnection& connection) {
        connection.readRequest();
        mayGoOn.await();
        connection.send(okResponse("x"));
        connection.awaitClose();
    });
    for (const char* const path : {"/0", "/1", "/2"})
        get(path);
    std::thread judge([&] {
        EXPECT_TRUE(peer->awaitRequests(3));  // none has been answered
        mayGoOn.raise(3);
    });
    run();
    judge.join();
    ASSERT_EQ(events.size(), 4U);
    EXPECT_EQ(sorted(events), (Lines{"/0 200", "/1 200", "/2 200", "end 0"}));
    EXPECT_EQ(events.back(), "end 0");
}

TEST_F(MultiRequest, leavesAConnectionToOtherUsersOfTheDevice)
{
    make(hangingOne);
    for (std::size_t i = 0; i < HttpLimits().connectionsPerDevice; ++i)
        get("/hangs");
    start();
    const auto info = std::make_shared<asio::ConnectionInfo>(*infoFor(peer->getPort()));
    info->requestTimeout = std::chrono::seconds(2);
    const auto onDone = [&, note = noting("/other")](const auto&... outcome) {
        note(outcome...);
        batch->stop();
    };
    asyncGetEx(info, "/other", context, onDone);
    context.run();
    EXPECT_EQ(events, (Lines{"/other 200"}));
}

/// A batch whose requests are answered by the test itself, of which two are under way at once.
class HeldMultiRequest : public MultiRequest {
protected:
    void makeHeld(bool parallel = true)
    {
        HttpLimits limits;
        limits.connectionsPerDevice = 3;
        setHttpLimits(context, limits);
        makeFor(nullptr, parallel);
    }
    void add(const std::string& name, CompletionHandler handler = {})
    {
        const auto begin = [this, name](boost::asio::io_context&, CompletionHandler done) {
            begun.push_back(name);
            answers[name] = std::move(done);
            return CancellationPtr();
        };
        batch->addRequest(begin, std::move(handler));
    }
    void answer(const std::string& name)
    {
        HttpResponse response;
        response.status = 200;
        answers.at(name)({}, {}, response);
    }

    Lines begun;
    std::map<std::string, CompletionHandler> answers;
};

TEST_F(HeldMultiRequest, oneLessIsUnderWayThanThereAreConnections)
{
    makeHeld();
    for (const char* const name : {"a", "b", "c", "d"})
        add(name);
    start();
    EXPECT_EQ(begun, (Lines{"a", "b"})) << "the time limit of the others has not begun";
    EXPECT_EQ(batch->size(), 4U);
    answer("b");
    EXPECT_EQ(begun, (Lines{"a", "b", "c"}));
    answer("a");
    EXPECT_EQ(begun, (Lines{"a", "b", "c", "d"}));
    answer("c");
    EXPECT_EQ(events, Lines{});
    answer("d");
    EXPECT_EQ(events, (Lines{"end 0"}));
}

TEST_F(HeldMultiRequest, whatAHandlerAddsGoesBeforeWhatWaits)
{
    makeHeld();
    add("read a", [this](const auto&...) {
        add("write a");
        add("read a again");
    });
    for (const char* const name : {"read b", "read c", "read d"})
        add(name);
    start();
    answer("read a");
    EXPECT_EQ(begun, (Lines{"read a", "read b", "write a"}));
    answer("read b");
    EXPECT_EQ(begun.back(), "read a again");
    answer("write a");
    EXPECT_EQ(begun.back(), "read c");
    answer("read a again");
    EXPECT_EQ(begun.back(), "read d");
    EXPECT_EQ(begun.size(), 6U);
}

TEST_F(HeldMultiRequest, oneAfterTheOtherGoInTheOrderInWhichTheyWereAdded)
{
    makeHeld(false);
    add("a", [this](const auto&...) { add("added"); });
    add("b");
    start();
    for (const char* const name : {"a", "b", "added"}) {
        EXPECT_EQ(begun.back(), name);
        answer(name);
    }
    EXPECT_EQ(events, (Lines{"end 0"}));
}

TEST_F(HeldMultiRequest, stopGivesUpWhatWaits)
{
    makeHeld();
    add("a", [this](const auto&...) {
        add("added");
        add("added and waiting");
        EXPECT_EQ(batch->size(), 4U);
        batch->stop();
        EXPECT_EQ(batch->size(), 0U);
    });
    add("b");
    add("c");
    start();
    answer("a");
    EXPECT_EQ(begun, (Lines{"a", "b", "added"}));
}

TEST_F(MultiRequest, sendsOneAfterTheOtherWhenToldTo)
{
    make(answering({}), false);
    std::vector<std::size_t> sent;
    for (const char* const path : {"/0", "/1", "/2"}) {
        batch->addGetRequest(path, usualLimit, [&](const auto&...) { sent.push_back(peer->getRequests().size()); });
    }
    run();
    EXPECT_EQ(sent, (std::vector<std::size_t>{1, 2, 3}));
    EXPECT_EQ(events, (Lines{"end 0"}));
}

TEST_F(MultiRequest, writesWhatItHasReadBeforeItsEnd)
{
    for (const bool parallel : {true, false}) {
        SCOPED_TRACE(parallel);
        events.clear();
        context.restart();
        make(answering({}), parallel);
        const auto onRead = [&](const error_code&, const std::vector<char>& body, const HttpResponse&) {
            events.emplace_back("read");
            batch->addPutRequest("/resource", std::string(body.begin(), body.end()) + " edited", usualLimit,
                                 noting("write"));
        };
        batch->addGetRequest("/resource", usualLimit, onRead);
        run();
        EXPECT_EQ(events, (Lines{"read", "write 200", "end 0"}));
        ASSERT_EQ(peer->getRequests().size(), 2U);
        EXPECT_EQ(bodyOf(peer->getRequests()[1]), "/resource edited");
        batch.reset();
    }
}

TEST_F(MultiRequest, sendsEveryMethod)
{
    make(answering({}), false);
    batch->addGetRequest("/get", usualLimit, noting("get"));
    batch->addPutRequest("/put", "{\"a\":1}", usualLimit, noting("put"));
    batch->addPostRequest("/post", "{\"b\":2}", usualLimit, noting("post"));
    batch->addRequest(
        [this](boost::asio::io_context& where, CompletionHandler done) {
            return asyncDeleteEx(infoFor(peer->getPort()), "/delete", where, std::move(done));
        },
        noting("delete"));
    run();
    EXPECT_EQ(events, (Lines{"get 200", "put 200", "post 200", "delete 200", "end 0"}));
    const Lines requests = peer->getRequests();
    ASSERT_EQ(requests.size(), 4U);
    EXPECT_EQ(requests[0].substr(0, 9), "GET /get ");
    EXPECT_EQ(requests[1].substr(0, 9), "PUT /put ");
    EXPECT_EQ(bodyOf(requests[1]), "{\"a\":1}");
    EXPECT_EQ(requests[2].substr(0, 11), "POST /post ");
    EXPECT_EQ(bodyOf(requests[2]), "{\"b\":2}");
    EXPECT_EQ(requests[3].substr(0, 15), "DELETE /delete ");
}

TEST_F(MultiRequest, resultIsTheFirstFailureAndTheRestGoesOn)
{
    make(answering({{"/1", emptyResponse("404 Not Found")}, {"/2", emptyResponse("503 Busy")}}), false);
    for (const char* const path : {"/0", "/1", "/2", "/3"})
        get(path);
    run();
    EXPECT_EQ(events, (Lines{"/0 200", "/1 404", "/2 503", "/3 200", "end 514"}));
}

TEST_F(MultiRequest, redirectIsNoFailure)
{
    make(answering({{"/", emptyResponse("302 Found", "Location: /login\r\n")}}));
    get("/");
    run();
    EXPECT_EQ(events, (Lines{"/ 302", "end 0"}));
}

TEST_F(MultiRequest, devicesThatCannotBeReachedGiveTheHostsOwnCode)
{
    makeFor(infoFor(closedPort()));
    get("/");
    run();
    EXPECT_EQ(events.back(), "end 256");
}

TEST_F(MultiRequest, missingDescriptionIsAFailureAndNoCrash)
{
    makeFor(nullptr);
    get("/");
    run();
    EXPECT_EQ(events.back(), "end 256");
}

TEST_F(MultiRequest, stopsAtTheFirstFailureWhenToldTo)
{
    make(answering({{"/1", emptyResponse("404 Not Found")}}), false, true);
    get("/0");
    batch->addGetRequest("/1", usualLimit, [this](const auto&...) { get("/added"); });
    get("/2");
    run();
    EXPECT_EQ(events,
              (Lines{"/0 200", "/2 the operation was cancelled", "/added the operation was cancelled", "end 514"}));
    EXPECT_EQ(peer->getRequests().size(), 2U);
}

TEST_F(MultiRequest, failureTakesBackWhatIsUnderWayWhenToldTo)
{
    make(
        [&](PeerConnection& connection) {
            if (targetOf(connection.readRequest()) == "/hangs") {
                mayGoOn.raise();
            } else {
                mayGoOn.await();
                connection.send(emptyResponse("500 Broken"));
            }
            connection.awaitClose();
        },
        true, true);
    get("/hangs");
    get("/fails");
    run();
    EXPECT_EQ(events, (Lines{"/fails 500", "/hangs the operation was cancelled", "end 516"}));
}

TEST_F(MultiRequest, nothingIsCalledAfterTheStop)
{
    make(hangingOne, false);
    batch->addGetRequest("/first", usualLimit, [this](const auto&...) {
        events.emplace_back("first");
        batch->stop();
        EXPECT_EQ(batch->size(), 0U);
        get("/late");  // is not added any more
    });
    get("/second");
    run();
    EXPECT_EQ(events, (Lines{"first"}));
    EXPECT_EQ(peer->getRequests().size(), 1U);
}

TEST_F(MultiRequest, stopTakesBackWhatIsUnderWay)
{
    make(hangingOne);
    get("/hangs");
    get("/also");
    batch->addGetRequest("/trigger", usualLimit, [this](const auto&...) {
        EXPECT_TRUE(peer->awaitRequests(3));
        batch->stop();
        batch->stop();
    });
    run();  // returns, so nothing is under way any more
    EXPECT_EQ(std::ranges::count(events, "end 0"), 0);
    EXPECT_EQ(std::ranges::count_if(events, [](const auto& line) { return line.starts_with("/hangs"); }), 0);
}

TEST_F(MultiRequest, mayBeDestroyedInsideAHandler)
{
    make(hangingOne);
    get("/hangs");
    batch->addGetRequest("/trigger", usualLimit, [this](const auto&...) {
        EXPECT_TRUE(peer->awaitRequests(2));
        events.emplace_back("trigger");
        batch.reset();
        events.emplace_back("destroyed");
    });
    run();
    EXPECT_EQ(events, (Lines{"trigger", "destroyed"}));
}

TEST_F(MultiRequest, mayBeDestroyedInsideTheFinalHandler)
{
    make(answering({}));
    get("/");
    batch->start([this](std::int32_t result) {
        batch.reset();
        events.push_back("end " + std::to_string(result));
    });
    context.run();
    EXPECT_EQ(events, (Lines{"/ 200", "end 0"}));
}

TEST_F(MultiRequest, destroyedWhileAllWaitCallsNothing)
{
    make(answering({}));
    get("/");
    start();
    batch.reset();
    context.run();
    EXPECT_TRUE(events.empty());
}

TEST_F(MultiRequest, emptyOneEndsWithSuccess)
{
    make(answering({}));
    run();
    EXPECT_EQ(events, (Lines{"end 0"}));
    context.restart();
    start();
    get("/late");
    context.run();
    EXPECT_EQ(events, (Lines{"end 0"})) << "a batch ends once and is not used again";
}

TEST_F(MultiRequest, emptyOneThatIsDestroyedCallsNothing)
{
    make(answering({}));
    start();
    batch.reset();
    context.run();
    EXPECT_TRUE(events.empty());
}

TEST_F(MultiRequest, secondStartDoesNothing)
{
    make(answering({}));
    get("/");
    start();
    start();
    context.run();
    EXPECT_EQ(events, (Lines{"/ 200", "end 0"}));
}

TEST_F(MultiRequest, eachRequestHasATimeLimitOfItsOwn)
{
    make(hangingOne);
    batch->addGetRequest("/hangs", milliseconds(50), noting("hanging"));
    batch->addGetRequest("/0", boost::posix_time::pos_infin, noting("unlimited"));
    batch->addPutRequest("/1", "{}", seconds(0), noting("zero"));
    batch->addPostRequest("/2", "{}", seconds(-5), noting("negative"));
    run();
    ASSERT_EQ(events.size(), 5U);
    EXPECT_EQ(sorted(events), (Lines{"end 258", "hanging the device did not answer in time", "negative 200",
                                     "unlimited 200", "zero 200"}));
}

TEST_F(MultiRequest, handlerThatThrowsFailsItsRequestAlone)
{
    make(answering({}), false);
    batch->addGetRequest("/0", usualLimit, [](const auto&...) { throw std::runtime_error("no such member"); });
    get("/1");
    run();
    EXPECT_EQ(events, (Lines{"/1 200", "end 4"}));
    EXPECT_EQ(logger.lines, (Lines{"Tavro8::Utility::AsyncMultiRequest::onCompleted "
                                   "[IpUtil/src/http/AsyncMultiRequest] no such member"}));
}

TEST_F(MultiRequest, requestThatCannotBeBegunFailsAlone)
{
    make(answering({}));
    batch->addRequest([](auto&, auto) -> CancellationPtr { throw std::runtime_error("not today"); }, noting("odd"));
    get("/1");
    run();
    EXPECT_EQ(events, (Lines{"odd an unexpected failure inside the module", "/1 200", "end 4"}));
}

TEST_F(MultiRequest, handlersMayBeEmpty)
{
    make(answering({}));
    batch->addGetRequest("/", usualLimit, {});
    batch->start({});
    context.run();
    EXPECT_EQ(peer->getRequests().size(), 1U);
    EXPECT_EQ(batch->size(), 0U);
}

TEST_F(MultiRequest, sizeCountsWhatHasNotBeenAnswered)
{
    make(answering({}), false);
    std::vector<std::size_t> sizes;
    for (const char* const path : {"/0", "/1", "/2"})
        batch->addGetRequest(path, usualLimit, [&](const auto&...) { sizes.push_back(batch->size()); });
    EXPECT_EQ(batch->size(), 3U);
    run();
    EXPECT_EQ(sizes, (std::vector<std::size_t>{2, 1, 0}));
    EXPECT_EQ(batch->size(), 0U);
}

TEST_F(MultiRequest, handlersGoWithTheirContextEvenWhereTheyHoldTheBatch)
{
    struct Owner {
        std::unique_ptr<AsyncMultiRequest> batch;
    };
    ScriptedPeer hanging(hangingOne);
    const auto owner = std::make_shared<Owner>();
    {
        boost::asio::io_context shortLived;
        owner->batch = std::make_unique<AsyncMultiRequest>(shortLived, infoFor(hanging.getPort()), nullptr);
        owner->batch->addGetRequest("/hangs", usualLimit, [owner](const auto&...) {});
        owner->batch->start({});
        while (hanging.getRequests().empty())
            shortLived.run_one_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(owner.use_count(), 1);
}
}  // namespace
