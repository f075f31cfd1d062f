#pragma once

#include <json/value.h>

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace simulator
{

/// One LAPI request as it was answered.
struct RequestRecord {
    std::string peer;
    std::string method;
    std::string target;
    std::string scheme;  ///< of the Authorization header: "Digest", "Basic" or empty; never the credentials
    std::string body;
    unsigned status = 0;  ///< 0 when a fault left the request without an answer
    std::string remark;   ///< the fault in force or why credentials were refused
};

/// What reached the LAPI port, for tests to compare with. The I/O context is the only one to use it.
class Activity {
public:
    void record(RequestRecord request);
    void countConnection() { ++connections; }
    void countRejectedConnection() { ++rejectedConnections; }
    void clear();

    Json::Value counters() const;
    Json::Value requests() const;

private:
    struct Timed {
        std::int64_t timeMs;  ///< UTC
        RequestRecord request;
    };
    std::deque<Timed> log;
    std::map<std::string, unsigned> requestCounts;  ///< by "METHOD path", without the query
    std::map<unsigned, unsigned> statusCounts;
    unsigned connections = 0;
    unsigned rejectedConnections = 0;
};

}  // namespace simulator
