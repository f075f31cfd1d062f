#include <utility>

#include "Player.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <set>

// How the client proves itself over a whole session. The device's side computes its own hashes.
namespace Tavro8::Utility
{
namespace
{
using namespace testkit;
using std::chrono::milliseconds;
using testing::AnyOf;
using testing::Each;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* realm = "48ea63000102";  // devices name their MAC address
constexpr const char* user = "admin";
constexpr const char* password = "s3cret";

/// The value of a parameter of an Authorization header, in quotes or not; empty when it is missing.
std::string parameter(const std::string& header, const std::string& name)
{
    for (const char* separator : {" ", ", "}) {
        const std::size_t at = header.find(separator + name + '=');
        if (at == std::string::npos)
            continue;
        std::string value = header.substr(header.find('=', at) + 1);
        if (value.starts_with('"'))
            return value.substr(1, value.find('"', 1) - 1);
        return value.substr(0, value.find(','));
    }
    return {};
}

/// A device that asks for a proof.
struct Guard {
    std::string algorithm = {};   // as the challenge writes it, empty: not stated
    std::string qop = {};         // the same
    std::string stale = {};       // of the first challenge: the whole parameter, such as `stale="FALSE"`
    std::string staleLater = {};  // of challenges for a nonce that is no longer good
    std::string before = {};      // whole header lines in front of the challenge, and behind it
    std::string behind = {};
    std::set<std::string> renews = {};  // methods at which a new nonce is asked for, each once
    std::set<std::string> open = {};    // methods that need no proof
    bool refusesAll = false;            // whatever comes

    /// Answers with 401 and returns true when the request may not pass. One connection at a time.
    bool refuses(ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request)
    {
        if (open.count(request.method) != 0)
            return false;
        const auto found = request.headers.find("authorization");
        const std::string header = found == request.headers.end() ? std::string() : found->second;
        const bool renewed = renews.erase(request.method) != 0;
        if (renewed)
            ++nonceNumber;
        if (!refusesAll && !renewed && isProof(request, header))
            return false;
        const std::string& staleText = header.empty() ? stale : staleLater;
        connection.reply(request, 401,
                         before + "WWW-Authenticate: Digest realm=\"" + realm + "\", nonce=\"" + nonce() + '"' +
                             (algorithm.empty() ? "" : ", algorithm=" + algorithm) +
                             (qop.empty() ? "" : ", qop=\"" + qop + '"') + (staleText.empty() ? "" : ", " + staleText) +
                             "\r\n" + behind);
        return true;
    }

    std::string nonce() const { return "f00d" + std::to_string(nonceNumber); }

    bool isProof(const ScriptedPeer::Request& request, const std::string& header)
    {
        if (!header.starts_with("Digest ") || parameter(header, "nonce") != nonce() ||
            parameter(header, "username") != user || parameter(header, "realm") != realm ||
            parameter(header, "uri") != request.uri)
            return false;
        const bool sha = algorithm.find("SHA-256") != std::string::npos;
        const EVP_MD* function = sha ? EVP_sha256() : EVP_md5();
        const std::string cnonce = parameter(header, "cnonce");
        std::string a1 = hexDigest(function, std::string(user) + ':' + realm + ':' + password);
        if (algorithm.find("sess") != std::string::npos)
            a1 = hexDigest(function, a1 + ':' + nonce() + ':' + cnonce);
        const std::string a2 = hexDigest(function, request.method + ':' + request.uri);
        if (qop.empty())
            return parameter(header, "response") == hexDigest(function, a1 + ':' + nonce() + ':' + a2);
        const std::string count = parameter(header, "nc");
        const bool fresh = counts.insert(nonce() + count).second;
        return fresh && parameter(header, "qop") == "auth" &&
               parameter(header, "response") ==
                   hexDigest(function, a1 + ':' + nonce() + ':' + count + ':' + cnonce + ":auth:" + a2);
    }

