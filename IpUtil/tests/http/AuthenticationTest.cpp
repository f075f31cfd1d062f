#include "ScriptedPeer.h"
#include "TestClient.h"
#include "http/DigestMemory.h"
#include "wire/Base64.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <mutex>
#include <openssl/evp.h>
#include <set>
#include <thread>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;
using namespace Tavro8::http::test;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// A hash of our own, so that the client does not judge itself.
std::string hexHash(const char* algorithm, const std::string& text)
{
    unsigned char hash[EVP_MAX_MD_SIZE];
    std::size_t bytes = 0;
    EVP_Q_digest(nullptr, algorithm, nullptr, text.data(), text.size(), hash, &bytes);
    std::string hex;
    for (std::size_t i = 0; i < bytes; ++i) {
        constexpr const char* digits = "0123456789abcdef";
        hex += digits[hash[i] >> 4];
        hex += digits[hash[i] & 15];
    }
    return hex;
}

/// A parameter of an Authorization header, without quotes.
std::string parameterOf(const std::string& header, const std::string& name)
{
    std::size_t begin = header.find(' ' + name + '=');
    if (begin == std::string::npos)
        return {};
    begin += name.size() + 2;
    const bool quoted = header[begin] == '"';
    begin += quoted ? 1U : 0U;
    return header.substr(begin, header.find(quoted ? '"' : ',', begin) - begin);
}

struct Scheme {
    const char* hash;    // name of the hash function
    std::string header;  // value of WWW-Authenticate
    bool session = false;
};

bool isRightAnswer(const Scheme& scheme, const std::string& request)
{
    const std::string header = headerOf(request, "Authorization");
    const std::string method = request.substr(0, request.find(' '));
    const std::string target = targetOf(request);
    if (!header.starts_with("Digest ") || parameterOf(header, "uri") != target ||
        parameterOf(header, "username") != "admin" || parameterOf(header, "realm") != "48ea63000001")
        return false;
    const std::string nonce = parameterOf(header, "nonce");
    std::string secret = hexHash(scheme.hash, "admin:48ea63000001:secret");
    if (scheme.session)
        secret = hexHash(scheme.hash, secret + ':' + nonce + ':' + parameterOf(header, "cnonce"));
    std::string text = secret + ':' + nonce;
    if (!parameterOf(header, "qop").empty())
        text +=
            ':' + parameterOf(header, "nc") + ':' + parameterOf(header, "cnonce") + ':' + parameterOf(header, "qop");
    text += ':' + hexHash(scheme.hash, method + ':' + target);
    return hexHash(scheme.hash, text) == parameterOf(header, "response");
}

std::string unauthorized(const std::string& challenge, const std::string& more = {})
{
    return emptyResponse("401 Unauthorized", "WWW-Authenticate: " + challenge + "\r\n" + more);
}

/// Lets in who answers the challenge.
ScriptedPeer::Script guardedBy(Scheme scheme)
{
    return [scheme](PeerConnection& connection) {
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest())
            connection.send(isRightAnswer(scheme, request) ? okResponse("in") : unauthorized(scheme.header));
    };
}

std::string authorizationOf(const ScriptedPeer& peer, std::size_t request)
{
    const auto requests = peer.getRequests();
    return request < requests.size() ? headerOf(requests[request], "Authorization") : std::string("no such request");
}

constexpr const char* deviceChallenge =
    "Digest realm=\"48ea63000001\", qop=\"auth\", nonce=\"f00d\", algorithm=\"MD5\", opaque=\"5ccc\"";

TEST(Authentication, answersEveryKindOfDigest)
{
    const Scheme schemes[] = {
        {"MD5", deviceChallenge},
        {"MD5", "Digest realm=\"48ea63000001\", nonce=\"f00d\""},
        {"MD5", "digest realm=\"48ea63000001\", nonce=\"f00d\", algorithm=MD5-sess, qop=\"auth,auth-int\"", true},
        {"SHA256", "Digest realm=\"48ea63000001\", nonce=\"f00d\", algorithm=SHA-256, qop=\"auth\""},
        {"MD5", "Basic realm=\"48ea63000001\"\r\nWWW-AUTHENTICATE: Digest realm=\"48ea63000001\", nonce=\"f00d\", "
                "qop=\"auth\""},
        {"MD5", "Digest realm=\"48ea63000001\", nonce=\"f00d\", stale=\"FALSE\", Basic realm=\"48ea63000001\""},
    };
    for (const Scheme& scheme : schemes) {
        SCOPED_TRACE(scheme.header);
        ScriptedPeer peer(guardedBy(scheme));
        HttpSession session(infoFor(peer.getPort(), "admin:secret"));
        std::vector<char> body;
        EXPECT_EQ(session.get("/LAPI/V1.0/Network/Port", &body)->status, 200U);
        EXPECT_EQ(std::string(body.begin(), body.end()), "in");
        EXPECT_EQ(peer.getRequests().size(), 2U);
        EXPECT_EQ(peer.getConnectionCount(), 1U);
        EXPECT_EQ(authorizationOf(peer, 0), "");
    }
}

