#include "wire/Auth.h"

#include "wire/Base64.h"
#include "wire/Text.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <memory>

namespace Tavro8::wire
{
namespace
{
constexpr std::size_t maxChallenges = 16;
constexpr unsigned maxAttempts = 3;  ///< sendings of one request, however often the server says "stale"

struct Parameter {
    std::string_view name;
    std::string_view value;
};

/// Takes WWW-Authenticate text apart: schemes and their parameters come from one list of commas, and only
/// the '=' tells a parameter from the next scheme (RFC 7235 section 4.1).
class ChallengeScanner {
public:
    explicit ChallengeScanner(std::string_view header) : rest(header) {}

    std::vector<AuthChallenge> scan();

private:
    std::string_view takeToken();
    Parameter takeValue(std::string_view name);
    void skip(std::string_view characters);

    std::string_view rest;
};

AuthMethod digestMethod(std::string_view algorithm)
{
    if (algorithm.empty() || equalsNoCase(algorithm, "MD5"))
        return AuthMethod::md5;
    if (equalsNoCase(algorithm, "MD5-sess"))
        return AuthMethod::md5Session;
    if (equalsNoCase(algorithm, "SHA-256"))
        return AuthMethod::sha256;
    if (equalsNoCase(algorithm, "SHA-256-sess"))
        return AuthMethod::sha256Session;
    return AuthMethod::unsupported;
}

/// Whether "auth" is in a list such as `auth,auth-int`.
bool offersAuth(std::string_view list)
{
    while (!list.empty()) {
        if (equalsNoCase(trim(cutAt(list, ',')), "auth"))
            return true;
    }
    return false;
}

struct OpenChallenge {
    AuthChallenge challenge;
    bool digest = false;
    bool qopStated = false;