    int nonceNumber = 1;
    std::set<std::string> counts = {};  // used ones, with their nonce
};

/// A camera behind a guard, and a whole session with it: up to PLAY, two keep-alives, TEARDOWN.
struct GuardedSession {
    explicit GuardedSession(Guard theGuard) : guard(std::move(theGuard)), peer(camera().script()), player(quick(loop))
    {}

    Camera camera()
    {
        Camera result;
        result.sdp = videoAndAudioSdp;
        result.intercept = [this](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
            return guard.refuses(connection, request);
        };
        return result;
    }
    static Loop& quick(Loop& loop)
    {
        loop.timing().keepAliveInterval = milliseconds(10);
        return loop;
    }

    bool isPlayedToTheEnd()
    {
        player.start(addressOf(peer));
        if (!loop.runUntil([&] { return player.isPlaying() || player.failure(); }) || player.failure())
            return false;
        const std::size_t keepAlives = peer.count("GET_PARAMETER");
        if (!loop.runUntil([&] { return peer.count("GET_PARAMETER") >= keepAlives + 3 || player.failure(); }))
            return false;
        bool done = false;
        player.client->teardown([&](const error_code& ec) { done = !ec; });
        return loop.runUntil([&] { return done; }) && !player.failure();
    }
    /// Why it was not let in.
    error_code refusal()
    {
        player.start(addressOf(peer));
        EXPECT_TRUE(loop.runUntil([&] { return player.isPlaying() || player.failure(); }));
        return player.failure().value_or(error_code{});
    }

    /// Every Authorization header.
    std::vector<std::string> proofs() const
    {
        std::vector<std::string> found;
        for (const auto& request : peer.requests()) {
            if (const auto header = request.headers.find("authorization"); header != request.headers.end())
                found.push_back(header->second);
        }
        return found;
    }

