#include "Authentication.h"

#include <gtest/gtest.h>

namespace simulator
{
namespace
{

using Verdict = Authenticator::Verdict;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr Authenticator::Clock::time_point start{};

TEST(Digest, isTakenApart)
{
    const auto fields = parseDigest(R"(digest UserName = "ad\"min",  realm="", nc=00000001,qop=auth , uri="/a?b=c,d")");
    ASSERT_TRUE(fields);
    EXPECT_EQ(fields->at("username"), "ad\"min");
    EXPECT_EQ(fields->at("realm"), "");
    EXPECT_EQ(fields->at("nc"), "00000001");
    EXPECT_EQ(fields->at("qop"), "auth");
    EXPECT_EQ(fields->at("uri"), "/a?b=c,d");
}

TEST(Digest, thatBreaksTheRulesIsRefused)
{
    for (const char* header : {"", "Basic abc", "Digestusername=x", "Digest username", "Digest username=\"open",
                               "Digest a=1, a=2", "Digest =x"})
        EXPECT_FALSE(parseDigest(header)) << header;
}

TEST(Digest, matchesTheExampleOfRfc2617)
{
    const DigestFields fields{{"uri", "/dir/index.html"},
                              {"nonce", "dcd98b7102dd2f0e8b11d0f600bfb0c093"},
                              {"nc", "00000001"},
                              {"cnonce", "0a4f113b"},
                              {"qop", "auth"}};
    EXPECT_EQ(digestResponse(fields, "GET", "Mufasa", "testrealm@host.com", "Circle Of Life"),
              "6629fae49393a05397450978507c4ef1");
}

TEST(Digest, computesTheOlderFormWithoutQop)
{
    const DigestFields fields{{"nonce", "dcd98b7102dd2f0e8b11d0f600bfb0c093"}, {"uri", "/dir/index.html"}};
    EXPECT_EQ(digestResponse(fields, "GET", "Mufasa", "testrealm@host.com", "Circle Of Life"),
              "670fd8c2df070c60b045671b8b24ff02");
}

TEST(AuthenticatorWithoutQop, takesTheOlderFormAgainAndAgain)
{
    Authenticator authenticator({.user = "admin", .password = "secret", .realm = "r", .qop = false},
                                [] { return std::string("nonce1"); });
    const auto now = Authenticator::Clock::now();
    EXPECT_EQ(authenticator.challenge(Authenticator::Verdict::missing, now).digest,
              R"(Digest realm="r", nonce="nonce1", algorithm="MD5")");
    const DigestFields fields{{"nonce", "nonce1"}, {"uri", "rtsp://h/"}};
    const std::string response = digestResponse(fields, "PLAY", "admin", "r", "secret");
    const std::string header = R"(Digest username="admin", realm="r", nonce="nonce1", uri="rtsp://h/", response=")";
    EXPECT_EQ(authenticator.judge(header + response + '"', "PLAY", "rtsp://h/", now), Authenticator::Verdict::accepted);
    EXPECT_EQ(authenticator.judge(header + response + '"', "PLAY", "rtsp://h/", now), Authenticator::Verdict::accepted);
    EXPECT_EQ(authenticator.judge(header + "0\"", "PLAY", "rtsp://h/", now), Authenticator::Verdict::wrong);
    EXPECT_EQ(authenticator.judge(header + response + R"(", qop="auth", nc="00000001", cnonce="c")", "PLAY",
                                  "rtsp://h/", now),
              Authenticator::Verdict::malformed);
}

TEST(Nonce, isHexadecimalAndNeverTheSame)
{
    const std::string nonce = randomNonce();
    EXPECT_EQ(nonce.size(), 32u);
    EXPECT_EQ(nonce.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(nonce, randomNonce());
}

/// A client with the right credentials, whose header each test may spoil.
class AuthenticatorTest : public testing::Test {
protected:
    static Authenticator make(bool digest, bool basic)
    {
        return {{"admin", "secret", "02A1B2C3D4E5", digest, basic, seconds(60)},
                [count = 0]() mutable { return "nonce" + std::to_string(++count); }};
    }

    static std::string header(DigestFields fields, const std::string& method = "GET",
                              const std::string& password = "secret")
    {
        fields.try_emplace("username", "admin");
        fields.try_emplace("realm", "02A1B2C3D4E5");
        fields.try_emplace("nonce", "nonce1");
        fields.try_emplace("uri", "/path");
        fields.try_emplace("nc", "00000001");
        fields.try_emplace("cnonce", "c");
        fields.try_emplace("qop", "auth");
        fields.try_emplace("response", digestResponse(fields, method, fields["username"], fields["realm"], password));
        std::string text = "Digest ";
        for (const auto& [name, value] : fields)
            text += name + "=\"" + value + "\", ";
        return text;
    }

    Authenticator authenticator = make(true, false);
};

TEST_F(AuthenticatorTest, challengesAsDevicesDo)
{
    const auto challenge = authenticator.challenge(Verdict::missing, start);
    EXPECT_EQ(challenge.digest, "Digest realm=\"02A1B2C3D4E5\", nonce=\"nonce1\", algorithm=\"MD5\", qop=\"auth\"");
    EXPECT_FALSE(challenge.basic);
    EXPECT_EQ(authenticator.challenge(Verdict::stale, start).digest,
              "Digest realm=\"02A1B2C3D4E5\", nonce=\"nonce2\", algorithm=\"MD5\", qop=\"auth\", stale=true");
}

TEST_F(AuthenticatorTest, acceptsTheRightDigest)
{
    authenticator.challenge(Verdict::missing, start);
    EXPECT_EQ(authenticator.judge("", "GET", "/path", start), Verdict::missing);
    EXPECT_EQ(authenticator.judge(header({}), "GET", "/path", start), Verdict::accepted);
    EXPECT_EQ(authenticator.judge(header({{"nc", "00000002"}, {"algorithm", "MD5"}}), "GET", "/path", start),
              Verdict::accepted);
}

TEST_F(AuthenticatorTest, refusesWrongCredentials)
{
    authenticator.challenge(Verdict::missing, start);
    EXPECT_EQ(authenticator.judge(header({}, "GET", "guess"), "GET", "/path", start), Verdict::wrong);
    EXPECT_EQ(authenticator.judge(header({{"username", "root"}}), "GET", "/path", start), Verdict::wrong);
    EXPECT_EQ(authenticator.judge(header({}, "PUT"), "GET", "/path", start), Verdict::wrong);
    EXPECT_EQ(authenticator.judge(header({{"response", ""}}), "GET", "/path", start), Verdict::wrong);
}

TEST_F(AuthenticatorTest, refusesHeadersThatBreakTheRules)
{
    authenticator.challenge(Verdict::missing, start);
    const DigestFields spoiled[] = {{{"uri", "/other"}},   {{"realm", "other"}}, {{"qop", ""}},
                                    {{"qop", "auth-int"}}, {{"nc", "1"}},        {{"nc", "00000000"}},
                                    {{"nc", "0000000g"}},  {{"cnonce", ""}},     {{"algorithm", "SHA-256"}}};
    for (const DigestFields& fields : spoiled) {
        SCOPED_TRACE(fields.begin()->first + '=' + fields.begin()->second);
        EXPECT_EQ(authenticator.judge(header(fields), "GET", "/path", start), Verdict::malformed);
    }
    EXPECT_EQ(authenticator.judge("Digest nonsense", "GET", "/path", start), Verdict::malformed);
    EXPECT_EQ(authenticator.judge("Bearer x", "GET", "/path", start), Verdict::notOffered);
}

TEST_F(AuthenticatorTest, refusesANonceCountUsedBefore)
{
    authenticator.challenge(Verdict::missing, start);
    EXPECT_EQ(authenticator.judge(header({{"nc", "00000002"}}), "GET", "/path", start), Verdict::accepted);
    // Two connections may overtake each other, so a lower count is fine, once.
    EXPECT_EQ(authenticator.judge(header({{"nc", "00000001"}}), "GET", "/path", start), Verdict::accepted);
    EXPECT_EQ(authenticator.judge(header({{"nc", "00000001"}}), "GET", "/path", start), Verdict::replayed);
    EXPECT_EQ(authenticator.replays(), 1u);
}

TEST_F(AuthenticatorTest, callsAnOldNonceStale)
{
    authenticator.challenge(Verdict::missing, start);
    EXPECT_EQ(authenticator.judge(header({}), "GET", "/path", start + milliseconds(59'999)), Verdict::accepted);
    EXPECT_EQ(authenticator.judge(header({{"nc", "00000002"}}), "GET", "/path", start + seconds(60)), Verdict::stale);
    EXPECT_EQ(authenticator.judge(header({{"nonce", "invented"}}), "GET", "/path", start), Verdict::stale);
    // A wrong password is not worth a second try, whatever the nonce.
    EXPECT_EQ(authenticator.judge(header({{"nonce", "invented"}}, "GET", "guess"), "GET", "/path", start),
              Verdict::wrong);
}

TEST_F(AuthenticatorTest, forgetsItsNoncesWhenTold)
{
    authenticator.challenge(Verdict::missing, start);
    authenticator.forgetNonces();
    EXPECT_EQ(authenticator.judge(header({}), "GET", "/path", start), Verdict::stale);
}

TEST_F(AuthenticatorTest, keepsABoundedNumberOfNonces)
{
    for (int i = 0; i < 5000; ++i)
        authenticator.challenge(Verdict::missing, start + milliseconds(i));
    EXPECT_EQ(authenticator.judge(header({{"nonce", "nonce1"}}), "GET", "/path", start), Verdict::stale);
    EXPECT_EQ(authenticator.judge(header({{"nonce", "nonce5000"}}), "GET", "/path", start), Verdict::accepted);
}

TEST_F(AuthenticatorTest, takesBasicOnlyWhenOffered)
{
    const std::string right = "Basic YWRtaW46c2VjcmV0";  // admin:secret
    EXPECT_EQ(authenticator.judge(right, "GET", "/path", start), Verdict::notOffered);
    Authenticator both = make(true, true);
    EXPECT_EQ(both.judge(right, "GET", "/path", start), Verdict::accepted);
    EXPECT_EQ(both.judge("basic YWRtaW46c2VjcmV0", "GET", "/path", start), Verdict::accepted);
    EXPECT_EQ(both.judge("Basic YWRtaW46Z3Vlc3M=", "GET", "/path", start), Verdict::wrong);
    EXPECT_EQ(both.challenge(Verdict::missing, start).basic, "Basic realm=\"02A1B2C3D4E5\"");

    Authenticator basicOnly = make(false, true);
    EXPECT_EQ(basicOnly.judge(header({}), "GET", "/path", start), Verdict::notOffered);
    EXPECT_FALSE(basicOnly.challenge(Verdict::missing, start).digest);
}

TEST_F(AuthenticatorTest, withoutSchemesLetsEveryoneIn)
{
    EXPECT_EQ(make(false, false).judge("", "GET", "/path", start), Verdict::accepted);
}

}  // namespace
}  // namespace simulator
