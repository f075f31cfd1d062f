#pragma once

#include "http/HttpLimits.h"

#include <IpUtil/Http.h>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

namespace Tavro8::http
{
/// Puts the bytes of one connection together to the response of one request: with a length, chunked, or up to the
/// end of the connection. Interim responses (1xx) are skipped. Knows no socket.
class ResponseReader {
public:
    enum class Progress { needMore, done, failed };

    explicit ResponseReader(const HttpLimits& limits);
    ~ResponseReader();
    ResponseReader(const ResponseReader&) = delete;
    ResponseReader& operator=(const ResponseReader&) = delete;

    /// Room for the next bytes, valid until the next call of a member.
    std::span<char> prepare();
    /// Takes in the first `count` bytes of that room.
    Progress commit(std::size_t count);
    /// The peer has ended the connection.
    Progress finish();

    /// Why reading failed, in the host category.
    const error_code& getError() const noexcept;
    /// A byte has arrived: the device has seen the request.
    bool hasStarted() const noexcept;

    // Once reading is done; what the last two give may be moved away.
    /// The connection can carry another request.
    bool leavesConnectionOpen() const noexcept;
    HttpResponse& getResponse() noexcept;
    std::vector<char>& getBody() noexcept;

private:
    struct State;
    std::unique_ptr<State> state;
};
}  // namespace Tavro8::http
