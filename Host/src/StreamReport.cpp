#include "StreamReport.h"

#include "DeviceSession.h"
#include "Output.h"
#include "PathText.h"
#include "RecordedInterval.h"
#include "TimeText.h"
#include "media/MediaNames.h"

#include <Tavro8/ResultCode.h>
#include <algorithm>
#include <charconv>
#include <json/value.h>

namespace Host
{
using Tavro8::ResultCode;
using Tavro8::GDRV::DateTimeRange;
using Tavro8::GDRV::MediaFrame;
using Tavro8::GDRV::StreamStatistics;
namespace
{
Json::Value number(std::uint64_t value)
{
    return {static_cast<Json::UInt64>(value)};
}

std::optional<std::uint64_t> countOf(const std::string& text)
{
    std::uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    return error == std::errc{} && stop == end ? std::optional(value) : std::nullopt;
}

/// Counters make a sum. A text stays when all streams agree on it.
std::string together(const std::string& one, const std::string& other)
{
    const auto count = countOf(one);
    const auto further = countOf(other);
    if (count && further)
        return std::to_string(*count + *further);
    return one == other ? one : "mixed";
}

void addUp(decltype(StreamStatistics::named)& sum, const decltype(StreamStatistics::named)& more)
{
    for (const auto& [name, value] : more) {
        const auto known = std::find_if(sum.begin(), sum.end(), [&](const auto& entry) { return entry.first == name; });
        if (known == sum.end())
            sum.emplace_back(name, value);
        else
            known->second = together(known->second, value);
    }
}

void addUp(StreamStatistics& sum, const StreamStatistics& one)
{
    sum.bitsPerSecond += one.bitsPerSecond;
    sum.framesPerSecond += one.framesPerSecond;
    sum.frames += one.frames;
    sum.keyFrames += one.keyFrames;
    sum.bytes += one.bytes;
    sum.lostPackets += one.lostPackets;
    sum.malformedPackets += one.malformedPackets;
    sum.connects += one.connects;
    sum.reconnects += one.reconnects;
    sum.jitterMs = std::max(sum.jitterMs, one.jitterMs);
    addUp(sum.named, one.named);
}

/// "tcp", "udp" or "mixed"; empty when the module does not tell.
std::string transportOf(const ReceivedMedia& video)
{
    for (const auto& [name, value] : video.statistics.named)
        if (name == "transport")
            return value;
    return {};
}

const char* transportPhrase(const std::string& transport) noexcept
{
    if (transport == "tcp")
        return " over TCP";
    if (transport == "udp")
        return " over UDP";
    return transport == "mixed" ? " over TCP and UDP" : "";
}

void addTransport(Json::Value& fields, const ReceivedMedia& video)
{
    if (const std::string transport = transportOf(video); !transport.empty())
        fields["transport"] = transport;
}

/// "H.264 1920x1080", "G.711 u-law 8000 Hz".
std::string nameOf(const StreamFormat& format)
{
    std::string name = codecName(format.codec);
    if (!isVideo(format.codec) && format.sampleRate != 0)
        return name + ' ' + std::to_string(format.sampleRate) + " Hz";
    return name + ' ' + std::to_string(format.width) + 'x' + std::to_string(format.height);
}

/// Nothing to tell unless the format changed.
std::string changesLine(const FormatHistory& history)
{
    if (history.getFormats().size() < 2)
        return {};
    std::string line;
    for (const StreamFormat& format : history.getFormats())
        line += (line.empty() ? "Changes   " : ", then ") + nameOf(format) + " (" + std::to_string(format.frames) +
                " frames)";
    return line + '\n';
}

void addVideoFormat(Json::Value& fields, const StreamFormat& format)
{
    fields["codec"] = codecToken(format.codec);
    fields["width"] = format.width;
    fields["height"] = format.height;
}

void addFormats(Json::Value& list, const FormatHistory& history)
{
    list = Json::Value(Json::arrayValue);
    for (const StreamFormat& format : history.getFormats()) {
        Json::Value entry(Json::objectValue);
        if (isVideo(format.codec)) {
            addVideoFormat(entry, format);
        } else {
            entry["codec"] = codecToken(format.codec);
            entry["sampleRate"] = format.sampleRate;
            entry["channelCount"] = format.channelCount;
        }
        entry["frames"] = number(format.frames);
        entry["bytes"] = number(format.bytes);
        list.append(entry);
    }
}

void addSound(Json::Value& fields, const ReceivedMedia& audio)
{
    const StreamFormat format = audio.formats.latest();
    fields["audioFrames"] = number(audio.frames);
    fields["audioBytes"] = number(audio.bytes);
    fields["audioCodec"] = codecToken(format.codec);
    fields["audioSampleRate"] = format.sampleRate;
    fields["audioChannels"] = format.channelCount;
    fields["audioLost"] = number(audio.statistics.lostPackets);
    addFormats(fields["audioFormats"], audio.formats);
}

Json::Value jsonOf(const RecordedPart& part)
{
    Json::Value fields(Json::objectValue);
    fields["file"] = pathText(part.file);
    addVideoFormat(fields, {part.video.codec, part.video.width, part.video.height});
    if (part.audio) {
        fields["audioCodec"] = codecToken(part.audio->codec);
        fields["audioSampleRate"] = part.audio->sampleRate;
    }
    return fields;
}

std::string pictureLine(const StreamSummary& summary)
{
    const ReceivedMedia& video = summary.video;
    const double seconds = summary.elapsed.count();
    const double perSecond = seconds > 0 ? 1 / seconds : 0;
    std::string line = "Received  " + std::to_string(video.frames) + " frames, " + std::to_string(video.keyFrames) +
                       " of them key frames, in " + decimalText(seconds, 1) + " s";
    if (summary.streams > 1)
        line += " on " + std::to_string(summary.streams) + " streams";
    if (summary.silentStreams > 0)
        line += ", " + std::to_string(summary.silentStreams) + " of them silent";
    line += "\nVideo     " + nameOf(video.formats.latest()) + ", " +
            decimalText(static_cast<double>(video.frames) * perSecond, 1) + " frames/s, " +
            bitRateText(static_cast<double>(video.bytes) * 8 * perSecond) + transportPhrase(transportOf(video));
    if (summary.played)
        return line + ", packets missing at " + std::to_string(summary.played->media.losses) + " places\n";
    line += ", " + std::to_string(video.statistics.lostPackets) + " packets lost";
    if (video.statistics.reconnects > 0)
        line += ", " + std::to_string(video.statistics.reconnects) + " reconnections";
    return line + '\n';
}

/// Whole seconds, for people.
std::string recordedText(const DateTimeRange& recorded)
{
    const auto seconds = [](std::uint64_t timestampMs) { return momentText(timestampMs / 1000 * 1000); };
    return seconds(recorded.begin) + " to " + seconds(recorded.end);
}

std::string playedLine(const PlayedInterval& played)
{
    const PlayedMedia& media = played.media;
    std::string line = "Recorded  " + (media.recorded ? recordedText(*media.recorded) : "-");
    if (media.gaps > 0)
        line +=
            ", without " + countText(media.gaps, "gap") + " of " + durationText(std::chrono::milliseconds(media.gapMs));
    return line + (played.endReached ? "\n" : ", not played to the end\n");
}

void addPlayed(Json::Value& fields, const PlayedInterval& played)
{
    const PlayedMedia& media = played.media;
    if (media.recorded) {
        fields["recordedBegin"] = momentText(media.recorded->begin);
        fields["recordedBeginMs"] = number(media.recorded->begin);
        fields["recordedEnd"] = momentText(media.recorded->end);
        fields["recordedEndMs"] = number(media.recorded->end);
    }
    fields["gaps"] = number(media.gaps);
    fields["gapSeconds"] = static_cast<double>(media.gapMs) / 1000;
    fields["losses"] = number(media.losses);
    fields["soundLeftOut"] = number(media.soundLeftOut);
    fields["speed"] = played.speed;
    fields["keyFramesOnly"] = played.keyFramesOnly;
    fields["speedRefused"] = played.speedRefused;
    fields["keyFramesRefused"] = played.keyFramesRefused;
    fields["endReached"] = played.endReached;
}

const char* whatToCheck(std::int32_t state) noexcept
{
    switch (static_cast<ResultCode>(state)) {
    case ResultCode::success:
    case ResultCode::resourceNotFound:
    case ResultCode::requestRejected:
    case ResultCode::noSuchStream:
    case ResultCode::streamRefused:
        return "; check that the device has this channel and stream and that it is enabled";
    case ResultCode::deviceUnreachable:
    case ResultCode::timedOut:
        return "; check that the device's RTSP port can be reached";
    default:
        return "";
    }
}

std::string readableSummary(const StreamSummary& summary)
{
    std::string text = pictureLine(summary) + changesLine(summary.video.formats);
    if (summary.played)
        text += playedLine(*summary.played);
    if (summary.audio && summary.audio->frames > 0)
        text +=
            "Sound     " + nameOf(summary.audio->formats.latest()) + ", " + std::to_string(summary.audio->frames) +
            " frames" +
            (summary.played ? "\n" : ", " + std::to_string(summary.audio->statistics.lostPackets) + " packets lost\n") +
            changesLine(summary.audio->formats);
    else if (summary.audio && summary.played && summary.played->playsSound())
        text += "Sound     none is recorded\n";
    else if (summary.soundChosen)
        text += "Sound     none of the wanted kind arrived\n";
    else if (summary.audio && !summary.played)
        text += silenceReason("Sound     none arrived", summary.audio->streamState) + '\n';
    if (summary.played && summary.played->media.soundLeftOut > 0)
        text += "Left out  " + countText(summary.played->media.soundLeftOut, "frame") +
                " of sound, since no picture followed that tells where they belong\n";
    if (summary.droppedFrames > 0)
        text += "Dropped   " + std::to_string(summary.droppedFrames) + " frames, because writing did not keep up\n";
    text += "Load      " + decimalText(summary.load.cpuSeconds, 2) + " s of CPU, " +
            sizeText(static_cast<double>(summary.load.residentBytes)) + " of memory\n";
    for (const RecordedPart& part : summary.recordings)
        text +=
            "File      " + pathText(part.file) +
            (summary.recordings.size() > 1 ? ", " + nameOf({part.video.codec, part.video.width, part.video.height}) +
                                                 ", " + std::to_string(part.pictures) + " pictures"
                                           : "") +
            '\n';
    if (!summary.picture.empty())
        text += "Picture   " + pathText(summary.picture) + '\n';
    return text;
}

void addFiles(Json::Value& fields, const StreamSummary& summary)
{
    if (!summary.recordings.empty())
        fields["output"] = pathText(summary.recordings.front().file);
    for (const RecordedPart& part : summary.recordings) {
        Json::Value& entry = fields["parts"].append(jsonOf(part));
        entry["frames"] = number(part.pictures);
    }
    if (!summary.picture.empty())
        fields["snapshot"] = pathText(summary.picture);
}
}  // namespace

std::string silenceReason(const std::string& what, std::int32_t state)
{
    return (state == 0 ? what : reasonSentence(what, state)) + whatToCheck(state);
}

ReceivedMedia addUp(const std::vector<ReceivedMedia>& streams)
{
    ReceivedMedia sum;
    for (const ReceivedMedia& one : streams) {
        if (sum.firstFrame == std::nullopt || (one.firstFrame && *one.firstFrame < *sum.firstFrame))
            sum.firstFrame = one.firstFrame;
        sum.formats.addUp(one.formats);
        if (one.frames == 0 && sum.streamState == 0)
            sum.streamState = one.streamState;
        sum.frames += one.frames;
        sum.keyFrames += one.keyFrames;
        sum.bytes += one.bytes;
        sum.damagedFrames += one.damagedFrames;
        addUp(sum.statistics, one.statistics);
        sum.statisticsCount += one.statisticsCount;
    }
    return sum;
}

void reportStatistics(Output& output, const ReceivedMedia& video, const std::optional<ReceivedMedia>& audio,
                      const ProcessLoad& load)
{
    const StreamStatistics& statistics = video.statistics;
    Json::Value fields(Json::objectValue);
    fields["bitsPerSecond"] = number(statistics.bitsPerSecond);
    fields["framesPerSecond"] = statistics.framesPerSecond;
    fields["frames"] = number(statistics.frames);
    fields["keyFrames"] = number(statistics.keyFrames);
    fields["bytes"] = number(statistics.bytes);
    fields["lost"] = number(statistics.lostPackets);
    fields["malformed"] = number(statistics.malformedPackets);
    fields["connects"] = statistics.connects;
    fields["reconnects"] = statistics.reconnects;
    fields["jitterMs"] = statistics.jitterMs;
    addVideoFormat(fields, video.formats.latest());
    addFormats(fields["formats"], video.formats);
    if (audio)
        addSound(fields, *audio);
    addTransport(fields, video);
    fields["cpuSeconds"] = load.cpuSeconds;
    fields["residentBytes"] = number(load.residentBytes);
    for (const auto& [name, value] : statistics.named)
        fields["named"][name] = value;
    output.event("statistics", fields, {});
}

void reportPart(Output& output, std::size_t number, const RecordedPart& part)
{
    Json::Value fields = jsonOf(part);
    fields["number"] = Host::number(number);
    output.event("part", fields, {});
}

void reportFrame(Output& output, std::uint64_t index, const MediaFrame& frame)
{
    const bool video = isVideo(frame.codec);
    Json::Value fields(Json::objectValue);
    fields["index"] = number(index);
    fields["media"] = video ? "video" : "audio";
    fields["codec"] = codecToken(frame.codec);
    fields["keyFrame"] = frame.keyFrame;
    fields["timestampMs"] = static_cast<Json::Int64>(frame.timestampMs);
    fields["durationMs"] = frame.durationMs;
    fields["bytes"] = number(frame.data.size());
    fields["lostPacketsBefore"] = frame.lostPacketsBefore;
    fields["damaged"] = frame.damaged;
    if (video) {
        fields["width"] = frame.width;
        fields["height"] = frame.height;
    } else {
        fields["sampleCount"] = frame.sampleCount;
        fields["sampleRate"] = frame.sampleRate;
        fields["channelCount"] = frame.channelCount;
    }
    const std::string readable = std::to_string(index) + "  " + codecName(frame.codec) + "  " +
                                 std::to_string(frame.timestampMs) + " ms  " + std::to_string(frame.data.size()) +
                                 " bytes" + (video && frame.keyFrame ? "  key frame" : "") +
                                 (frame.damaged ? "  damaged" : "") + '\n';
    output.event("frame", fields, readable);
}

std::string progressText(const ReceivedMedia& video, std::chrono::duration<double> elapsed)
{
    std::string text = nameOf(video.formats.latest()) + "  ";
    if (video.statisticsCount > 0)
        text += decimalText(video.statistics.framesPerSecond, 1) + " frames/s  " +
                bitRateText(static_cast<double>(video.statistics.bitsPerSecond)) + "  " +
                std::to_string(video.statistics.lostPackets) + " lost  ";
    return text + durationText(elapsed);
}

void reportGap(Output& output, const DateTimeRange& gap)
{
    Json::Value fields(Json::objectValue);
    addInterval(fields, gap);
    output.event("gap", fields, {});
}

std::string progressText(const DateTimeRange& interval, const PlayedMedia& played, const ReceivedMedia& video,
                         std::chrono::duration<double> elapsed)
{
    const std::uint64_t reached = played.recorded ? played.recorded->end : interval.begin;
    const std::uint64_t position = std::clamp(reached, interval.begin, interval.end);
    const double share =
        static_cast<double>(position - interval.begin) / static_cast<double>(interval.end - interval.begin);
    return momentText(position / 1000 * 1000) + "  " + decimalText(100 * share, 0) + " %  " +
           nameOf(video.formats.latest()) + "  " + std::to_string(video.frames) + " frames  " +
           sizeText(static_cast<double>(video.bytes)) + "  " + durationText(elapsed);
}

void reportSummary(Output& output, const StreamSummary& summary)
{
    const ReceivedMedia& video = summary.video;
    Json::Value fields(Json::objectValue);
    fields["streams"] = number(summary.streams);
    fields["silentStreams"] = number(summary.silentStreams);
    fields["frames"] = number(video.frames);
    fields["keyFrames"] = number(video.keyFrames);
    fields["damagedFrames"] = number(video.damagedFrames);
    fields["droppedFrames"] = number(summary.droppedFrames);
    addVideoFormat(fields, video.formats.latest());
    addFormats(fields["formats"], video.formats);
    fields["bytes"] = number(video.bytes);
    if (summary.played) {
        addPlayed(fields, *summary.played);
    } else {
        fields["lost"] = number(video.statistics.lostPackets);
        fields["reconnects"] = video.statistics.reconnects;
        addTransport(fields, video);
    }
    fields["connectSeconds"] = summary.connecting.count();
    fields["seconds"] = summary.elapsed.count();
    fields["cpuSeconds"] = summary.load.cpuSeconds;
    fields["residentBytes"] = number(summary.load.residentBytes);
    if (summary.audio)
        addSound(fields, *summary.audio);
    if (summary.played)
        fields.removeMember("audioLost");  // not told either
    addFiles(fields, summary);
    output.event("summary", fields, readableSummary(summary));
}
}  // namespace Host