    Guard guard;  // belongs to the thread of the connection
    ScriptedPeer peer;
    Loop loop;
    Player player;
};
}  // namespace

TEST(RtspAuthentication, provesItselfByEachAlgorithmOverAWholeSession)
{
    for (const char* algorithm :
         {"", "MD5", "\"MD5\"", "MD5-sess", "\"MD5-sess\"", "SHA-256", "\"SHA-256\"", "SHA-256-sess"}) {
        for (const char* qop : {"", "auth", "auth,auth-int", "auth-int, auth"}) {
            SCOPED_TRACE(std::string(algorithm) + " qop " + qop);
            GuardedSession session({.algorithm = algorithm, .qop = qop});
            EXPECT_TRUE(session.isPlayedToTheEnd()) << session.player.log.text();
            EXPECT_EQ(session.player.log.errorCount(), 0U) << session.player.log.text();
            EXPECT_EQ(session.peer.count("TEARDOWN"), 1U) << "each request but the first is let in at once";
            EXPECT_EQ(session.peer.count("SETUP"), 2U);
            EXPECT_EQ(session.peer.count("OPTIONS"), 2U);
        }
    }
}

TEST(RtspAuthentication, answersARealmOfAMacAddressWithoutQopToTheByte)
{
    GuardedSession session({.stale = "stale=\"FALSE\"", .open = {"OPTIONS"}});
    ASSERT_TRUE(session.isPlayedToTheEnd()) << session.player.log.text();
    const std::string uri = "rtsp://127.0.0.1:" + std::to_string(session.peer.port()) + "/media/video1";
    const std::string response = hexDigest(EVP_md5(), hexDigest(EVP_md5(), "admin:48ea63000102:s3cret") +
                                                          ":f00d1:" + hexDigest(EVP_md5(), "DESCRIBE:" + uri));
    EXPECT_EQ(session.proofs().at(0), "Digest username=\"admin\", realm=\"48ea63000102\", nonce=\"f00d1\", uri=\"" +
                                          uri + "\", response=\"" + response + '"');
}

TEST(RtspAuthentication, readsStaleInEachSpelling)
{
    // On the first challenge it says nothing: no proof was there that could be stale.
    for (const char* stale : {"stale=\"FALSE\"", "stale=\"false\"", "stale=FALSE", "stale=false", "Stale=\"False\"",
                              "stale=\"TRUE\"", "stale=true", "STALE = \"true\""}) {
        SCOPED_TRACE(stale);
        GuardedSession session({.stale = stale});
        EXPECT_TRUE(session.isPlayedToTheEnd()) << session.player.log.text();
    }
    // Later it tells an old nonce from a wrong password.
    for (const char* stale : {"stale=true", "stale=\"true\"", "stale=TRUE", "stale=\"TRUE\"", "Stale=\"True\""}) {
        SCOPED_TRACE(stale);
        GuardedSession session({.staleLater = stale, .renews = {"SETUP", "PLAY", "GET_PARAMETER", "TEARDOWN"}});
        EXPECT_TRUE(session.isPlayedToTheEnd()) << session.player.log.text();
    }
}

TEST(RtspAuthentication, answersAChallengeToAnyRequest)
{
    for (const char* method : {"OPTIONS", "DESCRIBE", "SETUP", "PLAY", "GET_PARAMETER", "TEARDOWN"}) {
        for (const char* stale : {"", "stale=true", "stale=\"FALSE\""}) {
            SCOPED_TRACE(std::string(method) + ' ' + stale);
            // Nothing is asked for up to that request, and then a proof; or a new nonce in the middle.
            std::set<std::string> before = {"OPTIONS", "DESCRIBE", "SETUP", "PLAY", "GET_PARAMETER", "TEARDOWN"};
            before.erase(method);
            GuardedSession alone({.stale = stale, .open = before});
            EXPECT_TRUE(alone.isPlayedToTheEnd()) << alone.player.log.text();
            GuardedSession renewed({.qop = "auth", .staleLater = stale, .renews = {method}});
            EXPECT_TRUE(renewed.isPlayedToTheEnd()) << renewed.player.log.text();
            EXPECT_EQ(renewed.player.log.errorCount(), 0U);
            EXPECT_EQ(parameter(renewed.proofs().back(), "nonce"), "f00d2") << "it was asked for";
        }
    }
}

TEST(RtspAuthentication, takesDigestBesideBasicInAnyOrder)
{
    const std::string basic = "WWW-Authenticate: Basic realm=\"camera\"\r\n";
    const std::string unknown = "WWW-Authenticate: Bearer realm=\"cloud\"\r\nwww-authenticate: Digest realm=\"x\", "
                                "nonce=\"1\", algorithm=SHA-512-256\r\n";
    const Guard guards[] = {
        {.before = basic},
        {.behind = basic},
        {.algorithm = "SHA-256", .before = basic, .behind = basic},
        {.before = unknown, .behind = basic},
    };
    for (const Guard& guard : guards) {
        SCOPED_TRACE(guard.before + guard.behind);
        GuardedSession session(guard);
        ASSERT_TRUE(session.isPlayedToTheEnd()) << session.player.log.text();
        EXPECT_THAT(session.proofs(), Each(StartsWith("Digest "))) << "never the password itself";
    }
}

TEST(RtspAuthentication, takesBasicWhereNothingBetterCanBeAnswered)
{
    Camera camera;
    camera.sdp = videoSdp;
    camera.intercept = [](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
        const auto found = request.headers.find("authorization");
        if (found != request.headers.end() && found->second == "Basic YWRtaW46czNjcmV0")
            return false;
        connection.reply(request, 401,
                         "WWW-Authenticate: Digest realm=\"x\", nonce=\"1\", algorithm=SHA-512-256\r\n"
                         "WWW-Authenticate: Basic realm=\"camera\"\r\n");
        return true;
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.isPlaying() || player.failure(); }));
    EXPECT_TRUE(player.isPlaying()) << player.log.text();
}

