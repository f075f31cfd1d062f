#pragma once

#include "Options.h"

#include <json/value.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace simulator
{

/// The device's loudspeakers: counts what is spoken to each channel and writes it down. Calls come on GStreamer's
/// threads while the I/O context asks for the state: every operation locks.
class TalkBack {
public:
    /// `target` as the option `talkBack`: a name that ends in ".wav" for the first call, of which later ones get
    /// "NAME-2.wav" and so on; a folder for "channel<N>-call<M>.wav"; empty for none.
    TalkBack(unsigned channels, BackChannel offered, std::string target);
    ~TalkBack();

    class Call;
    /// A client speaks to a channel (from 0). A file that cannot be written is logged and told by the state, and the
    /// call goes on without it.
    std::shared_ptr<Call> begin(unsigned channel);

    /// An array with the newest call of each channel: {"calls", "active", "packets", "bytes", "lost", "strange",
    /// "law", "file"}. "calls" counts them all; "lost" are packets that the sequence numbers miss, "strange" ones
    /// in a format that is not offered, "bytes" the G.711 without headers.
    Json::Value state() const;

private:
    struct State;
    std::shared_ptr<State> shared;
};

/// Outlives the object that began it, if it must.
class TalkBack::Call {
public:
    Call(std::shared_ptr<State> state, unsigned channel, unsigned number);
    ~Call();

    /// An RTP packet, in the order of its arrival. Returns how many there have been.
    std::uint64_t take(unsigned payloadType, std::uint16_t sequence, std::span<const std::uint8_t> payload);
    void end();

private:
    const std::shared_ptr<State> shared;
    const unsigned channel;
    const unsigned number;
};

}  // namespace simulator
