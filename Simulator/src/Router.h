#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace simulator
{

/// What a handler gets to see of a request.
struct Call {
    std::string method;
    std::string path;                   ///< without the query
    std::string query;                  ///< what follows '?', as received
    std::vector<std::string> captures;  ///< the path elements that stood at the pattern's `{}`, in order
    std::string body;
    std::string deviceAddress;  ///< by which the peer reached the device
};

/// A handler's answer. LAPI wraps it in the envelope, the administration sends `data` alone.
struct Reply {
    unsigned status = 200;
    int code = 0;  ///< "ResponseCode"
    std::string text = "Succeed";
    Json::Value data{Json::objectValue};
    std::function<void()> afterwards{};  ///< called when the answer has been sent, may be empty
};

using Handler = std::function<Reply(const Call&)>;

/// The table of resources: method and path pattern -> handler.
class Router {
public:
    /// A `{}` in the pattern stands for one non-empty path element. Later routes do not hide earlier ones.
    void add(std::string method, std::string_view pattern, Handler handler);

    struct Match {
        const Handler* handler = nullptr;   ///< null: nothing here for this method; owned by the router
        bool pathKnown = false;             ///< some other method exists for the path
        std::vector<std::string> captures;  ///< for Call::captures
    };
    /// Paths are compared letter by letter, as the devices do.
    Match find(std::string_view method, std::string_view path) const;

private:
    struct Route {
        std::string method;
        std::vector<std::string> elements;
        Handler handler;
    };
    std::vector<Route> routes;
};

}  // namespace simulator
