#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace simulator
{

/// What is sent where HTTP is expected, by faults and by events.
inline constexpr std::string_view garbageBytes = "\x16\x03\x01\x02 This is not HTTP \xff\xfe\xfd\r\n\r\n";

/// An HTTP request as the services see it.
struct HttpQuestion {
    std::string method{};
    std::string target{};
    std::string authorization{};
    std::string body{};
    std::string peer{};           ///< address and port
    std::string deviceAddress{};  ///< our end of the connection, without the port
    bool fromLoopback = false;    ///< the peer runs on this machine
};

/// What the server does with a request, misbehaviour included.
struct HttpAnswer {
    enum class Manner {
        whole,      ///< as any server
        dripped,    ///< byte by byte, one each `dripInterval`
        truncated,  ///< chunked, closed in the middle of the body
        garbage,    ///< bytes that are no HTTP, then closed
        silent,     ///< nothing, until the peer gives up
        closed,     ///< connection closed without an answer
    };

    Manner manner = Manner::whole;
    std::chrono::milliseconds delay{0};  ///< before the first byte
    std::chrono::milliseconds dripInterval{0};
    unsigned status = 200;
    std::vector<std::string> challenges;  ///< values of WWW-Authenticate headers
    std::string body;
    std::function<void()> afterwards;  ///< called when the answer has been sent, may be empty
};

using HttpService = std::function<HttpAnswer(const HttpQuestion&)>;

}  // namespace simulator