TEST(RtspAuthentication, asksOnceWithWhatIsNotLetIn)
{
    const struct {
        const char* name;
        Guard guard;
        std::size_t attempts;
    } cases[] = {
        {"wrong password", {.open = {"OPTIONS"}, .refusesAll = true}, 2},
        {"wrong password, quoted capitals",
         {.stale = "stale=\"FALSE\"", .staleLater = "stale=\"FALSE\"", .open = {"OPTIONS"}, .refusesAll = true},
         2},
        {"stale for ever", {.staleLater = "stale=true", .open = {"OPTIONS"}, .refusesAll = true}, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        GuardedSession session(c.guard);
        EXPECT_EQ(session.refusal(), make_error_code(ResultCode::accessDenied));
        EXPECT_EQ(session.peer.count("DESCRIBE"), c.attempts) << "more would lock the account";
        EXPECT_EQ(session.player.log.errorCount(), 1U);
        EXPECT_THAT(session.player.log.text(), HasSubstr("The device refuses the user name or password."));
        EXPECT_THAT(session.player.log.text(), Not(AnyOf(HasSubstr(password), HasSubstr(user))));
    }
}

TEST(RtspAuthentication, saysWhenTheDeviceAsksForWhatNobodyCanAnswer)
{
    Camera camera;
    camera.sdp = videoSdp;
    for (const char* challenge : {"WWW-Authenticate: Bearer realm=\"cloud\"\r\n", "",
                                  "WWW-Authenticate: Digest realm=\"x\", nonce=\"1\", qop=\"auth-int\"\r\n",
                                  "WWW-Authenticate: Digest\r\n", "WWW-Authenticate: \"\"\"=,,=\r\n"}) {
        SCOPED_TRACE(challenge);
        camera.intercept = [challenge](ScriptedPeer::Connection& connection, const ScriptedPeer::Request& request) {
            connection.reply(request, 401, challenge);
            return true;
        };
        ScriptedPeer peer(camera.script());
        Loop loop;
        Player player(loop);
        player.start(addressOf(peer));
        ASSERT_TRUE(loop.runUntil([&] { return player.failure().has_value(); }));
        EXPECT_EQ(player.failure(), make_error_code(ResultCode::accessDenied));
        EXPECT_THAT(player.log.text(), HasSubstr("a kind of authentication that is not supported"));
    }
}

TEST(RtspAuthentication, goesOnStreamingWhenKeepAlivesAreRefusedForTheirProof)
{
    Camera camera;
    camera.sdp = videoSdp;
    camera.intercept = [sender = std::make_shared<VideoSender>()](ScriptedPeer::Connection& connection,
                                                                  const ScriptedPeer::Request& request) {
        if (request.method != "GET_PARAMETER" && request.method != "TEARDOWN")
            return request.method == "OPTIONS" && request.headers.count("session") != 0 &&
                   sender->sendKeyFrame(connection) && connection.reply(request, 200);
        sender->sendKeyFrame(connection);
        connection.reply(request, 401, "WWW-Authenticate: Digest realm=\"x\", nonce=\"1\", stale=true\r\n");
        return true;
    };
    ScriptedPeer peer(camera.script());
    Loop loop;
    loop.timing().keepAliveInterval = milliseconds(5);
    Player player(loop);
    player.start(addressOf(peer));
    ASSERT_TRUE(loop.runUntil([&] { return player.video.size() >= 8; })) << player.log.text();
    EXPECT_FALSE(player.failure());
    EXPECT_EQ(player.log.count("is refused with status 401"), 1U) << "said once";
    EXPECT_GE(peer.count("GET_PARAMETER"), 3U) << "as often as a stale proof is worth";
    bool done = false;
    player.client->teardown([&](const error_code&) { done = true; });
    ASSERT_TRUE(loop.runUntil([&] { return done; })) << "however the farewell is answered";
}
}  // namespace Tavro8::Utility
