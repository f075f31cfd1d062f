#pragma once

#include <json/value.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace simulator
{

/// How a notification goes onto the wire. The comments say what the receiver sees.
enum class Form {
    whole,        ///< head and body in one write
    split,        ///< the head, and after a pause the body
    bytes,        ///< byte by byte
    slow,         ///< byte by byte, one a second
    chunked,      ///< a body in three chunks
    headOnly,     ///< a head that announces no body
    cut,          ///< half of the body, then the connection is closed
    brokenJson,   ///< a body that ends in the middle of the document, with a matching Content-Length
    wrongLength,  ///< a Content-Length that is too small by a few bytes
    oversized,    ///< a body of more than 1 MiB
    garbage,      ///< bytes that are no HTTP, then the connection is closed
    endless       ///< chunks without end, until the receiver closes the connection
};

/// The event of an ordinary notification. Numbers of channels and inputs stand as on the wire, from 1.
struct Alarm {
    std::string type;
    unsigned source = 1;
    bool fromInput = false;  ///< else from a channel
    unsigned level = 0;
    std::optional<std::int64_t> time{};     ///< Unix seconds, as sent; else the present
    Json::Value fields{Json::objectValue};  ///< laid over the members of "AlarmInfo"; null removes one
};

/// Structured data with a picture; there is no "AlarmInfo".
struct Picture {
    unsigned bytes = 0;  ///< of its text
};

/// Whatever the caller likes.
struct Text {
    std::string body;
};

/// One event that the device is made to report.
struct EventCommand {
    std::variant<Alarm, Picture, Text> content;
    std::string path;  ///< of the request
    Form form = Form::whole;
    std::chrono::milliseconds interval{0};  ///< between the pieces of those forms that have several
    unsigned count = 1;                     ///< so many notifications in one write
    bool freshConnection = false;           ///< one of its own, closed afterwards

    /// For the log.
    std::string name() const;
};

/// Reads an event as the administration and scripts write it; the other alternative says what is wrong with it.
std::variant<EventCommand, std::string> parseEventCommand(const Json::Value& json);

/// The same for one event or an array of them, all or nothing.
std::variant<std::vector<EventCommand>, std::string> parseEventCommands(const Json::Value& json);

/// What the device reports of input `index`, which counts from 0.
EventCommand inputEvent(unsigned index, bool state);

/// A line for each form, for `--help`.
std::string describeForms();

}  // namespace simulator
