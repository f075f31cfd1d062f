#include "Authentication.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>
#include <vector>

namespace simulator
{
namespace
{

constexpr std::size_t maximumNonces = 1024;

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalIgnoringCase(std::string_view left, std::string_view right)
{
    return std::ranges::equal(left, right, {}, lower, lower);
}

/// Schemes are words in any case, followed by a blank.
std::optional<std::string_view> afterScheme(std::string_view header, std::string_view scheme)
{
    if (header.size() <= scheme.size() || header[scheme.size()] != ' ' ||
        !equalIgnoringCase(header.substr(0, scheme.size()), scheme))
        return std::nullopt;
    return header.substr(scheme.size() + 1);
}

void skip(std::string_view& text, std::string_view characters)
{
    text.remove_prefix(std::min(text.find_first_not_of(characters), text.size()));
}

std::optional<std::string> takeQuoted(std::string_view& text)
{
    std::string value;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '"') {
            text.remove_prefix(i + 1);
            return value;
        }
        if (text[i] == '\\' && i + 1 < text.size())
            ++i;
        value += text[i];
    }
    return std::nullopt;
}

std::string takeToken(std::string_view& text)
{
    const std::string_view token = text.substr(0, std::min(text.find_first_of(" \t,"), text.size()));
    text.remove_prefix(token.size());
    return std::string(token);
}

std::string toHex(const unsigned char* bytes, std::size_t count)
{
    constexpr std::string_view digits = "0123456789abcdef";
    std::string hex;
    for (std::size_t i = 0; i < count; ++i) {
        hex += digits[bytes[i] >> 4];
        hex += digits[bytes[i] & 15];
    }
    return hex;
}

std::string md5Hex(std::initializer_list<std::string_view> parts)
{
    std::string text;
    for (const std::string_view part : parts)
        text.append(text.empty() ? "" : ":").append(part);
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    if (EVP_Digest(text.data(), text.size(), digest.data(), &size, EVP_md5(), nullptr) != 1)
        throw std::runtime_error("OpenSSL cannot compute an MD5 digest");
    return toHex(digest.data(), size);
}

std::string base64(std::string_view text)
{
    std::vector<unsigned char> encoded(4 * ((text.size() + 2) / 3) + 1);
    const int size = EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
    return {encoded.begin(), encoded.begin() + size};
}

bool equalInConstantTime(std::string_view left, std::string_view right)
{
    return left.size() == right.size() && CRYPTO_memcmp(left.data(), right.data(), left.size()) == 0;
}

std::string_view field(const DigestFields& fields, std::string_view name)
{
    const auto found = fields.find(name);
    return found == fields.end() ? std::string_view{} : std::string_view(found->second);
}

/// The nonce count is exactly eight hexadecimal digits (RFC 2617, 3.2.2) and starts at one.
std::optional<std::uint32_t> readNonceCount(std::string_view text)
{
    std::uint32_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count, 16);
    if (text.size() != 8 || error != std::errc{} || end != text.data() + text.size() || count == 0)
        return std::nullopt;
    return count;
}

}  // namespace

std::optional<DigestFields> parseDigest(std::string_view header)
{
    auto rest = afterScheme(header, "Digest");
    if (!rest)
        return std::nullopt;
    DigestFields fields;
    for (skip(*rest, " \t,"); !rest->empty(); skip(*rest, " \t,")) {
        const auto equals = rest->find('=');
        if (equals == rest->npos)
            return std::nullopt;
        std::string name(rest->substr(0, equals));
        std::ranges::transform(name, name.begin(), lower);
        while (!name.empty() && name.back() == ' ')
            name.pop_back();
        rest->remove_prefix(equals + 1);
        skip(*rest, " \t");
        std::optional<std::string> value;
        if (!rest->empty() && rest->front() == '"')
            value = takeQuoted(*rest);
        else
            value = takeToken(*rest);
        if (!value || name.empty() || !fields.emplace(std::move(name), std::move(*value)).second)
            return std::nullopt;
    }
    return fields;
}

std::string digestResponse(const DigestFields& fields, std::string_view method, std::string_view user,
                           std::string_view realm, std::string_view password)
{
    const std::string secret = md5Hex({user, realm, password});
    const std::string request = md5Hex({method, field(fields, "uri")});
    if (!fields.contains("qop"))
        return md5Hex({secret, field(fields, "nonce"), request});
    return md5Hex(
        {secret, field(fields, "nonce"), field(fields, "nc"), field(fields, "cnonce"), field(fields, "qop"), request});
}

