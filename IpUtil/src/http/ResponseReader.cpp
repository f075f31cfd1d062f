#include "http/ResponseReader.h"

#include "http/HostError.h"

#include <algorithm>
#include <utility>

#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <optional>

namespace Tavro8::http
{
namespace
{
namespace message = boost::beast::http;
constexpr std::size_t readBytes = 16U * 1024U;
constexpr std::size_t reservedBytes = 256U * 1024U;
constexpr unsigned maxInterimResponses = 16;

/// Keeps what Beast finds in one response. Beast's own container would put a reason phrase of its own in place of an
/// empty one, and would move headers of one name together.
class MessageParser final : public message::basic_parser<false> {
public:
    HttpResponse response;
    std::vector<char> body;

private:
    using View = boost::beast::string_view;

    static std::string toString(View text) { return {text.data(), text.size()}; }
    void append(View bytes) { body.insert(body.end(), bytes.begin(), bytes.end()); }

    void on_request_impl(message::verb, View, View, int, error_code&) override {}
    void on_response_impl(int code, View reason, int, error_code& ec) override
    {
        // Three digits are a status to Beast; below 100 they mean nothing, and 0 is "no response" to our callers.
        if (code < 100)
            ec = message::error::bad_status;
        response.status = static_cast<unsigned>(code);
        response.reason = toString(reason);
    }
    void on_field_impl(message::field, View name, View value, error_code&) override
    {
        response.headers.append(toString(name), toString(value));
    }
    void on_header_impl(error_code&) override {}
    void on_body_init_impl(const boost::optional<std::uint64_t>& contentLength, error_code&) override
    {
        // A device may claim any length; what it has not sent takes little memory.
        body.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(contentLength.value_or(0), reservedBytes)));
    }
    std::size_t on_body_impl(View bytes, error_code&) override
    {
        append(bytes);
        return bytes.size();
    }
    void on_chunk_header_impl(std::uint64_t, View, error_code&) override {}
    std::size_t on_chunk_body_impl(std::uint64_t, View bytes, error_code&) override
    {
        append(bytes);
        return bytes.size();
    }
    void on_finish_impl(error_code&) override {}
};
}  // namespace

struct ResponseReader::State {
    explicit State(const HttpLimits& limits) : limits(limits) { beginMessage(); }

    void beginMessage()
    {
        parser.emplace();
        parser->eager(true);
        parser->header_limit(limits.headerBytes);
        parser->body_limit(limits.bodyBytes);
    }

    Progress fail(const error_code& ec)
    {
        error = Utility::toHostError(ec);
        return Progress::failed;
    }

    Progress parse();

    const HttpLimits limits;
    boost::beast::flat_buffer buffer;  // what the parser has not consumed yet
    std::optional<MessageParser> parser;
    unsigned interimResponses = 0;
    bool started = false;
    error_code error;
};

ResponseReader::Progress ResponseReader::State::parse()
{
    while (buffer.size() != 0) {
        error_code ec;
        const std::size_t consumed = parser->put(buffer.data(), ec);
        buffer.consume(consumed);
        if (ec && ec != message::error::need_more)
            return fail(ec);
        if (parser->is_done()) {
            if (parser->response.status / 100 != 1)
                return Progress::done;
            if (++interimResponses > maxInterimResponses)
                return fail(ResultCode::malformedResponse);
            beginMessage();
        } else if (ec || consumed == 0) {
            break;
        }
    }
    // The parser bounds the header; a chunk's extension or a trailer could still grow without end.
    return buffer.size() > limits.headerBytes ? fail(ResultCode::responseTooLarge) : Progress::needMore;
}

ResponseReader::ResponseReader(const HttpLimits& limits) : state(std::make_unique<State>(limits)) {}

ResponseReader::~ResponseReader() = default;

std::span<char> ResponseReader::prepare()
{
    const auto room = state->buffer.prepare(readBytes);
    return {static_cast<char*>(room.data()), room.size()};
}

ResponseReader::Progress ResponseReader::commit(std::size_t count)
{
    state->buffer.commit(count);
    state->started = state->started || count != 0;
    return state->parse();
}

ResponseReader::Progress ResponseReader::finish()
{
    if (!state->parser->got_some())
        return state->fail(message::error::end_of_stream);
    error_code ec;
    state->parser->put_eof(ec);
    return ec ? state->fail(ec) : Progress::done;
}

const error_code& ResponseReader::getError() const noexcept
{
    return state->error;
}

bool ResponseReader::hasStarted() const noexcept
{
    return state->started;
}

bool ResponseReader::leavesConnectionOpen() const noexcept
{
    // Bytes behind the response belong to nothing: such a connection cannot be trusted.
    return state->parser->keep_alive() && state->buffer.size() == 0;
}

HttpResponse& ResponseReader::getResponse() noexcept
{
    return state->parser->response;
}

std::vector<char>& ResponseReader::getBody() noexcept
{
    return state->parser->body;
}
}  // namespace Tavro8::http
