#pragma once

#include "EventCommand.h"

#include <chrono>
#include <cstdint>
#include <string>

namespace simulator
{

/// The bytes of one push and the pieces in which they are written.
struct Transmission {
    std::string bytes;
    std::size_t firstPiece = std::string::npos;     ///< length; npos: everything
    std::size_t furtherPieces = std::string::npos;  ///< length of each
    std::chrono::milliseconds pause{0};             ///< between pieces
    std::size_t repeatFrom = std::string::npos;     ///< what stands from here on is sent again and again; npos: nothing
    bool closes = false;                            ///< the connection is closed behind it
};

/// What differs between the receivers of one event.
struct Envelope {
    std::string host;       ///< of the receiver, as in a Host header
    std::string reference;  ///< "Reference" of the body: the device's name for the subscription
};

/// Makes the bytes of an event. `sequence` is "AlarmSeq" of the first notification, `now` Unix seconds.
Transmission makeTransmission(const EventCommand& command, const Envelope& envelope, std::uint32_t sequence,
                              std::int64_t now);

/// An address and a port as they stand in a URL or a Host header.
std::string hostAndPort(const std::string& address, unsigned port);

}  // namespace simulator