Authenticator::Authenticator(Settings settingsToUse, std::function<std::string()> nonceMaker)
    : settings(std::move(settingsToUse)), makeNonce(std::move(nonceMaker))
{}

Authenticator::Verdict Authenticator::judge(std::string_view authorization, std::string_view method,
                                            std::string_view target, Clock::time_point now)
{
    if (!settings.digest && !settings.basic)
        return Verdict::accepted;
    if (authorization.empty())
        return Verdict::missing;
    if (const auto credentials = afterScheme(authorization, "Basic")) {
        if (!settings.basic)
            return Verdict::notOffered;
        const bool right = equalInConstantTime(*credentials, base64(settings.user + ":" + settings.password));
        return right ? Verdict::accepted : Verdict::wrong;
    }
    if (!afterScheme(authorization, "Digest") || !settings.digest)
        return Verdict::notOffered;
    const auto fields = parseDigest(authorization);
    return fields ? judgeDigest(*fields, method, target, now) : Verdict::malformed;
}

Authenticator::Verdict Authenticator::judgeDigest(const DigestFields& fields, std::string_view method,
                                                  std::string_view target, Clock::time_point now)
{
    const auto count = readNonceCount(field(fields, "nc"));
    const std::string_view algorithm = field(fields, "algorithm");
    const bool counted = count && field(fields, "qop") == "auth" && !field(fields, "cnonce").empty();
    if (counted != settings.qop || field(fields, "uri") != target || field(fields, "realm") != settings.realm ||
        !(algorithm.empty() || equalIgnoringCase(algorithm, "MD5")))
        return Verdict::malformed;
    if (field(fields, "username") != settings.user ||
        !equalInConstantTime(field(fields, "response"),
                             digestResponse(fields, method, settings.user, settings.realm, settings.password)))
        return Verdict::wrong;

    forgetOldNonces(now);
    const auto nonce = nonces.find(field(fields, "nonce"));
    if (nonce == nonces.end())
        return Verdict::stale;
    if (count && !nonce->second.usedCounts.insert(*count).second) {
        ++replayCount;
        return Verdict::replayed;
    }
    return Verdict::accepted;
}

Authenticator::Challenge Authenticator::challenge(Verdict verdict, Clock::time_point now)
{
    Challenge challenge;
    if (settings.basic)
        challenge.basic = "Basic realm=\"" + settings.realm + "\"";
    if (!settings.digest)
        return challenge;
    forgetOldNonces(now);
    const std::string nonce = makeNonce();
    nonces.emplace(nonce, Nonce{now, {}});
    // The devices put the algorithm in quotes, which RFC 2617 does not ask for.
    challenge.digest = "Digest realm=\"" + settings.realm + "\", nonce=\"" + nonce + "\", algorithm=\"MD5\"" +
                       (settings.qop ? ", qop=\"auth\"" : "") + (verdict == Verdict::stale ? ", stale=true" : "");
    return challenge;
}

void Authenticator::forgetNonces()
{
    nonces.clear();
}

void Authenticator::forgetOldNonces(Clock::time_point now)
{
    std::erase_if(nonces, [&](const auto& nonce) { return now - nonce.second.issued >= settings.nonceLifetime; });
    while (nonces.size() >= maximumNonces)
        nonces.erase(std::ranges::min_element(nonces, {}, [](const auto& nonce) { return nonce.second.issued; }));
}

const char* describe(Authenticator::Verdict verdict)
{
    switch (verdict) {
    case Authenticator::Verdict::accepted:
        return "accepted";
    case Authenticator::Verdict::missing:
        return "no credentials";
    case Authenticator::Verdict::wrong:
        return "wrong credentials";
    case Authenticator::Verdict::malformed:
        return "malformed credentials";
    case Authenticator::Verdict::stale:
        return "stale nonce";
    case Authenticator::Verdict::replayed:
        return "nonce count used before";
    case Authenticator::Verdict::notOffered:
        return "scheme not offered";
    }
    return "";
}

std::string randomNonce()
{
    std::array<unsigned char, 16> bytes{};
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1)
        throw std::runtime_error("OpenSSL has no random bytes");
    return toHex(bytes.data(), bytes.size());
}

}  // namespace simulator
