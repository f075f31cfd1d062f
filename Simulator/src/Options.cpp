#include "Options.h"

#include "EventCommand.h"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <map>
#include <system_error>

namespace simulator
{
namespace
{

const std::map<std::string, Kind> kinds{
    {"camera", Kind::camera}, {"multichannel", Kind::multichannel}, {"recorder", Kind::recorder}};
const std::map<std::string, Authentication> authentications{{"digest", Authentication::digest},
                                                            {"basic", Authentication::basic},
                                                            {"both", Authentication::both},
                                                            {"none", Authentication::none}};
const std::map<std::string, Codec> codecs{{"h264", Codec::h264}, {"h265", Codec::h265}, {"mjpeg", Codec::mjpeg}};
const std::map<std::string, AudioCodec> audioCodecs{{"aac", AudioCodec::aac}, {"g711u", AudioCodec::g711u}};
const std::map<std::string, bool> microphones{{"muted", true}, {"on", false}};
const std::map<std::string, BackChannel> backChannels{{"g711a", BackChannel::g711a},
                                                      {"g711u", BackChannel::g711u},
                                                      {"hidden", BackChannel::hidden},
                                                      {"many", BackChannel::many},
                                                      {"none", BackChannel::none}};
const std::map<std::string, Dialect> dialects{{"new", Dialect::newFirmware}, {"old", Dialect::oldFirmware}};
const std::map<std::string, FormatChange> formatChanges{{"close", FormatChange::closes},
                                                        {"continue", FormatChange::continues}};
const std::map<std::string, RecordOrder> recordOrders{{"newest", RecordOrder::newestFirst},
                                                      {"oldest", RecordOrder::oldestFirst}};
const std::map<std::string, bool> portForms{{"singular", false}, {"plural", true}};

constexpr int usageStatus = 2;

constexpr const char* footer = R"(
When ready, one JSON line on standard output names the ports. Everything else goes to standard error.

Faults (repeatable; @TEXT restricts one to requests whose "METHOD path" contains TEXT):
)";

constexpr const char* adminFooter = R"(
Administration, for tests; real devices have nothing like it. Plain JSON without authentication, on the port that the
ready line calls adminPort (faults and restarts never touch it) and, for loopback peers, on the HTTP port as well:
  GET    /simulator/counters       requests, connections, frames and bytes served for each stream
  DELETE /simulator/counters       sets them to zero and empties the request log
  GET    /simulator/requests       the last 1000 LAPI requests, oldest first
  GET    /simulator/faults         the faults in force
  POST   /simulator/faults         {"fault": "status:503@Port"} adds one
  DELETE /simulator/faults         {"fault": "status:503@Port"} removes one; without a body, all
  POST   /simulator/rtsp/drop      closes all RTSP connections
  POST   /simulator/rtsp/stop      closes the RTSP port and all its connections
  POST   /simulator/rtsp/start     opens it again
  POST   /simulator/picture        {"codec": "h265", "size": "640x360"} (either): the size changes in the running main
                                   streams, the codec when they are described anew
  POST   /simulator/reboot         {"milliseconds": 2000} closes every port and connection for so long and forgets all
                                   subscriptions
  GET    /simulator/state          subscriptions, what became of their notifications, inputs and relays; where each
                                   channel's head looks, its presets and patrols, what it was told ("ptz"); the
                                   settings and what clients did to them ("settings"); what was spoken ("talkBack");
                                   what is recorded, searched and played ("archive")
  POST   /simulator/events         one event or an array of them, pushed to every subscriber
  POST   /simulator/inputs/N       {"state": true} sets an input (from 0) and reports it
  DELETE /simulator/subscriptions  forgets them all without a word

An event: {"type": "MotionAlarmOn"} and, where it matters, "channel" or "input" (from 0), "level", "time" (Unix seconds),
"fields" (members of "AlarmInfo" to add or replace; null removes one), "count" (so many in one write). In place of
"type": "pictureBytes" (structured data with a picture of that size) or "body" (any text). With each "path", "form",
"connection" ("kept", or "fresh": one of its own), and "interval" (ms between the pieces of a form). Forms:
)";

constexpr const char* scriptFooter = R"(
A script: {"repeat": 10, "steps": [{"at": 0.5, "event": EVENT}, {"at": 2, "input": 0, "state": true}]}. It begins with the
first subscription, ends with the last and begins anew with the next; times are seconds from its beginning, at "repeat"
(if given) it begins again.

Exit status: 0 stopped by a signal or the end of its input, 1 could not start, 2 wrong command line.
)";

