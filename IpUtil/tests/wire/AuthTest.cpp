#include "wire/Auth.h"

#include "wire/InterleavedParser.h"

#include "WireTestSupport.h"

namespace Tavro8::wire
{
namespace
{
const Credentials mufasa{"Mufasa", "Circle of Life"};
const std::string rfc7616Nonce = "7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v";
const std::string rfc7616Cnonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";

CnonceGenerator always(std::string text)
{
    return [text = std::move(text)] { return text; };
}

std::vector<AuthChallenge> challenges(std::string_view header)
{
    return parseChallenges({header});
}

std::string rfc7616Challenge(const std::string& algorithm)
{
    return "Digest realm=\"http-auth@example.org\", qop=\"auth, auth-int\", algorithm=" + algorithm + ", nonce=\"" +
           rfc7616Nonce + "\", opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"";
}

/// A parameter of an Authorization header, without its quotes.
std::string parameterOf(const std::string& header, const std::string& name)
{
    const std::string mark = name + '=';
    std::size_t at = header.find(' ' + mark);
    if (at == std::string::npos)
        return "(missing)";
    at += mark.size() + 1;
    const bool quoted = header[at] == '"';
    const std::size_t begin = quoted ? at + 1 : at;
    return header.substr(begin, header.find(quoted ? '"' : ',', begin) - begin);
}

std::string answer(std::string_view challenge, const Credentials& credentials, std::string_view method,
                   std::string_view uri, const CnonceGenerator& cnonce)
{
    AuthState state;
    EXPECT_EQ(state.update(challenges(challenge), {}, 0), AuthVerdict::retry);
    return state.authorization(credentials, method, uri, cnonce);
}
}  // namespace

TEST(Auth, agreesWithTheExamplesOfRfc7616)
{
    const struct {
        const char* algorithm;
        const char* response;
    } cases[] = {
        {"MD5", "8ca523f5e9506fed4657c9700eebdbec"},
        {"SHA-256", "753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1"},
    };
    for (const auto& c : cases) {
        const std::string header =
            answer(rfc7616Challenge(c.algorithm), mufasa, "GET", "/dir/index.html", always(rfc7616Cnonce));
        EXPECT_EQ(header, "Digest username=\"Mufasa\", realm=\"http-auth@example.org\", nonce=\"" + rfc7616Nonce +
                              "\", uri=\"/dir/index.html\", response=\"" + c.response + "\", algorithm=" + c.algorithm +
                              ", opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\", qop=auth, nc=00000001, "
                              "cnonce=\"" +
                              rfc7616Cnonce + '"');
    }
}

TEST(Auth, agreesWithTheExampleOfRfc2617)
{
    const std::string header =
        answer("Digest realm=\"testrealm@host.com\", qop=\"auth,auth-int\", "
               "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"",
               {"Mufasa", "Circle Of Life"}, "GET", "/dir/index.html", always("0a4f113b"));
    EXPECT_EQ(parameterOf(header, "response"), "6629fae49393a05397450978507c4ef1");
    EXPECT_EQ(parameterOf(header, "algorithm"), "(missing)");
}

TEST(Auth, answersWithoutQopInTheFormOfRfc2069)
{
    const std::string header =
        answer("Digest realm=\"testrealm@host.com\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\"",
               {"Mufasa", "CircleOfLife"}, "GET", "/dir/index.html", always("unused"));
    EXPECT_EQ(parameterOf(header, "response"), "1949323746fe6a43ef61f9606e7febea");
    EXPECT_EQ(parameterOf(header, "cnonce"), "(missing)");
    EXPECT_EQ(parameterOf(header, "qop"), "(missing)");
    EXPECT_EQ(parameterOf(header, "opaque"), "(missing)");
}

TEST(Auth, answersTheSessionAlgorithms)
{
    const struct {
        const char* algorithm;
        const char* response;
    } cases[] = {
        {"MD5-sess", "e783283f46242139c486a698fec7211d"},
        {"SHA-256-sess", "2fd51b3a77ad75bad6afad6003e818d767133c46d9e2749e7f5232ae1ea3efd7"},
    };
    for (const auto& c : cases) {
        const std::string header =
            answer(rfc7616Challenge(c.algorithm), mufasa, "GET", "/dir/index.html", always(rfc7616Cnonce));
        EXPECT_EQ(parameterOf(header, "response"), c.response) << c.algorithm;
    }
}

TEST(Auth, countsTheNonceUpAndKeepsTheClientNonceOfAChallenge)
{
    AuthState state;
    int drawn = 0;
    const CnonceGenerator counting = [&] { return "c" + std::to_string(++drawn); };
    ASSERT_EQ(state.update(challenges(rfc7616Challenge("MD5-sess")), {}, 0), AuthVerdict::retry);
    for (const char* count : {"00000001", "00000002", "00000003"}) {
        const std::string header = state.authorization(mufasa, "GET", "/", counting);
        EXPECT_EQ(parameterOf(header, "nc"), count);
        EXPECT_EQ(parameterOf(header, "cnonce"), "c1");
    }
    // The same challenge again goes on counting, another nonce begins anew.
    state.update(challenges(rfc7616Challenge("MD5-sess")), {}, 0);
    EXPECT_EQ(parameterOf(state.authorization(mufasa, "GET", "/", counting), "nc"), "00000004");
    state.update(challenges("Digest realm=\"r\", nonce=\"n2\", qop=\"auth\""), {}, 0);
    const std::string header = state.authorization(mufasa, "GET", "/", counting);
    EXPECT_EQ(parameterOf(header, "nc"), "00000001");
    EXPECT_EQ(parameterOf(header, "cnonce"), "c2");
}

TEST(Auth, secondRequestUsesTheSecondCount)
{
    AuthState state;
    state.update(challenges(rfc7616Challenge("MD5")), {}, 0);
    state.authorization(mufasa, "GET", "/dir/index.html", always(rfc7616Cnonce));
    const std::string second = state.authorization(mufasa, "GET", "/dir/index.html", always(rfc7616Cnonce));
    EXPECT_EQ(parameterOf(second, "response"), "4b5d595ecf2db9df612ea5b45cd97101");
}

TEST(Auth, answersBasic)
{
    EXPECT_EQ(answer("Basic realm=\"x\"", {"Aladdin", "open sesame"}, "GET", "/", {}),
              "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
}

TEST(Auth, readsTheChallengeOfTheCameras)
{
    const Bytes bytes = testing::dataBytes("unauthorized_with_quoted_capital_stale.rtsp");
    InterleavedParser parser;
    ByteView input(bytes);
    const auto result = parser.next(input);
    const RtspResponse& response = *std::get<ReceivedMessage>(result).response();
    EXPECT_EQ(response.status, 401U);
    const auto found = parseChallenges(response.headers.all("WWW-Authenticate"));
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].method, AuthMethod::md5);
    EXPECT_EQ(found[0].realm, "48ea63000102");
    EXPECT_FALSE(found[0].stale);
    EXPECT_FALSE(found[0].qopAuth);

