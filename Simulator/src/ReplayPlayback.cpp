#include "ReplayPlayback.h"

#include <algorithm>
#include <utility>

namespace simulator
{
namespace
{

constexpr std::size_t enoughBytes = 64 * 1024;
constexpr auto reportInterval = std::chrono::seconds(1);

/// One who is later than this does not hurry to catch up.
constexpr auto longestLag = std::chrono::seconds(1);

}  // namespace

void ReplayPlayback::start(const PictureSettings& picture, std::shared_ptr<const ReplayTimeline> newTimeline,
                           bool keyFramesOnly, std::function<void()> onMore)
{
    stop();
    timeline = std::move(newTimeline);
    onlyKeyFrames = keyFramesOnly;
    // Key frames stand alone: sound would not fit them.
    const bool sound = tracks[1].has_value() && !(keyFramesOnly && tracks[0]);
    pipeline = std::make_unique<ReplayPipeline>(ReplayPipeline::Settings{picture, {tracks[0].has_value(), sound}},
                                                timeline, std::move(onMore));
    for (auto& track : tracks)
        if (track)
            track->begin();
}

void ReplayPlayback::run(unsigned newScale, Clock::time_point now)
{
    scale = newScale;
    anchor = now;
    anchorPosition = position();
    running = true;
    for (Head& head : heads)
        head.reported.reset();
}

void ReplayPlayback::stop()
{
    pipeline.reset();
    running = false;
    latest = std::chrono::nanoseconds(0);
    heads = {};
}

std::chrono::nanoseconds ReplayPlayback::position() const
{
    auto position = std::chrono::nanoseconds::max();
    for (const Head& head : heads)
        if (head.packet)
            position = std::min(position, head.packet->position);
    return position == std::chrono::nanoseconds::max() ? latest : position;
}

std::optional<std::size_t> ReplayPlayback::firstTrack()
{
    std::optional<std::size_t> first;
    for (std::size_t i = 0; i < replayTracks; ++i) {
        if (!tracks[i] || (i == 1 && onlyKeyFrames && tracks[0]))
            continue;
        if (!heads[i].packet)
            heads[i].packet = pipeline->next(i);
        if (!heads[i].packet)
            return std::nullopt;
        if (!first || heads[i].packet->position < heads[*first].packet->position)
            first = i;
    }
    return first;
}

void ReplayPlayback::append(std::size_t track, Clock::time_point now, std::string& out)
{
    Head& head = heads[track];
    const std::size_t span = timeline->spanAt(head.packet->position);
    if (head.reported != span || now >= head.reportDue) {
        tracks[track]->appendReport(head.packet->position, timeline->timeAt(head.packet->position), out);
        head.reported = span;
        head.reportDue = now + reportInterval;
    }
    latest = head.packet->position;
    ++packets;
    frames += track == 0 && head.packet->endsFrame;
    tracks[track]->appendPacket(std::move(*head.packet), out);
    head.packet.reset();
}

ReplayPlayback::Collected ReplayPlayback::finish(std::string& out)
{
    for (auto& track : tracks) {
        if (!track)
            continue;
        track->appendFarewell(timeline->length(), timeline->end(), out);
        track->becomeAnother();
    }
    stop();
    return {Next::ended};
}

ReplayPlayback::Collected ReplayPlayback::collect(std::string& out, Clock::time_point now)
{
    while (out.size() < enoughBytes) {
        if (pipeline->hasFailed())
            return {Next::failed};
        const auto track = firstTrack();
        if (!track)
            return {Next::waiting};
        const auto at = heads[*track].packet->position;
        const auto due = anchor + (std::min(at, timeline->length()) - anchorPosition) / scale;
        if (due > now)
            return {Next::later, due};
        if (at >= timeline->length())
            return finish(out);
        if (now - due > longestLag) {
            anchor = now;
            anchorPosition = at;
        }
        append(*track, now, out);
    }
    return {Next::more};
}

}  // namespace simulator