    void apply(const Parameter& parameter);
    AuthChallenge finish();
};

void OpenChallenge::apply(const Parameter& parameter)
{
    if (equalsNoCase(parameter.name, "realm")) {
        challenge.realm = parameter.value;
    } else if (equalsNoCase(parameter.name, "nonce")) {
        challenge.nonce = parameter.value;
    } else if (equalsNoCase(parameter.name, "opaque")) {
        challenge.opaque = parameter.value;
        challenge.opaqueStated = true;
    } else if (equalsNoCase(parameter.name, "algorithm")) {
        challenge.algorithm = trim(parameter.value);
    } else if (equalsNoCase(parameter.name, "stale")) {
        challenge.stale = equalsNoCase(trim(parameter.value), "true");
    } else if (equalsNoCase(parameter.name, "userhash")) {
        challenge.userHash = equalsNoCase(trim(parameter.value), "true");
    } else if (equalsNoCase(parameter.name, "qop")) {
        qopStated = !trim(parameter.value).empty();
        challenge.qopAuth = offersAuth(parameter.value);
    }
}

AuthChallenge OpenChallenge::finish()
{
    if (digest)
        challenge.method = digestMethod(challenge.algorithm);
    // A server that insists on "auth-int" wants the body hashed, which no device of the field does.
    const bool unanswerable = qopStated && !challenge.qopAuth;
    if (digest && (challenge.nonce.empty() || unanswerable))
        challenge.method = AuthMethod::unsupported;
    return std::move(challenge);
}

std::vector<AuthChallenge> ChallengeScanner::scan()
{
    std::vector<AuthChallenge> challenges;
    std::optional<OpenChallenge> open;
    const auto close = [&] {
        if (open && challenges.size() < maxChallenges)
            challenges.push_back(open->finish());
    };
    for (skip(", \t"); !rest.empty(); skip(", \t")) {
        const std::string_view token = takeToken();
        skip(" \t");
        if (!token.empty() && rest.starts_with('=')) {
            const Parameter parameter = takeValue(token);
            if (open)
                open->apply(parameter);
        } else if (!token.empty()) {
            close();
            open.emplace();
            open->digest = equalsNoCase(token, "Digest");
            if (equalsNoCase(token, "Basic"))
                open->challenge.method = AuthMethod::basic;
        } else {
            rest.remove_prefix(1);  // a character that fits nowhere
        }
    }
    close();
    return challenges;
}

std::string_view ChallengeScanner::takeToken()
{
    const std::size_t end = std::min(rest.find_first_of(" \t,=\""), rest.size());
    const std::string_view token = rest.substr(0, end);
    rest.remove_prefix(end);
    return token;
}

Parameter ChallengeScanner::takeValue(std::string_view name)
{
    rest.remove_prefix(1);  // '='
    skip(" \t");
    if (!rest.starts_with('"')) {
        const std::size_t end = std::min(rest.find_first_of(", \t"), rest.size());
        const std::string_view value = rest.substr(0, end);
        rest.remove_prefix(end);
        return {name, value};
    }
    std::size_t end = 1;
    while (end < rest.size() && rest[end] != '"')
        end += rest[end] == '\\' ? 2U : 1U;
    end = std::min(end, rest.size());
    // Backslashes stay: the digest takes the text between the quotes as it stands (RFC 7616 section 3.3).
    const std::string_view value = rest.substr(1, end - 1);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return {name, value};
}

void ChallengeScanner::skip(std::string_view characters)
{
    rest.remove_prefix(std::min(rest.find_first_not_of(characters), rest.size()));
}

bool usesSha256(AuthMethod method)
{
    return method == AuthMethod::sha256 || method == AuthMethod::sha256Session;
}

bool isSession(AuthMethod method)
{
    return method == AuthMethod::md5Session || method == AuthMethod::sha256Session;
}

/// Lower-case hexadecimal hash of the parts with colons between.
std::string hashOf(AuthMethod method, std::initializer_list<std::string_view> parts)
{
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    const EVP_MD* algorithm = usesSha256(method) ? EVP_sha256() : EVP_md5();
    std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
    unsigned hashBytes = 0;
    bool done = context != nullptr && EVP_DigestInit_ex(context.get(), algorithm, nullptr) == 1;
    std::string_view separator;
    for (const std::string_view part : parts) {
        done = done && EVP_DigestUpdate(context.get(), separator.data(), separator.size()) == 1 &&
               EVP_DigestUpdate(context.get(), part.data(), part.size()) == 1;
        separator = ":";
    }
    done = done && EVP_DigestFinal_ex(context.get(), hash.data(), &hashBytes) == 1;
    // A library that is locked to approved algorithms may refuse MD5; the empty hash is then refused by the server.
    return done ? encodeHex({hash.data(), hashBytes}) : std::string{};
}

void appendParameter(std::string& header, std::string_view name, std::string_view rawValue)
{
    header += ", ";
    header += name;
    header += "=\"";
    for (const char c : rawValue) {
        if (!isControl(c))
            header += c;
    }
    header += '"';
}

/// The text of a quoted string. Control characters have no place there and could end the header.
std::string escapeQuotes(std::string_view text)
{
    std::string escaped;
    for (const char c : text) {
        if (c == '"' || c == '\\')
            escaped += '\\';
        if (!isControl(c))
            escaped += c;
    }
    return escaped;
}

/// Eight hexadecimal digits.
std::string nonceCountText(std::uint32_t count)
{
    std::string digits;
    appendNumber(digits, count, 16);
    return std::string(8 - digits.size(), '0') + digits;
}

/// The nonce that a Digest header of ours carries, empty for other headers.
std::string_view nonceIn(std::string_view authorization)
{
    constexpr std::string_view mark = ", nonce=\"";
    const std::size_t at = authorization.find(mark);
    if (!startsWithNoCase(authorization, "Digest ") || at == std::string_view::npos)
        return {};
    const std::string_view value = authorization.substr(at + mark.size());
    return value.substr(0, value.find('"'));
}
}  // namespace

std::vector<AuthChallenge> parseChallenges(const std::vector<std::string_view>& headerValues)
{
    std::vector<AuthChallenge> challenges;
    for (const std::string_view header : headerValues) {
        for (AuthChallenge& challenge : ChallengeScanner(header).scan()) {
            if (challenges.size() < maxChallenges)
                challenges.push_back(std::move(challenge));
        }
    }
    return challenges;
}

const AuthChallenge* strongestChallenge(const std::vector<AuthChallenge>& challenges)
{
    const auto strongest =
        std::max_element(challenges.begin(), challenges.end(),
                         [](const AuthChallenge& a, const AuthChallenge& b) { return a.method < b.method; });
    return strongest == challenges.end() || strongest->method == AuthMethod::unsupported ? nullptr : &*strongest;
}

AuthVerdict AuthState::update(const std::vector<AuthChallenge>& challenges, std::string_view refused, unsigned attempt)
{
    const AuthChallenge* offered = strongestChallenge(challenges);
    if (offered == nullptr)
        return AuthVerdict::unsupported;

    const bool digest = offered->method != AuthMethod::basic;
    const bool refusedBasic = startsWithNoCase(refused, "Basic ");
    const bool sameNonce = digest && nonceIn(refused) == offered->nonce;
    if (!challenge || challenge->nonce != offered->nonce || challenge->method != offered->method) {
        nonceCount = 0;
        clientNonce.clear();
    }
    challenge = *offered;

    if (attempt + 1 >= maxAttempts)
        return AuthVerdict::wrongCredentials;
    if (refused.empty() || (digest && offered->stale) || (digest && refusedBasic))
        return AuthVerdict::retry;
    const bool remembered = attempt == 0;
    return remembered && digest && !sameNonce ? AuthVerdict::retry : AuthVerdict::wrongCredentials;
}

std::string AuthState::authorization(const Credentials& credentials, std::string_view method, std::string_view uri,
                                     const CnonceGenerator& cnonce)
{
    if (!challenge)
        return {};
    if (challenge->method == AuthMethod::basic)
        return "Basic " + encodeBase64(asBytes(credentials.user + ':' + credentials.password));
    return digest(credentials, method, uri, cnonce);
}

std::string AuthState::digest(const Credentials& credentials, std::string_view method, std::string_view uri,
                              const CnonceGenerator& cnonce)
{
    const AuthChallenge& c = *challenge;
    const bool session = isSession(c.method);
    if (clientNonce.empty() && (c.qopAuth || session) && cnonce)
        clientNonce = cnonce();
    const std::string count = nonceCountText(++nonceCount);

    std::string secret = hashOf(c.method, {credentials.user, c.realm, credentials.password});
    if (session)
        secret = hashOf(c.method, {secret, c.nonce, clientNonce});
    const std::string request = hashOf(c.method, {method, uri});
    const std::string response = c.qopAuth ? hashOf(c.method, {secret, c.nonce, count, clientNonce, "auth", request})
                                           : hashOf(c.method, {secret, c.nonce, request});

    const std::string user =
        c.userHash ? hashOf(c.method, {credentials.user, c.realm}) : escapeQuotes(credentials.user);
    std::string header = "Digest username=\"" + user + '"';
    appendParameter(header, "realm", c.realm);
    appendParameter(header, "nonce", c.nonce);
    appendParameter(header, "uri", uri);
    appendParameter(header, "response", response);
    // Echoed only when stated: firmware of the oldest form does not know the parameter.
    if (!c.algorithm.empty())
        header += ", algorithm=" + c.algorithm;
    if (c.opaqueStated)
        appendParameter(header, "opaque", c.opaque);
    if (c.qopAuth)
        header += ", qop=auth, nc=" + count;
    if (c.qopAuth || session)
        appendParameter(header, "cnonce", clientNonce);
    if (c.userHash)
        header += ", userhash=true";
    return header;
}
}  // namespace Tavro8::wire
