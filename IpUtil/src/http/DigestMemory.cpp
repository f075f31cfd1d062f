#include "http/DigestMemory.h"

#include "wire/Text.h"

#include <algorithm>
#include <map>
#include <random>
#include <tuple>

namespace Tavro8::http
{
namespace
{
using MemoryKey = std::tuple<std::string, std::uint16_t, bool, std::string, std::string>;

/// The memories of the process. Entries are weak: the connection descriptions own them.
class Registry {
public:
    std::shared_ptr<DigestMemory> find(MemoryKey key)
    {
        const std::lock_guard lock(mutex);
        auto& entry = entries[std::move(key)];
        std::shared_ptr<DigestMemory> memory = entry.lock();
        if (memory == nullptr) {
            memory = std::make_shared<DigestMemory>();
            entry = memory;
            prune();
        }
        return memory;
    }

private:
    /// Forgets what nobody uses any more, each time the number of entries has doubled.
    void prune()
    {
        if (entries.size() < pruneAt)
            return;
        std::erase_if(entries, [](const auto& entry) { return entry.second.expired(); });
        pruneAt = std::max<std::size_t>(64, 2 * entries.size());
    }

    std::mutex mutex;  // guards all below
    std::map<MemoryKey, std::weak_ptr<DigestMemory>> entries;
    std::size_t pruneAt = 64;
};

std::string makeClientNonce()
{
    std::random_device source;
    std::string text;
    while (text.size() < 32)
        wire::appendNumber(text, std::uint32_t{source()}, 16);
    text.resize(32);
    return text;
}
}  // namespace

std::shared_ptr<DigestMemory> DigestMemory::sharedFor(const asio::ConnectionInfo& info)
{
    static Registry registry;
    return registry.find({info.host, info.port, info.secure, info.user, info.password});
}

std::string DigestMemory::authorization(const wire::Credentials& credentials, std::string_view method,
                                        std::string_view target)
{
    const std::lock_guard lock(mutex);
    return state.authorization(credentials, method, target, makeClientNonce);
}

DigestMemory::Answer DigestMemory::answer(const std::vector<std::string_view>& challengeValues,
                                          std::string_view refused, unsigned attempt,
                                          const wire::Credentials& credentials, std::string_view method,
                                          std::string_view target)
{
    const std::vector<wire::AuthChallenge> challenges = wire::parseChallenges(challengeValues);
    const std::lock_guard lock(mutex);
    Answer result;
    result.verdict = state.update(challenges, refused, attempt);
    if (result.verdict == wire::AuthVerdict::retry)
        result.authorization = state.authorization(credentials, method, target, makeClientNonce);
    return result;
}
}  // namespace Tavro8::http
