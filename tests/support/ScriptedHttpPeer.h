#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kelvo::test
{
/// An HTTP device made of fixed answers, on a free port of the loopback address. One connection for each request.
class ScriptedHttpPeer {
public:
    ScriptedHttpPeer();
    ~ScriptedHttpPeer();
    ScriptedHttpPeer(const ScriptedHttpPeer&) = delete;
    ScriptedHttpPeer& operator=(const ScriptedHttpPeer&) = delete;

    std::uint16_t port() const noexcept;
    std::string address() const;  ///< "127.0.0.1:PORT"

    /// What a request of `path` is answered with from now on, whatever its method.
    void answer(const std::string& path, unsigned status, const std::string& body);
    /// The same in raw bytes, for what is not HTTP.
    void answerRaw(const std::string& path, const std::string& bytes);
    /// Requests for `path` are read and never answered.
    void staySilent(const std::string& path);

    /// "GET /path" of each request so far.
    std::vector<std::string> requests() const;
    /// The body of each of them, as it came.
    std::vector<std::string> bodies() const;
    bool waitForRequests(std::size_t count) const;

private:
    struct State;
    std::unique_ptr<State> state;
};
}  // namespace kelvo::test
