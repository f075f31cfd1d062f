#include "FuzzTarget.h"

#include "wire/Auth.h"
#include "wire/Text.h"

#include <algorithm>
#include <optional>
#include <string>

namespace Tavro8::fuzz
{
namespace
{
using wire::AuthChallenge;
using wire::AuthMethod;
using wire::AuthVerdict;

const wire::Credentials credentials{"ad\"min", "xyzzy-plugh"};

/// The eight characters of an unquoted parameter such as nc=00000001, the last one of that name.
std::string_view unquotedValue(std::string_view header, std::string_view name)
{
    const std::size_t at = header.rfind(name);
    return at == std::string_view::npos ? std::string_view{} : header.substr(at + name.size(), 8);
}

void checkAuthorization(const std::string& header, AuthMethod method)
{
    require(!header.empty(), "a known challenge is answered");
    require(std::ranges::none_of(header, wire::isControl), "nothing in a challenge can end the header");
    require(header.starts_with(method == AuthMethod::basic ? "Basic " : "Digest "), "the scheme is the one asked for");
    require(header.find(credentials.password) == std::string::npos, "the password is never shown");
}

void checkChallenges(const std::vector<AuthChallenge>& challenges)
{
    require(challenges.size() <= 16, "the challenges are bounded");
    const AuthChallenge* strongest = wire::strongestChallenge(challenges);
    for (const AuthChallenge& challenge : challenges) {
        require(challenge.method <= AuthMethod::basic || !challenge.nonce.empty(), "a digest has a nonce");
        require(challenge.method == AuthMethod::unsupported ||
                    (strongest != nullptr && challenge.method <= strongest->method),
                "the strongest challenge is chosen");
    }
}

/// Sends one request as long as the state wants it sent again; what the server answers comes from `answers`, the
/// last one over and over.
void sendRequest(wire::AuthState& state, const std::vector<std::vector<AuthChallenge>>& answers)
{
    const wire::CnonceGenerator cnonce = [] { return std::string("c0ffee"); };
    std::string refused;
    std::optional<std::string> count;
    for (unsigned attempt = 0;; ++attempt) {
        require(attempt < 8, "a request is not sent for ever");
        const auto& challenges = answers[std::min<std::size_t>(attempt, answers.size() - 1)];
        const AuthVerdict verdict = state.update(challenges, refused, attempt);
        if (verdict == AuthVerdict::unsupported)
            require(wire::strongestChallenge(challenges) == nullptr, "only what cannot be answered is unsupported");
        if (verdict != AuthVerdict::retry)
            return;
        const std::string first = state.authorization(credentials, "DESCRIBE", "rtsp://192.0.2.1/video", cnonce);
        refused = state.authorization(credentials, "DESCRIBE", "rtsp://192.0.2.1/video", cnonce);
        checkAuthorization(first, state.method());
        checkAuthorization(refused, state.method());
        if (const AuthChallenge* asked = wire::strongestChallenge(challenges);
            asked->method > AuthMethod::basic && asked->qopAuth)
            require(unquotedValue(first, ", nc=") < unquotedValue(refused, ", nc="), "no nonce count is used twice");
    }
}

/// `WWW-Authenticate` values, one a line; an empty line ends those of one 401, and the next 401 follows.
///
/// Promises: the number of challenges is bounded and the strongest is taken; whatever a server asks for, a request
/// is repeated a few times at most; no header shows the password, holds a line end, or repeats a nonce count.
void feed(ByteView input)
{
    const Bytes bytes(input.begin(), input.end());
    std::string_view lines = textOf(bytes);
    if (gives(bytes, credentials.password))
        return;  // it would come back in what the client quotes
    std::vector<std::vector<AuthChallenge>> answers;
    while (!lines.empty() || answers.empty()) {
        std::vector<std::string_view> values;
        for (std::string_view line = wire::cutAt(lines, '\n'); !line.empty(); line = wire::cutAt(lines, '\n'))
            values.push_back(line);
        answers.push_back(wire::parseChallenges(values));
        checkChallenges(answers.back());
    }
    wire::AuthState state;
    sendRequest(state, answers);
    sendRequest(state, answers);
}

const Target auth("auth", feed);
}  // namespace
}  // namespace Tavro8::fuzz
