#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace Tavro8::http::test
{
/// Far longer than anything that succeeds takes.
inline constexpr std::chrono::seconds patience{20};

/// Something that threads wait for, counted: each `raise` lets one `await` pass.
class Signal {
public:
    void raise(unsigned times = 1);
    bool await();

private:
    std::mutex mutex;
    std::condition_variable changed;
    unsigned pending = 0;
};

/// The peer's end of one connection; blocking, used by its script only.
class PeerConnection {
public:
    virtual ~PeerConnection() = default;
    /// Head and body (by Content-Length) of the next request; empty when the client has closed.
    std::string readRequest();
    virtual void send(std::string_view bytes) = 0;
    virtual void close() = 0;
    /// Ends the connection with a reset instead of an orderly end.
    virtual void reset() = 0;
    /// Returns when the client has closed.
    void awaitClose();

    std::size_t getIndex() const noexcept { return index; }

protected:
    virtual std::size_t readSome(char* to, std::size_t bytes) = 0;  // 0 at the end

private:
    friend class ScriptedPeer;
    std::size_t index = 0;
    std::string received;
    std::function<void(const std::string&)> onRequest;
};

/// A server that does with each connection what a script says, each on a thread of its own. Listens on a free port
/// of 127.0.0.1.
class ScriptedPeer {
public:
    using Script = std::function<void(PeerConnection&)>;
    enum class Security { plain, tls };

    explicit ScriptedPeer(Script script, Security security = Security::plain);
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    std::uint16_t getPort() const noexcept;
    std::size_t getConnectionCount() const;
    /// All requests so far, in the order in which they were read.
    std::vector<std::string> getRequests() const;
    /// Waits until that many requests have been read.
    bool awaitRequests(std::size_t count) const;
    /// Waits until that many scripts have ended.
    bool awaitScriptEnds(std::size_t count) const;

private:
    struct State;
    std::unique_ptr<State> state;
};

/// A 200 with this body and its length.
std::string okResponse(std::string_view body);
/// A response without a body.
std::string emptyResponse(std::string_view statusLineRest, std::string_view moreHeaders = {});
/// Answers every request with its own target.
void echoTargets(PeerConnection& connection);
std::string targetOf(const std::string& request);
/// The value of a header, empty when there is none.
std::string headerOf(const std::string& request, std::string_view name);
/// A port that refuses connections.
std::uint16_t closedPort();
}  // namespace Tavro8::http::test
