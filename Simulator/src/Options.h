#pragma once

#include "Fault.h"
#include "RecordList.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace simulator
{

/// What the program pretends to be. It decides "DeviceType", the channel numbers in LAPI paths and the RTSP paths.
enum class Kind { camera, multichannel, recorder };

/// Which schemes LAPI and RTSP offer and accept.
enum class Authentication { digest, basic, both, none };

/// Which of two generations of firmware names the members of the stream settings.
enum class Dialect { oldFirmware, newFirmware };

/// What those who watch a stream see when it gets another format.
enum class FormatChange {
    closes,     ///< the device closes their connections
    continues,  ///< a new size arrives on them; a new codec closes them
};

/// Whether the live streams take sound that is spoken to the device, and how.
enum class BackChannel {
    g711u,
    g711a,
    many,    ///< a track that names a dozen formats, G.711 among them
    hidden,  ///< asking for it is allowed, but there is no such track
    none,    ///< asking for it is refused
};

enum class Codec { h264, h265, mjpeg };
enum class AudioCodec { g711u, aac };

struct Size {
    unsigned width = 0;
    unsigned height = 0;
    bool operator==(const Size&) const = default;
};

/// "1280x720". Encoders want even sides; the upper limit (8192) keeps one picture below a hundred megabytes.
std::optional<Size> parseSize(const std::string& text);

/// "h264" and the like, as on the command line.
std::optional<Codec> parseCodec(const std::string& text);

/// The command line, checked. Port 0 means any free port.
struct Options {
    Kind kind = Kind::camera;
    unsigned channels = 1;

    std::string bindAddress = "127.0.0.1";
    std::uint16_t httpPort = 8080;
    std::uint16_t rtspPort = 8554;
    std::optional<std::uint16_t> httpsPort;  ///< no HTTPS without it
    std::uint16_t adminPort = 0;             ///< always on the loopback interface

    std::string user = "admin";
    std::string password = "admin-123";
    Authentication authentication = Authentication::digest;
    std::chrono::milliseconds nonceLifetime{60'000};
    std::chrono::milliseconds idleTimeout{5'000};
    unsigned sessionTimeout = 60;  ///< seconds that RTSP sessions are kept without a sign of their client
    unsigned maxConnections = 8;
    bool pluralPorts = false;  ///< the port list is found under "Network/Ports" only

    Codec codec = Codec::h264;
    Size size{1280, 720};
    Size subSize{640, 360};
    unsigned framesPerSecond = 25;
    unsigned bitrateKbit = 2000;
    bool audio = true;
    AudioCodec audioCodec = AudioCodec::g711u;  ///< of the tone; a media file's sound always becomes G.711
    bool microphoneMuted = false;
    BackChannel backChannel = BackChannel::g711u;
    std::string talkBack;  ///< a file that ends in ".wav" or a folder; empty: what is spoken is not kept
    FormatChange formatChange = FormatChange::closes;
    Dialect dialect = Dialect::newFirmware;
    std::string mediaFile;  ///< empty: the test picture

    unsigned inputs = 4;
    unsigned relays = 2;
    std::string scriptFile;  ///< of events; empty: nothing happens by itself

    bool archive = false;                       ///< recordings can be searched and played
    std::optional<std::uint32_t> records;       ///< exactly so many, in each channel; else a month of them
    std::optional<std::uint32_t> recordsUntil;  ///< Unix seconds at which they end; else the program's start
    RecordOrder recordOrder = RecordOrder::oldestFirst;
    bool replayKeyFrames = true;  ///< a replay may be asked for its key frames only

    std::vector<Fault> faults;
    bool exitWithStdin = false;
};

/// The program ends at once: help was asked for (status 0) or the command line is wrong (status 2).
struct Usage {
    int exitStatus = 0;
    std::string text;
};

/// Reads the command line (without the program's name). `environmentPassword` is the value of
/// KELVO_SIMULATOR_PASSWORD, empty when unset; `--password` outranks it.
std::variant<Options, Usage> parseOptions(const std::vector<std::string>& arguments,
                                          const std::string& environmentPassword);

/// The word that the command line and the ready line use for a kind.
const char* kindName(Kind kind);

}  // namespace simulator
