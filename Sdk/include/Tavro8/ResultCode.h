#pragma once

#include <boost/system/error_code.hpp>
#include <cstdint>
#include <string>

namespace Tavro8
{
/// Results that modules report to the host, as signed 32-bit numbers. 0 is success, anything else a failure.
/// The numbers are contract; new ones may be added, so a host treats a number it does not know as a failure.
enum class ResultCode : std::int32_t {
    success = 0,
    cancelled = 1,        ///< the operation was given up by its caller
    invalidState = 2,     ///< not possible now, for example before the device is connected
    invalidArgument = 3,  ///< a null pointer, a value of the wrong type
    unexpected = 4,       ///< an exception that nothing foresaw
    noResources = 5,      ///< memory, threads or sockets ran out
    outOfRange = 6,       ///< a number beyond what device or interface allow
    notFound = 7,         ///< no such channel, stream, track or object
    notSupported = 8,     ///< the module or the device model does not offer it

    deviceUnreachable = 256,    ///< no connection to the device, or its address is unusable
    connectionLost = 257,       ///< the connection broke while an exchange was under way
    timedOut = 258,             ///< the device did not answer in time
    nameNotResolved = 259,      ///< the host name has no address
    secureChannelFailed = 260,  ///< TLS could not be negotiated
    malformedResponse = 261,    ///< what came back is not the protocol that was spoken to
    responseTooLarge = 262,     ///< the reply is beyond the limit

    requestRejected = 512,   ///< HTTP or RTSP status 4xx that has no number of its own
    accessDenied = 513,      ///< status 401 or 403: user or password is wrong, or the user lacks the right
    resourceNotFound = 514,  ///< status 404 or 599: the device does not know the path
    deviceBusy = 515,        ///< status 503 or 453: too many clients
    deviceError = 516,       ///< any other status from 500
    unexpectedStatus = 517,  ///< a status below 200, or a redirect that is not accepted

    emptyReply = 768,      ///< the device accepted the request but sent no data
    malformedReply = 769,  ///< the data is not the JSON or the session description that was expected
    apiError = 770,        ///< the device's management interface reports a failure of its own

    noSuchStream = 1024,      ///< the device describes no stream of the wanted kind
    streamRefused = 1025,     ///< the device refused to set up or play the stream
    unsupportedMedia = 1026,  ///< the stream's format is not one the module receives

    noTourBeingFilled = 2818,  ///< a tour point was given before a tour was begun
};

constexpr std::int32_t toResult(ResultCode code) noexcept
{
    return static_cast<std::int32_t>(code);
}

/// A sentence an operator understands.
inline const char* describeResult(std::int32_t result) noexcept
{
    switch (static_cast<ResultCode>(result)) {
    case ResultCode::success:
        return "success";
    case ResultCode::cancelled:
        return "the operation was cancelled";
    case ResultCode::invalidState:
        return "not possible in the present state";
    case ResultCode::invalidArgument:
        return "an argument is missing or has the wrong type";
    case ResultCode::unexpected:
        return "an unexpected failure inside the module";
    case ResultCode::noResources:
        return "out of memory, threads or sockets";
    case ResultCode::outOfRange:
        return "the value is out of range";
    case ResultCode::notFound:
        return "there is no such object";
    case ResultCode::notSupported:
        return "not supported";
    case ResultCode::deviceUnreachable:
        return "the device cannot be reached or its address is unusable";
    case ResultCode::connectionLost:
        return "the connection to the device was lost";
    case ResultCode::timedOut:
        return "the device did not answer in time";
    case ResultCode::nameNotResolved:
        return "the host name cannot be resolved";
    case ResultCode::secureChannelFailed:
        return "the secure connection could not be established";
    case ResultCode::malformedResponse:
        return "the answer does not follow the protocol";
    case ResultCode::responseTooLarge:
        return "the answer is too large";
    case ResultCode::requestRejected:
        return "the device rejected the request";
    case ResultCode::accessDenied:
        return "access denied: check user name and password";
    case ResultCode::resourceNotFound:
        return "the device does not know the resource";
    case ResultCode::deviceBusy:
        return "the device is busy or has too many clients";
    case ResultCode::deviceError:
        return "the device reports an internal failure";
    case ResultCode::unexpectedStatus:
        return "the device answered with an unexpected status";
    case ResultCode::emptyReply:
        return "the device sent an empty reply";
    case ResultCode::malformedReply:
        return "the device's reply cannot be understood";
    case ResultCode::apiError:
        return "the device's management interface reports a failure";
    case ResultCode::noSuchStream:
        return "the device offers no such stream";
    case ResultCode::streamRefused:
        return "the device refused the stream";
    case ResultCode::unsupportedMedia:
        return "the media format is not supported";
    case ResultCode::noTourBeingFilled:
        return "no tour is being filled";
    }
    return "unknown result";
}

namespace Utility
{
/// The error category of host results. Each library that includes this header has an object of its own, but
/// all compare equal, because identity is the number given to the base class and not the address.
class Tavro8Category final : public boost::system::error_category {
public:
    constexpr Tavro8Category() noexcept : error_category(0x7A61'76F8'47D2'5601ULL) {}

    const char* name() const noexcept override { return "tavro8"; }
    std::string message(int value) const override { return describeResult(value); }
};

inline constexpr Tavro8Category tavro8Category{};

/// The category of every `boost::system::error_code` that carries a host result.
inline const boost::system::error_category& get_tavro8_category() noexcept
{
    return tavro8Category;
}
}  // namespace Utility

inline boost::system::error_code make_error_code(ResultCode code) noexcept
{
    return {toResult(code), Utility::get_tavro8_category()};
}
}  // namespace Tavro8

template <>
struct boost::system::is_error_code_enum<Tavro8::ResultCode> : std::true_type {};
