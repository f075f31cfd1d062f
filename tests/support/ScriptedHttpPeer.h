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
/// An HTTP device made of fixed answers, on a free port of a loopback address. One connection for each request.
class ScriptedHttpPeer {
public:
    explicit ScriptedHttpPeer(const std::string& host = "127.0.0.1");
    ~ScriptedHttpPeer();
    ScriptedHttpPeer(const ScriptedHttpPeer&) = delete;
    ScriptedHttpPeer& operator=(const ScriptedHttpPeer&) = delete;

    std::uint16_t port() const noexcept;
    std::string address() const;  ///< "127.0.0.1:PORT"

    // `target` is "/path", whatever the method, or "METHOD /path", which is stronger.

    /// What a request is answered with from now on.
    void answer(const std::string& target, unsigned status, const std::string& body);
    /// What the next request is answered with, before the answer for all; several wait for several requests.
    void answerOnce(const std::string& target, unsigned status, const std::string& body);
    /// As `answer`, in raw bytes, for what is not HTTP.
    void answerRaw(const std::string& target, const std::string& bytes);
    /// Requests are read and not answered.
    void staySilent(const std::string& target);
    /// Answers those that wait for an answer at this moment.
    void breakSilence(unsigned status, const std::string& body);
    /// The same in raw bytes.
    void breakSilenceRaw(const std::string& bytes);

    /// From now on a request without authorization is answered with a digest challenge (MD5, qop "auth"). What an
    /// authorization says is not checked.
    void requireAuthorization();

    /// "GET /path" of each request so far.
    std::vector<std::string> requests() const;
    /// The body of each of them, as it came.
    std::vector<std::string> bodies() const;
    /// All bytes of each of them.
    std::vector<std::string> wholeRequests() const;
    bool waitForRequests(std::size_t count) const;
    /// Waits for so many requests "METHOD /path".
    bool waitForRequest(const std::string& request, std::size_t times = 1) const;

private:
    struct State;
    std::unique_ptr<State> state;
};
}  // namespace kelvo::test