    AuthState state;
    state.update(found, {}, 0);
    const std::string header =
        state.authorization({"admin", "pa:ss"}, "DESCRIBE", "rtsp://192.0.2.1:554/media/video1", {});
    EXPECT_EQ(header, "Digest username=\"admin\", realm=\"48ea63000102\", nonce=\"d6b1f2a4c0\", "
                      "uri=\"rtsp://192.0.2.1:554/media/video1\", response=\"da7776f0503e084bb6820ee903e0d318\"");
}

TEST(Auth, readsChallengesInAnyDress)
{
    const struct {
        const char* header;
        AuthMethod method;
        const char* realm;
        const char* nonce;
        bool stale;
    } cases[] = {
        {"Digest realm=\"r\", nonce=\"n\", algorithm=\"MD5\", stale=\"FALSE\"", AuthMethod::md5, "r", "n", false},
        {"DIGEST REALM=\"r\",NONCE=\"n\",ALGORITHM=md5,STALE=TRUE", AuthMethod::md5, "r", "n", true},
        {"digest realm=r,nonce=n,algorithm=\"sha-256\",stale=\"true\"", AuthMethod::sha256, "r", "n", true},
        {"Digest  realm = \"r\" ,\tnonce = \"n\" , qop = auth", AuthMethod::md5, "r", "n", false},
        {"Digest realm=\"a, b=\\\"c\\\"\", nonce=\"n==\"", AuthMethod::md5, "a, b=\\\"c\\\"", "n==", false},
        {"Digest realm=\"r\", nonce=\"n\", algorithm=SHA-512-256", AuthMethod::unsupported, "r", "n", false},
        {"Digest realm=\"r\", nonce=\"n\", qop=\"auth-int\"", AuthMethod::unsupported, "r", "n", false},
        {"Digest realm=\"r\", nonce=\"n\", qop=\"\"", AuthMethod::md5, "r", "n", false},
        {"Digest realm=\"r\"", AuthMethod::unsupported, "r", "", false},
        {"Digest realm=\"r\", nonce=\"n", AuthMethod::md5, "r", "n", false},
        {"Digest realm=\"r\", nonce=\"n\\", AuthMethod::md5, "r", "n\\", false},
        {"BASIC realm=\"r\"", AuthMethod::basic, "r", "", false},
        {"basic", AuthMethod::basic, "", "", false},
        {"Negotiate YII==", AuthMethod::unsupported, "", "", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.header);
        const auto found = challenges(c.header);
        ASSERT_EQ(found.size(), 1U);
        EXPECT_EQ(found[0].method, c.method);
        EXPECT_EQ(found[0].realm, c.realm);
        EXPECT_EQ(found[0].nonce, c.nonce);
        EXPECT_EQ(found[0].stale, c.stale);
    }
    EXPECT_TRUE(challenges("").empty());
    EXPECT_TRUE(challenges(" , ,").empty());
}

