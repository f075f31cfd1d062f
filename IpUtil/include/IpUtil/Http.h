#pragma once

#include <IpUtil/ConnectionInfo.h>
#include <IpUtil/ErrorCode.h>
#include <IpUtil/Export.h>
#include <boost/asio/ts/netfwd.hpp>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Tavro8::http
{
inline constexpr const char* HTTP_HEADER_CONNECTION = "Connection";
inline constexpr const char* HTTP_HEADER_CONTENT_TYPE = "Content-Type";

/// Header fields in the order in which they stand; names compare without regard to case.
class IPUTIL_API HttpHeaders {
public:
    /// Replaces every field of that name.
    void set(std::string_view name, std::string_view value);
    /// The first field of that name, or null.
    const std::string* find(std::string_view name) const noexcept;

    const std::vector<std::pair<std::string, std::string>>& all() const noexcept { return fields; }
    void append(std::string name, std::string value) { fields.emplace_back(std::move(name), std::move(value)); }

private:
    std::vector<std::pair<std::string, std::string>> fields;
};

struct HttpResponse {
    unsigned status = 0;  ///< 0: the exchange failed in transport, nothing came back
    std::string reason;
    HttpHeaders headers;
    error_code transportError;  ///< why `status` is 0, in the host category
};

/// The status is accepted when it is 200 to 299 or exactly 302: some firmware answers a successful write with
/// a redirect. Redirects are never followed.
constexpr bool isAccepted(unsigned status) noexcept
{
    return (status >= 200 && status <= 299) || status == 302;
}

/// Host result of a reply: 0 when the status is accepted, otherwise by status; 256 for a reply with status 0.
IPUTIL_API std::int32_t translateResponseError(const HttpResponse& response) noexcept;

/// Takes back a request that is under way. Dropping it does not cancel.
class ICancellation {
public:
    virtual ~ICancellation() = default;
    /// The completion handler still runs, once, with `ResultCode::cancelled` unless it is already on its way.
    /// Any thread.
    virtual void cancel() noexcept = 0;
};

/// Takes back everything that was bound to it, now and from now on. Thread-safe; copies share the state.
class IPUTIL_API CancellationSource {
public:
    CancellationSource();
    void cancel() noexcept;
    bool isCancelled() const noexcept;
    /// Undoes `cancel` for requests that come later.
    void reset() noexcept;

    struct State;
    const std::shared_ptr<State>& getState() const noexcept { return state; }

private:
    std::shared_ptr<State> state;
};

/// Told once how a request ended: the transport error (in the host category), the body, and the response.
/// Runs on the request's I/O context, never inside the call that issued the request.
using CompletionHandler =
    std::function<void(const error_code& ec, const std::vector<char>& body, const HttpResponse& response)>;

using ConnectionInfoPtr = std::shared_ptr<const asio::ConnectionInfo>;
using CancellationPtr = std::shared_ptr<ICancellation>;

/// Requests that complete on `context`, which one thread runs (see `runUntil`); any thread may issue them. `path`
/// begins with '/'.
///
/// Connections are kept and shared by all requests of one I/O context to one device, at most four at once, first
/// come first served; those of other contexts have their own. A connection that is merely kept does not keep
/// `io_context::run` from returning. A kept connection that turns out to be dead is replaced, and the request is
/// repeated on the new one, unless it is a POST that has left entirely and may have had its effect.
///
/// Limits: 5 s to connect, 15 s (or what `info` says) from the call to its completion, 16 MiB a reply. Digest (MD5,
/// MD5-sess, SHA-256) and basic authentication, the strongest that the device offers. A body without a Content-Type
/// among `headers` is sent as application/json. With `https` no certificate is checked, since devices carry self-signed
/// ones.
///
/// `context` must outlive the request or be destroyed with it: a handler that has not run by then is destroyed with
/// its context. A host name that is being resolved holds up the end of a context until the system's resolver gives
/// up; an address does not.
IPUTIL_API CancellationPtr asyncGetEx(const ConnectionInfoPtr& info, const std::string& path,
                                      boost::asio::io_context& context, CompletionHandler handler);
IPUTIL_API CancellationPtr asyncGetEx(const ConnectionInfoPtr& info, const std::string& path,
                                      boost::asio::io_context& context, const HttpHeaders& headers,
                                      CompletionHandler handler);
IPUTIL_API CancellationPtr asyncPutEx(const ConnectionInfoPtr& info, const std::string& path, const std::string& body,
                                      boost::asio::io_context& context, CompletionHandler handler);
IPUTIL_API CancellationPtr asyncPutEx(const ConnectionInfoPtr& info, const std::string& path, const std::string& body,
                                      boost::asio::io_context& context, const HttpHeaders& headers,
                                      CompletionHandler handler);

/// `timeoutSeconds` 0 means the default of 15 s.
IPUTIL_API CancellationPtr asyncPostEx(const ConnectionInfoPtr& info, const std::string& path, const std::string& body,
                                       boost::asio::io_context& context, CompletionHandler handler,
                                       std::int32_t timeoutSeconds = 0);
IPUTIL_API CancellationPtr asyncPostEx(const ConnectionInfoPtr& info, const std::string& path, const std::string& body,
                                       boost::asio::io_context& context, const HttpHeaders& headers,
                                       CompletionHandler handler, std::int32_t timeoutSeconds = 0);
IPUTIL_API CancellationPtr asyncDeleteEx(const ConnectionInfoPtr& info, const std::string& path,
                                         boost::asio::io_context& context, CompletionHandler handler);
IPUTIL_API CancellationPtr asyncDeleteEx(const ConnectionInfoPtr& info, const std::string& path,
                                         boost::asio::io_context& context, const HttpHeaders& headers,
                                         CompletionHandler handler);

/// Runs the handlers of `context` on the calling thread until one of them has set `finished` or no work is left. A
/// context that requests complete on is run by this, or is one of the global service: Asio notes who runs a context in
/// each shared library apart, and a socket that was made here and served by the caller's own copy of Asio finds nobody.
/// Throws what a handler throws.
IPUTIL_API void runUntil(boost::asio::io_context& context, const bool& finished);

/// Blocking requests, for threads that may wait: never an I/O thread. One thread at a time.
class IPUTIL_API HttpSession {
public:
    explicit HttpSession(ConnectionInfoPtr info);
    /// Requests end early, with status 0, when `cancellation` is cancelled.
    HttpSession(ConnectionInfoPtr info, const CancellationSource& cancellation);
    ~HttpSession();
    HttpSession(const HttpSession&) = delete;
    HttpSession& operator=(const HttpSession&) = delete;

    /// Blocks until the reply is there. Replaces `*body` (may be null). Never throws for what the network or the
    /// device does: a transport failure gives a response with status 0. The result is never null.
    std::shared_ptr<HttpResponse> get(const std::string& path, std::vector<char>* body);

private:
    struct State;
    std::unique_ptr<State> state;
};
}  // namespace Tavro8::http
