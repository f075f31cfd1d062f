#include "http/DigestMemory.h"

#include <gtest/gtest.h>
#include <set>
#include <thread>

namespace
{
using namespace Tavro8;
using namespace Tavro8::http;

const wire::Credentials credentials{"admin", "secret"};

DigestMemory::Answer answer(DigestMemory& memory, std::string_view challenge, std::string_view refused = {})
{
    return memory.answer({challenge}, refused, 0, credentials, "GET", "/");
}

TEST(DigestMemory, hasNothingToSayBeforeItsFirstChallenge)
{
    DigestMemory memory;
    EXPECT_EQ(memory.authorization(credentials, "GET", "/"), "");
}

TEST(DigestMemory, answersWhatItWasAskedAndRemembersIt)
{
    DigestMemory memory;
    const auto first = answer(memory, "Digest realm=\"r\", nonce=\"one\", qop=\"auth\"");
    EXPECT_EQ(first.verdict, wire::AuthVerdict::retry);
    EXPECT_NE(first.authorization.find("nonce=\"one\""), std::string::npos);
    EXPECT_NE(first.authorization.find("nc=00000001"), std::string::npos);
    EXPECT_NE(memory.authorization(credentials, "GET", "/").find("nc=00000002"), std::string::npos);
}

TEST(DigestMemory, drawsAnotherClientNonceForEachChallenge)
{
    std::set<std::string> authorizations;
    for (int i = 0; i < 50; ++i) {
        DigestMemory memory;
        authorizations.insert(answer(memory, "Digest realm=\"r\", nonce=\"one\", qop=\"auth\"").authorization);
    }
    EXPECT_EQ(authorizations.size(), 50U);
}

TEST(DigestMemory, givesNoAnswerToAnUnknownScheme)
{
    DigestMemory memory;
    const auto result = answer(memory, "Negotiate");
    EXPECT_EQ(result.verdict, wire::AuthVerdict::unsupported);
    EXPECT_EQ(result.authorization, "");
}

TEST(DigestMemory, isForgottenByTheRegistryWithItsLastUser)
{
    asio::ConnectionInfo info;
    info.host = "192.0.2.10";
    auto memory = DigestMemory::sharedFor(info);
    const std::weak_ptr<DigestMemory> weak = memory;
    EXPECT_EQ(DigestMemory::sharedFor(info), memory);
    answer(*memory, "Basic realm=\"r\"");
    memory.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(DigestMemory::sharedFor(info)->authorization(credentials, "GET", "/"), "");
}

TEST(DigestMemory, survivesManyDevicesInTheRegistryFromManyThreads)
{
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([] {
            std::vector<std::shared_ptr<DigestMemory>> held;
            for (std::uint16_t port = 1; port < 300; ++port) {
                asio::ConnectionInfo info;
                info.host = "192.0.2.11";
                info.port = port;
                const auto memory = DigestMemory::sharedFor(info);
                EXPECT_EQ(DigestMemory::sharedFor(info), memory);
                if (port % 3 == 0)
                    held.push_back(memory);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}
}  // namespace