TEST(Auth, choosesTheStrongestOfAll)
{
    const struct {
        std::vector<std::string_view> headers;
        AuthMethod strongest;
    } cases[] = {
        {{"Basic realm=\"b\", Digest realm=\"d\", nonce=\"n\""}, AuthMethod::md5},
        {{"Digest realm=\"d\", nonce=\"n\", Basic realm=\"b\""}, AuthMethod::md5},
        {{"Basic realm=\"b\"", "Digest realm=\"d\", nonce=\"n\"", "Digest realm=\"d\", nonce=\"n\", algorithm=SHA-256"},
         AuthMethod::sha256},
        {{"Digest nonce=\"n\", algorithm=MD5, Digest nonce=\"n\", algorithm=MD5-sess"}, AuthMethod::md5Session},
        {{"Digest nonce=\"n\", algorithm=SHA-256-sess, Digest nonce=\"n\", algorithm=MD5-sess"},
         AuthMethod::sha256Session},
        {{"Digest nonce=\"n\", algorithm=SHA-512-256, Basic realm=\"b\""}, AuthMethod::basic},
    };
    for (const auto& c : cases) {
        const auto found = parseChallenges(c.headers);
        const AuthChallenge* strongest = strongestChallenge(found);
        ASSERT_NE(strongest, nullptr);
        EXPECT_EQ(strongest->method, c.strongest) << c.headers[0];
    }
    EXPECT_EQ(strongestChallenge(challenges("Bearer x, Digest realm=\"no nonce\"")), nullptr);
    EXPECT_EQ(strongestChallenge({}), nullptr);
}

TEST(Auth, judgesWhetherARetryMakesSense)
{
    const std::string first = "Digest realm=\"r\", nonce=\"n1\", qop=\"auth\"";
    const std::string second = "Digest realm=\"r\", nonce=\"n2\", qop=\"auth\"";
    AuthState state;
    ASSERT_EQ(state.update(challenges(first), {}, 0), AuthVerdict::retry);
    const std::string sent = state.authorization(mufasa, "GET", "/", always("c"));

    // The answer to this very request's challenge was refused.
    EXPECT_EQ(AuthState(state).update(challenges(first), sent, 1), AuthVerdict::wrongCredentials);
    EXPECT_EQ(AuthState(state).update(challenges(second), sent, 1), AuthVerdict::wrongCredentials);
    // Unless the nonce had grown too old in between; but not for ever.
    EXPECT_EQ(AuthState(state).update(challenges(second + ", stale=\"TRUE\""), sent, 1), AuthVerdict::retry);
    EXPECT_EQ(AuthState(state).update(challenges(second + ", stale=true"), sent, 2), AuthVerdict::wrongCredentials);
    // A remembered nonce was refused at the first sending.
    EXPECT_EQ(AuthState(state).update(challenges(second), sent, 0), AuthVerdict::retry);
    EXPECT_EQ(AuthState(state).update(challenges(first + ", stale=true"), sent, 0), AuthVerdict::retry);
    EXPECT_EQ(AuthState(state).update(challenges(first), sent, 0), AuthVerdict::wrongCredentials);
    // Nothing to answer.
    EXPECT_EQ(AuthState(state).update(challenges("Negotiate"), sent, 0), AuthVerdict::unsupported);
    EXPECT_EQ(AuthState(state).update({}, {}, 0), AuthVerdict::unsupported);
}

