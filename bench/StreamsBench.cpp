// What it costs to receive many streams: our receiver beside a bare read loop and beside the usual tools, as a table.
#include "Arguments.h"
#include "BenchChild.h"

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <json/reader.h>
#include <json/value.h>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace
{
using namespace kelvo::bench;

struct Settings {
    std::size_t streams = 200;
    std::size_t toolStreams = 10;  // of ffmpeg and GStreamer, which have a process for each; 0 leaves them out
    double seconds = 4;
    double warmUp = 1.5;
    int rounds = 3;
    std::string only;  // a part of the name of the load
    // Numbers of cores to stay on, as `taskset -c` takes them; empty: the system chooses.
    std::string sourceCores;
    std::string receiverCores;
};

std::vector<std::string> pinned(std::vector<std::string> command, const std::string& cores)
{
    if (!cores.empty())
        command.insert(command.begin(), {"taskset", "-c", cores});
    return command;
}

/// How the streams are sent.
struct Load {
    std::string name;
    std::string pace;
    std::string transport;
    bool many;          // many streams, or one
    double aimedRatio;  // of our receiver to the floor
};

// What is received may differ by so much from what is sent meanwhile. A row with more tells what a machine does that is
// too small or too busy, and no cost of receiving.
constexpr double backlogPercent = 3;
constexpr double aimedLatencyMs = 1;

const std::vector<Load> loads{
    {"one connection at full speed, TCP", "full", "tcp", false, 1.5},
    {"bursts, TCP", "burst", "tcp", true, 1.5},
    {"spread, TCP", "spread", "tcp", true, 1.5},
    {"bursts, UDP", "burst", "udp", true, 1.4},
};

/// One run of one receiver.
struct Sample {
    double corePercent = 0;
    double secondsPerGb = 0;
    double residentMb = 0;
    double sourcePercent = 0;
    std::uint64_t bytes = 0;
    double receivedPercent = 100;  // of what the source sent meanwhile
    Json::Value result;            // of a receiver of ours
};

Json::Value parse(const std::optional<std::string>& line)
{
    Json::Value value;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!line || !reader->parse(line->data(), line->data() + line->size(), &value, nullptr) || !value.isObject())
        throw std::runtime_error("a program of the bench has failed");
    return value;
}

