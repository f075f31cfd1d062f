#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace simulator
{

/// The parameters of a `Digest` Authorization header, names in lower case, values unquoted.
using DigestFields = std::map<std::string, std::string, std::less<>>;

/// Takes `Digest name=value, name="value"...` apart; nothing when it is not that.
std::optional<DigestFields> parseDigest(std::string_view header);

/// The expected "response" of RFC 2617, 3.2.2.1, for algorithm MD5 and qop "auth" or none.
std::string digestResponse(const DigestFields& fields, std::string_view method, std::string_view user,
                           std::string_view realm, std::string_view password);

/// The server's side of Basic and Digest authentication for LAPI, as strict as a device may be, so that a
/// client's mistake shows. No socket and no clock: the time is passed in. One thread.
class Authenticator {
public:
    using Clock = std::chrono::steady_clock;

    struct Settings {
        std::string user;
        std::string password;
        std::string realm;
        bool digest = true;
        bool basic = false;
        std::chrono::milliseconds nonceLifetime{60'000};
        bool qop = true;  ///< the devices offer it over HTTP, and not over RTSP
    };

    /// Why a request was let in or not; the log names it.
    enum class Verdict {
        accepted,
        missing,     ///< no Authorization header
        wrong,       ///< wrong user, password or response
        malformed,   ///< a header that breaks the rules: another URI, realm, algorithm or qop
        stale,       ///< right password, nonce expired or unknown
        replayed,    ///< right password, nonce count used before
        notOffered,  ///< a scheme that was not offered
    };

    /// `makeNonce` returns a fresh, unpredictable text without quotes.
    Authenticator(Settings settings, std::function<std::string()> makeNonce);

    /// Judges a request by its Authorization header (empty: none). `target` is the request target as received.
    Verdict judge(std::string_view authorization, std::string_view method, std::string_view target,
                  Clock::time_point now);

    /// The values of the WWW-Authenticate headers that go with a refusal; issues a nonce.
    struct Challenge {
        std::optional<std::string> digest;
        std::optional<std::string> basic;
    };
    Challenge challenge(Verdict verdict, Clock::time_point now);

    /// A device that restarts knows none of its nonces any more.
    void forgetNonces();

    std::uint64_t replays() const { return replayCount; }

private:
    struct Nonce {
        Clock::time_point issued;
        std::set<std::uint32_t> usedCounts;  ///< parallel connections may use their counts out of order
    };

    Verdict judgeDigest(const DigestFields& fields, std::string_view method, std::string_view target,
                        Clock::time_point now);
    void forgetOldNonces(Clock::time_point now);

    Settings settings;
    std::function<std::string()> makeNonce;
    std::map<std::string, Nonce, std::less<>> nonces;
    std::uint64_t replayCount = 0;
};

/// The word for the log and the request list.
const char* describe(Authenticator::Verdict verdict);

/// 32 hexadecimal digits from OpenSSL's generator.
std::string randomNonce();

}  // namespace simulator