TEST(Authentication, writesTheOldestFormOfDigestToTheLetter)
{
    ScriptedPeer peer(guardedBy({"MD5", "Digest realm=\"48ea63000001\", nonce=\"f00d\""}));
    HttpSession session(infoFor(peer.getPort(), "admin:secret"));
    EXPECT_EQ(session.get("/LAPI/V1.0/Network/Port", nullptr)->status, 200U);
    const std::string secret = hexHash("MD5", "admin:48ea63000001:secret");
    const std::string request = hexHash("MD5", "GET:/LAPI/V1.0/Network/Port");
    EXPECT_EQ(authorizationOf(peer, 1),
              "Digest username=\"admin\", realm=\"48ea63000001\", nonce=\"f00d\", uri=\"/LAPI/V1.0/Network/Port\", "
              "response=\"" +
                  hexHash("MD5", secret + ":f00d:" + request) + '"');
}

TEST(Authentication, paysTheExtraRoundTripOnlyOnce)
{
    ScriptedPeer peer(guardedBy({"MD5", deviceChallenge}));
    const auto info = infoFor(peer.getPort(), "admin:secret");
    EXPECT_EQ(HttpSession(info).get("/1", nullptr)->status, 200U);
    // Another description of the same device, and the asynchronous operations.
    EXPECT_EQ(HttpSession(infoFor(peer.getPort(), "admin:secret")).get("/2", nullptr)->status, 200U);
    Expectation outcome;
    ClientContext client;
    asyncPutEx(info, "/3", "{}", client.get(), outcome.handler());
    EXPECT_EQ(outcome.get().response.status, 200U);

    ASSERT_EQ(peer.getRequests().size(), 4U);
    EXPECT_EQ(parameterOf(authorizationOf(peer, 1), "nc"), "00000001");
    EXPECT_EQ(parameterOf(authorizationOf(peer, 2), "nc"), "00000002");
    EXPECT_EQ(parameterOf(authorizationOf(peer, 3), "nc"), "00000003");
    EXPECT_EQ(parameterOf(authorizationOf(peer, 3), "opaque"), "5ccc");
}

TEST(Authentication, usesBasicWhenNothingElseIsOffered)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
            const bool right = headerOf(request, "Authorization") == "Basic YWRtaW46c2VjcmV0";
            connection.send(right ? okResponse("in") : unauthorized("Basic realm=\"camera\""));
        }
    });
    HttpSession session(infoFor(peer.getPort(), "admin:secret"));
    EXPECT_EQ(session.get("/", nullptr)->status, 200U);
    EXPECT_EQ(session.get("/", nullptr)->status, 200U);
    EXPECT_EQ(peer.getRequests().size(), 3U);
}

TEST(Authentication, keepsThePasswordFromAPeerThatOffersDigestBesideBasic)
{
    ScriptedPeer peer(guardedBy({"MD5", std::string("Basic realm=\"x\"\r\nWWW-Authenticate: ") + deviceChallenge}));
    HttpSession session(infoFor(peer.getPort(), "admin:secret"));
    EXPECT_EQ(session.get("/", nullptr)->status, 200U);
    for (const std::string& request : peer.getRequests()) {
        EXPECT_THAT(request, Not(HasSubstr("secret")));
        EXPECT_THAT(request, Not(HasSubstr("Basic")));
    }
}

TEST(Authentication, answersAgainWhenTheNonceHasBecomeStale)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        unsigned count = 0;
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
            const std::string nonce = ++count < 4 ? "first" : "second";  // the third request is met by a new nonce
            const std::string stale = count > 2 ? ", stale=true" : "";
            const Scheme scheme{"MD5", "Digest realm=\"48ea63000001\", qop=\"auth\", nonce=\"" +
                                           std::string(count >= 3 ? "second" : "first") + "\"" + stale};
            const bool right = isRightAnswer(scheme, request) && count != 3 &&
                               parameterOf(headerOf(request, "Authorization"), "nonce") == nonce;
            connection.send(right ? okResponse("in") : unauthorized(scheme.header));
        }
    });
    HttpSession session(infoFor(peer.getPort(), "admin:secret"));
    EXPECT_EQ(session.get("/1", nullptr)->status, 200U);
    EXPECT_EQ(session.get("/2", nullptr)->status, 200U);
    ASSERT_EQ(peer.getRequests().size(), 4U);
    EXPECT_EQ(parameterOf(authorizationOf(peer, 2), "nonce"), "first");
    EXPECT_EQ(parameterOf(authorizationOf(peer, 2), "nc"), "00000002");
    EXPECT_EQ(parameterOf(authorizationOf(peer, 3), "nonce"), "second");
    EXPECT_EQ(parameterOf(authorizationOf(peer, 3), "nc"), "00000001");
}