std::string program(const std::string& name)
{
    return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

/// A load source, and what it has sent.
class Source {
public:
    Source(const Load& load, const Settings& settings)
        : child(pinned({program("load_source"), "--pace", load.pace}, settings.sourceCores), true)
    {
        const Json::Value ports = parse(child.readLine(10));
        http = ports["http"].asString();
        rtsp = ports["rtsp"].asString();
    }

    Json::Value report()
    {
        child.writeLine("report");
        return parse(child.readLine(10));
    }

    std::string http;
    std::string rtsp;

private:
    BenchChild child;
};

std::size_t streamsOf(const Load& load, const Settings& settings)
{
    return load.many ? settings.streams : 1;
}

void sleepFor(double seconds)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

double perSecond(const Json::Value& before, const Json::Value& after, const char* name, double seconds)
{
    return (after[name].asDouble() - before[name].asDouble()) / seconds;
}

void requireDatagrams(const Load& load, const Json::Value& before, const Json::Value& after)
{
    if (load.transport == "udp" && before["datagrams"].asUInt64() == after["datagrams"].asUInt64())
        throw std::runtime_error("the receiver was to receive over UDP and does not");
}

/// The floor or our receiver: they tell when their steady interval begins, and what it has cost them.
Sample runReceiver(const std::string& receiver, const Load& load, const Settings& settings)
{
    Source source(load, settings);
    const bool floor = receiver == "floor_receiver";
    BenchChild child(
        pinned({program(receiver), floor ? "--rtsp" : "--http", floor ? source.rtsp : source.http, "--streams",
                std::to_string(streamsOf(load, settings)), "--transport", load.transport, "--warm-up",
                std::to_string(settings.warmUp), "--seconds", std::to_string(settings.seconds)},
               settings.receiverCores),
        true);
    parse(child.readLine(60));
    const Json::Value before = source.report();
    Sample sample;
    sample.result = parse(child.readLine(settings.seconds + 30));
    const Json::Value after = source.report();
    if (child.finish() != 0)
        throw std::runtime_error(receiver + " has failed");
    requireDatagrams(load, before, after);
    const Json::Value& result = sample.result;
    const double seconds = result["seconds"].asDouble();
    sample.bytes = result["wireBytes"].asUInt64();
    sample.corePercent = 100 * result["cpuSeconds"].asDouble() / seconds;
    sample.secondsPerGb = result["cpuSeconds"].asDouble() / static_cast<double>(sample.bytes) * 1e9;
    sample.residentMb = result["residentBytes"].asDouble() / 1e6;
    sample.sourcePercent = 100 * perSecond(before, after, "cpuSeconds", seconds);
    const double sent = after["wireBytes"].asDouble() - before["wireBytes"].asDouble();
    sample.receivedPercent = 100 * static_cast<double>(sample.bytes) / sent;
    return sample;
}

/// Another receiver, one process a stream, watched from outside.
Sample runTool(const std::function<std::vector<std::string>(const std::string& url)>& command, const Load& load,
               const Settings& settings)
{
    Source source(load, settings);
    const std::string url = "rtsp://127.0.0.1:" + source.rtsp + "/media/video1";
    std::vector<BenchChild> children;
    for (std::size_t i = 0; i < (load.many ? settings.toolStreams : 1); ++i)
        children.emplace_back(pinned(command(url), settings.receiverCores), false);
    sleepFor(settings.warmUp + 2);
    const auto sum = [&] {
        ChildCost all;
        for (BenchChild& child : children) {
            if (!child.isRunning())
                throw std::runtime_error("it ended by itself");
            const ChildCost one = child.cost();
            all.cpuSeconds += one.cpuSeconds;
            all.residentBytes += one.residentBytes;
        }
        return all;
    };
    const Json::Value sourceBefore = source.report();
    const ChildCost before = sum();
    const auto begin = std::chrono::steady_clock::now();
    sleepFor(settings.seconds);
    const ChildCost after = sum();
    const Json::Value sourceAfter = source.report();
    requireDatagrams(load, sourceBefore, sourceAfter);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    Sample sample;
    sample.bytes = sourceAfter["wireBytes"].asUInt64() - sourceBefore["wireBytes"].asUInt64();
    if (sample.bytes == 0)
        throw std::runtime_error("it receives nothing");
    const double cpu = after.cpuSeconds - before.cpuSeconds;
    sample.corePercent = 100 * cpu / seconds;
    sample.secondsPerGb = cpu / static_cast<double>(sample.bytes) * 1e9;
    sample.residentMb = static_cast<double>(after.residentBytes) / 1e6;
    sample.sourcePercent = 100 * perSecond(sourceBefore, sourceAfter, "cpuSeconds", seconds);
    return sample;
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::ranges::sort(values);
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

template <typename Field>
double medianOf(const std::vector<Sample>& samples, Field field)
{
    std::vector<double> values;
    for (const Sample& sample : samples)
        values.push_back(field(sample));
    return median(values);
}

struct Ratio {
    double least = 0;
    double middle = 0;
    double most = 0;
};

/// Round by round, since the machine's speed drifts.
Ratio ratioOf(const std::vector<Sample>& ours, const std::vector<Sample>& floor)
{
    std::vector<double> ratios;
    for (std::size_t i = 0; i < std::min(ours.size(), floor.size()); ++i)
        ratios.push_back(ours[i].secondsPerGb / floor[i].secondsPerGb);
    if (ratios.empty())
        return {};
    return {*std::ranges::min_element(ratios), median(ratios), *std::ranges::max_element(ratios)};
}

class Table {
public:
    explicit Table(const Settings& benchSettings) : settings(benchSettings) {}

    /// False when a receiver failed.
    bool add(const Load& load)
    {
        std::vector<Sample> floor;
        std::vector<Sample> ours;
        for (int round = 0; round < settings.rounds; ++round) {
            std::fprintf(stderr, "%s: round %d of %d\n", load.name.c_str(), round + 1, settings.rounds);
            if (!run(floor, [&] { return runReceiver("floor_receiver", load, settings); }) ||
                !run(ours, [&] { return runReceiver("module_receiver", load, settings); }))
                return false;
        }
        const std::string streams = std::to_string(streamsOf(load, settings));
        const Ratio ratio = ratioOf(ours, floor);
        costs.push_back("| " + load.name + " | bare read loop | " + streams + " | " +
                        figures(floor, streamsOf(load, settings)) + " | 1 | |");
        costs.push_back("| | our module | " + streams + " | " + figures(ours, streamsOf(load, settings)) + " | " +
                        text(ratio.middle, 2) + " (" + text(ratio.least, 2) + " to " + text(ratio.most, 2) + ")" +
                        " | " + text(load.aimedRatio, 1) + " |");
        addQuality(load, ours);
        judge(load, ratio, ours, floor);
        addTools(load, floor);
        return true;
    }

    void print() const
    {
        std::cout
            << "| load | receiver | streams | % of a core | CPU s/GB | MB a stream | times the floor (rounds) | aim "
               "|\n|---|---|---|---|---|---|---|---|\n";
        for (const std::string& row : costs)
            std::cout << row << '\n';
        std::cout
            << "\n| load, our module | connected in s | frame handed over after µs: median, 99th percentile | "
               "allocations a packet, a frame | frames missing, damaged | received, % of sent | % of a core for the "
               "source |\n|---|---|---|---|---|---|---|\n";
        for (const std::string& row : qualities)
            std::cout << row << '\n';
        std::cout << '\n';
        for (const std::string& verdict : verdicts)
            std::cout << "- " << verdict << '\n';
        std::cout << std::flush;
    }

private:
    template <typename Body>
    static bool run(std::vector<Sample>& samples, Body&& body)
    {
        try {
            samples.push_back(body());
            return true;
        } catch (const std::exception& e) {
            std::fprintf(stderr, "failed: %s\n", e.what());
            return false;
        }
    }

    static std::string text(double value, int decimals)
    {
        std::ostringstream stream;
        stream << std::fixed << std::setprecision(decimals) << value;
        return stream.str();
    }

    static std::string figures(const std::vector<Sample>& samples, std::size_t streams)
    {
        const double memory = medianOf(samples, [](const Sample& s) { return s.residentMb; });
        return text(medianOf(samples, [](const Sample& s) { return s.corePercent; }), 1) + " | " +
               text(medianOf(samples, [](const Sample& s) { return s.secondsPerGb; }), 3) + " | " +
               text(memory / static_cast<double>(streams), 2);
    }

    void addQuality(const Load& load, const std::vector<Sample>& ours)
    {
        const auto field = [&](const char* name) {
            return medianOf(ours, [name](const Sample& s) { return s.result[name].asDouble(); });
        };
        const std::string latency =
            load.many ? text(field("latencyMedianNs") / 1e3, 0) + ", " + text(field("latency99Ns") / 1e3, 0) : "";
        double missing = 0;
        double bad = 0;
        for (const Sample& sample : ours) {
            missing += sample.result["missing"].asDouble();
            bad += sample.result["bad"].asDouble();
        }
        qualities.push_back("| " + load.name + " | " + text(field("connectSeconds"), 2) + " | " + latency + " | " +
                            text(field("allocations") / field("wirePackets"), 4) + ", " +
                            text(field("framesWithAllocation") / field("frames"), 4) + " | " + text(missing, 0) + ", " +
                            text(bad, 0) + " | " + text(worstReceived(ours), 1) + " | " +
                            text(medianOf(ours, [](const Sample& s) { return s.sourcePercent; }), 0) + " |");
    }

    /// Of the run that differs most from what was sent: less when bytes pile up, more when it catches up.
    static double worstReceived(const std::vector<Sample>& samples)
    {
        return std::ranges::max(samples, {}, [](const Sample& s) { return std::abs(s.receivedPercent - 100); })
            .receivedPercent;
    }

    /// Says in words which aims are met.
    void judge(const Load& load, const Ratio& ratio, const std::vector<Sample>& ours, const std::vector<Sample>& floor)
    {
        const double received = worstReceived(ours);
        const double floorReceived = worstReceived(floor);
        std::string verdict = load.name + ": ";
        if (std::max(std::abs(received - 100), std::abs(floorReceived - 100)) > backlogPercent)
            verdict += "no verdict, the receivers got " + text(received, 1) + " and " + text(floorReceived, 1) +
                       " % of what was sent meanwhile";
        else
            verdict += text(ratio.middle, 2) + " times the floor, " +
                       (ratio.middle <= load.aimedRatio ? "met" : "MISSED") + " (aim " + text(load.aimedRatio, 1) + ")";
        if (load.many) {
            const double late =
                medianOf(ours, [](const Sample& s) { return s.result["latency99Ns"].asDouble() / 1e6; });
            verdict += "; 99 % of the frames within " + text(late, 2) + " ms, " +
                       (late <= aimedLatencyMs ? "met" : "MISSED") + " (aim " + text(aimedLatencyMs, 0) + " ms)";
        }
        verdicts.push_back(std::move(verdict));
    }

    void addTools(const Load& load, const std::vector<Sample>& floor)
    {
        const bool udp = load.transport == "udp";
        addTool("ffmpeg", "ffmpeg", load, floor, [&](const std::string& url) {
            return std::vector<std::string>{"ffmpeg",       "-nostdin", "-v", "quiet", "-rtsp_transport",
                                            load.transport, "-i",       url,  "-c",    "copy",
                                            "-f",           "null",     "-"};
        });
        addTool("GStreamer", "gst-launch-1.0", load, floor, [&](const std::string& url) {
            return std::vector<std::string>{"gst-launch-1.0",
                                            "-q",
                                            "rtspsrc",
                                            "location=" + url,
                                            udp ? "protocols=udp" : "protocols=tcp",
                                            "!",
                                            "rtph264depay",
                                            "!",
                                            "h264parse",
                                            "!",
                                            "fakesink"};
        });
    }

    void addTool(const char* name, const char* programName, const Load& load, const std::vector<Sample>& floor,
                 const std::function<std::vector<std::string>(const std::string&)>& command)
    {
        if (settings.toolStreams == 0 || !isInstalled(programName))
            return;
        std::fprintf(stderr, "%s: %s\n", load.name.c_str(), name);
        std::vector<Sample> samples;
        const std::size_t streams = load.many ? settings.toolStreams : 1;
        if (!run(samples, [&] { return runTool(command, load, settings); })) {
            costs.push_back(std::string("| | ") + name + " | " + std::to_string(streams) + " | failed | | | | |");
            return;
        }
        const double floorPerGb = medianOf(floor, [](const Sample& s) { return s.secondsPerGb; });
        costs.push_back(std::string("| | ") + name + " | " + std::to_string(streams) + " | " +
                        figures(samples, streams) + " | " + text(samples.front().secondsPerGb / floorPerGb, 1) +
                        " | |");
    }

    const Settings settings;
    std::vector<std::string> costs;
    std::vector<std::string> qualities;
    std::vector<std::string> verdicts;
};
}  // namespace

int main(int argc, char** argv)
try {
    const Arguments arguments(
        argc, argv,
        {"streams", "tool-streams", "seconds", "warm-up", "rounds", "only", "source-cores", "receiver-cores"});
    Settings settings;
    settings.streams = arguments.number("streams", settings.streams);
    settings.toolStreams = arguments.number("tool-streams", settings.toolStreams);
    settings.seconds = arguments.number("seconds", settings.seconds);
    settings.warmUp = arguments.number("warm-up", settings.warmUp);
    settings.rounds = arguments.number("rounds", settings.rounds);
    settings.only = arguments.text("only");
    settings.sourceCores = arguments.text("source-cores");
    settings.receiverCores = arguments.text("receiver-cores");
    std::signal(SIGPIPE, SIG_IGN);
    Table table(settings);
    bool complete = true;
    for (const Load& load : loads) {
        if (load.name.find(settings.only) != std::string::npos)
            complete = table.add(load) && complete;
    }
    table.print();
    return complete ? 0 : 1;
} catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 2;
}