TEST(Auth, aRefusedBasicIsFinalUnlessDigestIsOfferedNow)
{
    AuthState state;
    ASSERT_EQ(state.update(challenges("Basic realm=\"r\""), {}, 0), AuthVerdict::retry);
    const std::string sent = state.authorization(mufasa, "GET", "/", {});
    EXPECT_EQ(AuthState(state).update(challenges("Basic realm=\"r\""), sent, 0), AuthVerdict::wrongCredentials);
    EXPECT_EQ(AuthState(state).update(challenges("Digest realm=\"r\", nonce=\"n\""), sent, 0), AuthVerdict::retry);
}

TEST(Auth, hashesTheUserNameWhenAsked)
{
    const std::string header = answer(rfc7616Challenge("SHA-256") + ", userhash=true", mufasa, "GET", "/", always("c"));
    EXPECT_EQ(parameterOf(" " + header, "username"),
              "a947aad205e80e429958a387394944c6b496301e79f89d35a4cc23b6ee12b5b6");
    EXPECT_EQ(parameterOf(header, "userhash"), "true");
}

TEST(Auth, showsThePasswordInNoDigestHeader)
{
    for (const char* algorithm : {"MD5", "MD5-sess", "SHA-256", "SHA-256-sess"}) {
        const std::string header = answer(rfc7616Challenge(algorithm), mufasa, "GET", "/", always("c"));
        EXPECT_EQ(header.find(mufasa.password), std::string::npos);
        EXPECT_EQ(header.find(encodeBase64(asBytes(mufasa.password))), std::string::npos);
    }
}

TEST(Auth, writesQuotesAndControlCharactersSafely)
{
    const std::string header =
        answer("Digest realm=\"a \\\"b\\\"\", nonce=\"n\"", {"us\"er\\\r\nX: y", "p"}, "GET", "/", {});
    EXPECT_TRUE(header.starts_with("Digest username=\"us\\\"er\\\\X: y\", realm=\"a \\\"b\\\"\", nonce=\"n\""));
    EXPECT_EQ(header.find('\n'), std::string::npos);
}

TEST(Auth, hasNoAuthorizationBeforeAChallenge)
{
    AuthState state;
    EXPECT_FALSE(state.known());
    EXPECT_EQ(state.authorization(mufasa, "GET", "/", {}), "");
}

TEST(Auth, survivesHostileHeaders)
{
    std::string flood = "Digest ";
    for (int i = 0; i < 5000; ++i)
        flood += "a=\"b\", Digest nonce=\"x\", ";
    EXPECT_LE(challenges(flood).size(), 16U);

    std::mt19937 generator(7616);
    const std::string_view pieces[] = {"Digest", "Basic", " ",   ",",    "=",  "\"", "\\",
                                       "nonce",  "realm", "qop", "auth", "\t", "x"};
    for (int round = 0; round < 5000; ++round) {
        std::string header;
        for (int i = 0; i < 30; ++i)
            header += pieces[generator() % std::size(pieces)];
        AuthState state;
        const AuthVerdict verdict = state.update(challenges(header), {}, 0);
        const std::string written = state.authorization(mufasa, "GET", "/", always("c"));
        EXPECT_EQ(verdict == AuthVerdict::retry, !written.empty());
    }
}
}  // namespace Tavro8::wire
