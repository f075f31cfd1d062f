#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// HTTP and RTSP authentication: Basic (RFC 7617) and Digest (RFC 7616, 2617 and 2069).
namespace Tavro8::wire
{
struct Credentials {
    std::string user;
    std::string password;

    bool empty() const noexcept { return user.empty() && password.empty(); }
};

/// In order of strength.
enum class AuthMethod : std::uint8_t { unsupported, basic, md5, md5Session, sha256, sha256Session };

/// One challenge of a `WWW-Authenticate` header. Texts are as they stood between the quotes.
struct AuthChallenge {
    AuthMethod method = AuthMethod::unsupported;
    std::string realm;
    std::string nonce;
    std::string opaque;
    std::string algorithm;  ///< as written, empty when not stated
    bool opaqueStated = false;
    bool qopAuth = false;   ///< "auth" is offered; without it the form of RFC 2069 is answered
    bool stale = false;     ///< the nonce was too old, the password was right
    bool userHash = false;  ///< the user name is to be hashed
};

/// Reads all challenges of all `WWW-Authenticate` lines; one line may hold several. Schemes and
/// algorithms that are not known come out as `unsupported`.
std::vector<AuthChallenge> parseChallenges(const std::vector<std::string_view>& headerValues);

/// The strongest challenge that can be answered, null when there is none.
const AuthChallenge* strongestChallenge(const std::vector<AuthChallenge>& challenges);

/// What to do about a request that was answered with 401.
enum class AuthVerdict : std::uint8_t {
    retry,             ///< send it again with a new `authorization`
    wrongCredentials,  ///< user name or password are not right; asking again would lock the account
    unsupported,       ///< no challenge that we can answer
};

/// Gives a client nonce: printable, without quotes, hard to guess, different at each call.
using CnonceGenerator = std::function<std::string()>;

/// The challenge of one server and the count of requests that have answered it.
///
/// A plain value without a lock. Whoever shares one between threads guards every call, so that no nonce
/// count is used twice. The password is passed in for each header and not kept; it appears in no text
/// but the header of the Basic scheme.
class AuthState {
public:
    /// Takes in the challenges of a 401. `refused` is the Authorization value that the request carried
    /// (empty for none). `attempt` counts the sendings of this one request: 0 for the first.
    ///
    /// A request without authorization is worth a retry, and so is one with a remembered nonce when the
    /// server now names another. A request that answered the challenge it had itself received is refused
    /// for its credentials, unless the server says `stale`; even then not for ever.
    AuthVerdict update(const std::vector<AuthChallenge>& challenges, std::string_view refused, unsigned attempt);

    /// The value of the Authorization header for a request, empty when no challenge is known yet. `uri` is
    /// the text of the request line. Counts the nonce up.
    std::string authorization(const Credentials& credentials, std::string_view method, std::string_view uri,
                              const CnonceGenerator& cnonce);

    bool known() const noexcept { return challenge.has_value(); }
    AuthMethod method() const noexcept { return challenge ? challenge->method : AuthMethod::unsupported; }

private:
    std::string digest(const Credentials& credentials, std::string_view method, std::string_view uri,
                       const CnonceGenerator& cnonce);

    std::optional<AuthChallenge> challenge;
    std::uint32_t nonceCount = 0;
    std::string clientNonce;  ///< one for each challenge, since the session algorithms hash the first one
};
}  // namespace Tavro8::wire