std::string formatSize(const Size& size)
{
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

Size readSize(const std::string& text)
{
    const auto size = parseSize(text);
    if (!size)
        throw CLI::ValidationError("'" + text + "' is no picture size; an example is 1280x720 (even, 64..8192)");
    return *size;
}

std::vector<Fault> readFaults(const std::vector<std::string>& texts)
{
    std::vector<Fault> faults;
    for (const std::string& text : texts) {
        auto parsed = parseFault(text);
        if (const auto* why = std::get_if<std::string>(&parsed))
            throw CLI::ValidationError("--fault", *why);
        faults.push_back(std::get<Fault>(std::move(parsed)));
    }
    return faults;
}

/// Why recordings cannot be written there; nothing when they can, as far as can be seen.
std::optional<std::string> problemOf(const std::string& talkBack)
{
    const std::filesystem::path path = talkBack;
    std::error_code ignored;
    if (talkBack.empty() || std::filesystem::is_directory(path, ignored))
        return std::nullopt;
    if (path.extension() != ".wav")
        return "'" + talkBack + "' is neither a folder nor does it end in .wav";
    if (path.has_parent_path() && !std::filesystem::is_directory(path.parent_path(), ignored))
        return "there is no folder '" + path.parent_path().string() + "'";
    return std::nullopt;
}

std::chrono::milliseconds readSeconds(double seconds)
{
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

template <typename Enum>
void addChoice(CLI::App& app, const char* name, Enum& value, const std::map<std::string, Enum>& choices,
               const char* help)
{
    std::string words;
    for (const auto& choice : choices)
        words += (words.empty() ? "" : "|") + choice.first;
    app.add_option_function<std::string>(
           name,
           [&value, &choices, name, words](const std::string& word) {
               const auto found = choices.find(word);
               if (found == choices.end())
                   throw CLI::ValidationError(name, "'" + word + "' is none of " + words);
               value = found->second;
           },
           help)
        ->type_name(words);
}

}  // namespace

std::optional<Codec> parseCodec(const std::string& text)
{
    const auto found = codecs.find(text);
    return found == codecs.end() ? std::nullopt : std::optional(found->second);
}

std::optional<Size> parseSize(const std::string& text)
{
    Size size;
    char by = 0;
    std::istringstream in(text);
    in.imbue(std::locale::classic());
    in >> size.width >> by >> size.height;
    const auto fits = [](unsigned side) { return side >= 64 && side <= 8192 && side % 2 == 0; };
    if (in.fail() || !in.eof() || by != 'x' || !fits(size.width) || !fits(size.height))
        return std::nullopt;
    return size;
}

std::variant<Options, Usage> parseOptions(const std::vector<std::string>& arguments,
                                          const std::string& environmentPassword)
{
    Options options;
    if (!environmentPassword.empty())
        options.password = environmentPassword;
    std::string size = formatSize(options.size);
    std::string subSize = formatSize(options.subSize);
    std::uint16_t httpsPort = 0;
    double nonceLifetime = 60;
    double idleTimeout = 5;
    std::uint32_t records = 0;
    std::uint32_t recordsUntil = 0;
    std::vector<std::string> faults;

    CLI::App app{"A simulated camera or recorder: LAPI over HTTP, live and recorded media over RTSP, faults on demand.",
                 "uniview-simulator"};
    app.footer(footer + describeFaults() + adminFooter + describeForms() + scriptFooter);
    addChoice(app, "--kind", options.kind, kinds, "what to simulate [camera]");
    auto* channels = app.add_option("--channels", options.channels, "video channels [1, or 4 unless a camera]")
                         ->check(CLI::Range(1u, 64u));
    app.add_option("--bind", options.bindAddress, "address to listen on")->capture_default_str();
    app.add_option("--http-port", options.httpPort, "LAPI port, 0 for any free one")->capture_default_str();
    app.add_option("--rtsp-port", options.rtspPort, "RTSP port, 0 for any free one")->capture_default_str();
    auto* https = app.add_option("--https-port", httpsPort, "LAPI over TLS with a self-signed certificate [off]");
    app.add_option("--admin-port", options.adminPort, "port of the administration, 0 for any free one")
        ->capture_default_str();

    app.add_option("--user", options.user, "user name")->capture_default_str();
    app.add_option("--password", options.password, "password; better given in KELVO_SIMULATOR_PASSWORD [admin-123]");
    addChoice(app, "--auth", options.authentication, authentications, "schemes offered [digest]");
    app.add_option("--nonce-lifetime", nonceLifetime, "seconds after which a nonce is stale")
        ->check(CLI::Range(0.05, 86'400.0))
        ->capture_default_str();
    app.add_option("--session-timeout", options.sessionTimeout, "seconds that an RTSP session lives without keep-alive")
        ->check(CLI::Range(1u, 3600u))
        ->capture_default_str();
    app.add_option("--idle-timeout", idleTimeout, "seconds after which an idle connection is closed")
        ->check(CLI::Range(0.05, 86'400.0))
        ->capture_default_str();
    app.add_option("--max-connections", options.maxConnections, "LAPI connections at once; further ones are reset")
        ->check(CLI::Range(1u, 10'000u))
        ->capture_default_str();
    addChoice(app, "--ports-form", options.pluralPorts, portForms,
              "whether Network/Port or Network/Ports exists [singular]");

    addChoice(app, "--codec", options.codec, codecs, "codec of the test picture [h264]");
    app.add_option("--size", size, "size of the main stream")->capture_default_str();
    app.add_option("--sub-size", subSize, "size of the second stream")->capture_default_str();
    app.add_option("--fps", options.framesPerSecond, "frames per second")
        ->check(CLI::Range(1u, 120u))
        ->capture_default_str();
    app.add_option("--bitrate", options.bitrateKbit, "kbit/s of the main stream")
        ->check(CLI::Range(32u, 100'000u))
        ->capture_default_str();
    app.add_flag("--audio,!--no-audio", options.audio, "sound, a tone with the test picture [on]");
    addChoice(app, "--audio-codec", options.audioCodec, audioCodecs, "codec of the tone [g711u]");
    addChoice(app, "--microphone", options.microphoneMuted, microphones, "as it is when the device starts [on]");
    addChoice(app, "--back-channel", options.backChannel, backChannels,
              "how sound to the device is offered: this law, among many formats, not at all although asking is allowed,"
              " or asking is refused [g711u]");
    app.add_option("--talk-back", options.talkBack,
                   "write what is spoken to the device to this WAV file, or to one for each call in this folder");
    addChoice(app, "--format-change", options.formatChange, formatChanges,
              "what becomes of connections on which a stream gets another size [close]");
    addChoice(app, "--dialect", options.dialect, dialects,
              "firmware whose names the stream settings have: EncodeFormat and the like, or EncodeFmt [new]");
    app.add_option("--media", options.mediaFile, "serve this MP4, MKV or TS file in a loop instead of the test picture")
        ->check(CLI::ExistingFile);

    auto* archive = app.add_flag("--archive,!--no-archive", options.archive,
                                 "recordings that can be searched and played [on, for a recorder]");
    auto* exactRecords = app.add_option("--records", records, "so many records in each channel [those of a month]")
                             ->check(CLI::Range(0u, mostRecords));
    auto* until = app.add_option("--records-until", recordsUntil, "Unix seconds at which recordings end [the start]")
                      ->check(CLI::Range(mostRecords * 60, UINT32_MAX));
    addChoice(app, "--records-order", options.recordOrder, recordOrders, "which record is listed first [oldest]");
    app.add_flag("--replay-key-frames,!--no-replay-key-frames", options.replayKeyFrames,
                 "whether \"Frames: intra\" is known when recordings are played [on]");

    app.add_option("--inputs", options.inputs, "alarm inputs")->check(CLI::Range(0u, 64u))->capture_default_str();
    app.add_option("--relays", options.relays, "relay outputs")->check(CLI::Range(0u, 64u))->capture_default_str();
    app.add_option("--script", options.scriptFile, "JSON file of timed events, see below")->check(CLI::ExistingFile);

    app.add_option("--fault", faults, "NAME[:N][@TEXT], see below")->take_all();
    app.add_flag("--exit-with-stdin", options.exitWithStdin, "end when standard input is closed");

    try {
        // CLI11 takes its words from the end of the vector.
        app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
        options.size = readSize(size);
        options.subSize = readSize(subSize);
        options.faults = readFaults(faults);
        if (const auto why = problemOf(options.talkBack))
            throw CLI::ValidationError("--talk-back", *why);
        if (options.kind == Kind::camera && options.channels != 1)
            throw CLI::ValidationError("--channels", "a camera has one channel; --kind multichannel has several");
        if (options.user.empty() || options.user.find(':') != std::string::npos)
            throw CLI::ValidationError("--user", "a user name is not empty and has no colon");
    } catch (const CLI::CallForHelp&) {
        return Usage{0, app.help()};
    } catch (const CLI::ParseError& error) {
        return Usage{usageStatus, std::string(error.what()) + "\nuniview-simulator --help explains the options.\n"};
    }

    if (options.kind != Kind::camera && channels->count() == 0)
        options.channels = 4;
    if (https->count() != 0)
        options.httpsPort = httpsPort;
    if (archive->count() == 0)
        options.archive = options.kind == Kind::recorder || exactRecords->count() != 0;
    if (exactRecords->count() != 0)
        options.records = records;
    if (until->count() != 0)
        options.recordsUntil = recordsUntil;
    options.nonceLifetime = readSeconds(nonceLifetime);
    options.idleTimeout = readSeconds(idleTimeout);
    return options;
}

const char* kindName(Kind kind)
{
    for (const auto& [name, value] : kinds)
        if (value == kind)
            return name.c_str();
    return "";
}

}  // namespace simulator
