#include "TalkBack.h"

#include "G711.h"
#include "Log.h"
#include "SoundFile.h"

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace simulator
{
namespace
{

constexpr unsigned muLawType = 0;  // static payload types, RFC 3551, section 6
constexpr unsigned aLawType = 8;

/// How far sequence numbers have come, and how many are missing (RFC 3550, appendix A.3).
class SequenceCount {
public:
    void take(std::uint16_t sequence)
    {
        ++received;
        if (received == 1)
            first = highest = sequence;
        const auto ahead = static_cast<std::int16_t>(static_cast<std::uint16_t>(sequence - highest));
        if (ahead > 0)
            highest += ahead;
    }
    /// Repeated packets may make up for lost ones, as they do in a receiver report.
    std::int64_t lost() const { return received == 0 ? 0 : std::max<std::int64_t>(highest - first + 1 - received, 0); }

private:
    std::int64_t first = 0;  ///< these two without wrapping
    std::int64_t highest = 0;
    std::int64_t received = 0;
};

struct Channel {
    unsigned calls = 0;
    bool active = false;
    std::uint64_t packets = 0;
    std::uint64_t bytes = 0;
    std::uint64_t strange = 0;
    SequenceCount sequence;
    const char* law = nullptr;
    std::string fileName;
    std::optional<SoundFile> file;
};

}  // namespace

struct TalkBack::State {
    std::string fileName(unsigned channel, unsigned callOfChannel) const
    {
        if (target.empty())
            return {};
        const std::filesystem::path path = target;
        std::error_code ignored;
        if (std::filesystem::is_directory(path, ignored))
            return (path / ("channel" + std::to_string(channel + 1) + "-call" + std::to_string(callOfChannel) + ".wav"))
                .string();
        if (allCalls == 1)
            return target;
        return (path.parent_path() / (path.stem().string() + '-' + std::to_string(allCalls) + ".wav")).string();
    }

    /// Does something with the file, and does without it from then on when that fails.
    template <typename Work>
    void withFile(Channel& channel, Work&& work)
    {
        try {
            work();
        } catch (const std::runtime_error& error) {
            logLine(error.what());
            channel.file.reset();
            channel.fileName.clear();
        }
    }

    bool takesMuLaw = true;
    bool takesALaw = true;
    std::string target;
    mutable std::mutex mutex;  ///< guards what follows
    std::vector<Channel> channels;
    unsigned allCalls = 0;
};

TalkBack::TalkBack(unsigned channels, BackChannel offered, std::string target) : shared(std::make_shared<State>())
{
    shared->takesMuLaw = offered != BackChannel::g711a;
    shared->takesALaw = offered != BackChannel::g711u;
    shared->target = std::move(target);
    shared->channels.resize(channels);
}

TalkBack::~TalkBack() = default;

std::shared_ptr<TalkBack::Call> TalkBack::begin(unsigned channel)
{
    const std::lock_guard lock(shared->mutex);
    ++shared->allCalls;
    Channel fresh;
    fresh.calls = shared->channels.at(channel).calls + 1;
    fresh.active = true;
    fresh.fileName = shared->fileName(channel, fresh.calls);
    if (!fresh.fileName.empty())
        shared->withFile(fresh, [&fresh] { fresh.file.emplace(fresh.fileName); });
    const unsigned number = fresh.calls;
    shared->channels[channel] = std::move(fresh);
    return std::make_shared<Call>(shared, channel, number);
}

Json::Value TalkBack::state() const
{
    const std::lock_guard lock(shared->mutex);
    Json::Value array(Json::arrayValue);
    for (const Channel& channel : shared->channels) {
        Json::Value state(Json::objectValue);
        state["calls"] = channel.calls;
        state["active"] = channel.active;
        state["packets"] = static_cast<Json::UInt64>(channel.packets);
        state["bytes"] = static_cast<Json::UInt64>(channel.bytes);
        state["lost"] = static_cast<Json::Int64>(channel.sequence.lost());
        state["strange"] = static_cast<Json::UInt64>(channel.strange);
        state["law"] = channel.law == nullptr ? Json::Value() : Json::Value(channel.law);
        state["file"] = channel.fileName.empty() ? Json::Value() : Json::Value(channel.fileName);
        array.append(state);
    }
    return array;
}

TalkBack::Call::Call(std::shared_ptr<State> state, unsigned channelIndex, unsigned callNumber)
    : shared(std::move(state)), channel(channelIndex), number(callNumber)
{}

TalkBack::Call::~Call()
{
    end();
}

std::uint64_t TalkBack::Call::take(unsigned payloadType, std::uint16_t sequence, std::span<const std::uint8_t> payload)
{
    const std::lock_guard lock(shared->mutex);
    Channel& to = shared->channels[channel];
    if (to.calls != number)
        return 0;  // another one speaks to the channel now, and is heard alone
    ++to.packets;
    to.sequence.take(sequence);
    const bool muLaw = payloadType == muLawType && shared->takesMuLaw;
    if (!muLaw && !(payloadType == aLawType && shared->takesALaw)) {
        ++to.strange;
        return to.packets;
    }
    to.law = muLaw ? "g711u" : "g711a";
    to.bytes += payload.size();
    if (to.file) {
        std::vector<std::int16_t> samples(payload.size());
        std::ranges::transform(payload, samples.begin(), muLaw ? decodeMuLaw : decodeALaw);
        shared->withFile(to, [&] { to.file->append(samples); });
    }
    return to.packets;
}

void TalkBack::Call::end()
{
    const std::lock_guard lock(shared->mutex);
    Channel& to = shared->channels[channel];
    if (to.calls != number)
        return;
    to.active = false;
    to.file.reset();
}

}  // namespace simulator
