#pragma once

#include "wire/Auth.h"

#include <IpUtil/ConnectionInfo.h>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Tavro8::http
{
/// What is known of one device's authentication, shared by all requests to it, on whichever thread and I/O context
/// they run. Thread-safe: no nonce count is used twice.
class DigestMemory {
public:
    /// The memory of this host, port and credentials; made when nobody holds one.
    static std::shared_ptr<DigestMemory> sharedFor(const asio::ConnectionInfo& info);

    /// The Authorization value of a request that has not been refused; empty while no challenge is known.
    std::string authorization(const wire::Credentials& credentials, std::string_view method, std::string_view target);

    struct Answer {
        wire::AuthVerdict verdict = wire::AuthVerdict::unsupported;
        std::string authorization;  ///< for the next sending, when the verdict is `retry`
    };
    /// Takes in the `WWW-Authenticate` values of a 401 and answers them in one step: some firmware ties a nonce to
    /// the connection on which it gave it out, so that a request must answer its own and not another one's.
    /// `refused` and `attempt` as for `wire::AuthState::update`.
    Answer answer(const std::vector<std::string_view>& challengeValues, std::string_view refused, unsigned attempt,
                  const wire::Credentials& credentials, std::string_view method, std::string_view target);

private:
    std::mutex mutex;  // guards `state`
    wire::AuthState state;
};
}  // namespace Tavro8::http