TEST(Authentication, handsOnTheRefusalOfAWrongPasswordAfterOneAttempt)
{
    ScriptedPeer peer(guardedBy({"MD5", deviceChallenge}));
    HttpSession session(infoFor(peer.getPort(), "admin:wrong"));
    const auto response = session.get("/", nullptr);
    EXPECT_EQ(response->status, 401U);
    EXPECT_EQ(translateResponseError(*response), toResult(ResultCode::accessDenied));
    EXPECT_EQ(peer.getRequests().size(), 2U);
}

TEST(Authentication, doesNotGoOnForEverWithADeviceThatCallsEverythingStale)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        for (int i = 0; !connection.readRequest().empty(); ++i)
            connection.send(unauthorized("Digest realm=\"r\", nonce=\"" + std::to_string(i) + "\", stale=true"));
    });
    HttpSession session(infoFor(peer.getPort(), "admin:secret"));
    EXPECT_EQ(session.get("/", nullptr)->status, 401U);
    EXPECT_LE(peer.getRequests().size(), 3U);
}

TEST(Authentication, isNotTriedWithoutCredentials)
{
    ScriptedPeer peer(guardedBy({"MD5", deviceChallenge}));
    HttpSession session(infoFor(peer.getPort()));
    EXPECT_EQ(session.get("/", nullptr)->status, 401U);
    EXPECT_EQ(peer.getRequests().size(), 1U);
}

TEST(Authentication, handsOnAChallengeThatItCannotAnswer)
{
    ScriptedPeer peer(guardedBy({"MD5", "Negotiate"}));
    HttpSession session(infoFor(peer.getPort(), "admin:secret"));
    EXPECT_EQ(session.get("/", nullptr)->status, 401U);
    EXPECT_EQ(peer.getRequests().size(), 1U);
}

TEST(Authentication, sendsTheBodyAgainAndOnANewConnectionWhenTheDeviceCloses)
{
    const Scheme scheme{"MD5", deviceChallenge};
    ScriptedPeer peer([scheme](PeerConnection& connection) {
        const std::string request = connection.readRequest();
        connection.send(isRightAnswer(scheme, request) ? okResponse("in")
                                                       : unauthorized(scheme.header, "Connection: close\r\n"));
    });
    Expectation outcome;
    ClientContext client;
    asyncPostEx(infoFor(peer.getPort(), "admin:secret"), "/a", "{\"a\":1}", client.get(), outcome.handler());
    EXPECT_EQ(outcome.get().body, "in");
    const auto requests = peer.getRequests();
    ASSERT_EQ(requests.size(), 2U);
    for (const std::string& request : requests)
        EXPECT_TRUE(request.ends_with("\r\n\r\n{\"a\":1}"));
    EXPECT_EQ(peer.getConnectionCount(), 2U);
}

TEST(Authentication, answersOnEachConnectionTheNonceThatWasGivenThere)
{
    ScriptedPeer peer([](PeerConnection& connection) {
        const std::string nonce = "nonce" + std::to_string(connection.getIndex());
        const Scheme scheme{"MD5", "Digest realm=\"48ea63000001\", qop=\"auth\", nonce=\"" + nonce + '"'};
        for (std::string request = connection.readRequest(); !request.empty(); request = connection.readRequest()) {
            const bool own = parameterOf(headerOf(request, "Authorization"), "nonce") == nonce;
            connection.send(own && isRightAnswer(scheme, request) ? okResponse("in") : unauthorized(scheme.header));
        }
    });
    const auto info = infoFor(peer.getPort(), "admin:secret");
    std::vector<Expectation> outcomes(20);
    ClientContext client;
    for (auto& outcome : outcomes)
        asyncGetEx(info, "/", client.get(), outcome.handler());
    for (auto& outcome : outcomes)
        EXPECT_EQ(outcome.get().response.status, 200U);
}

TEST(Authentication, usesNoNonceCountTwiceWhicheverThreadAsks)
{
    ScriptedPeer peer(guardedBy({"MD5", deviceChallenge}));
    const auto info = infoFor(peer.getPort(), "admin:secret");
    ASSERT_EQ(HttpSession(info).get("/", nullptr)->status, 200U);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([info] {
            HttpSession session(info);
            for (int request = 0; request < 20; ++request)
                EXPECT_EQ(session.get("/", nullptr)->status, 200U);
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    const auto requests = peer.getRequests();
    EXPECT_EQ(requests.size(), 82U);
    std::set<std::string> counts;
    for (const std::string& request : requests)
        counts.insert(parameterOf(headerOf(request, "Authorization"), "nc"));
    EXPECT_EQ(counts.size(), 82U);  // the first request had none
}
}  // namespace
