// Many cameras in one process, to load a receiver with. Tells its ports on the first line of its output; answers each
// line on its input, and the end of its input, with what it has sent and cost so far; then it ends.
#include "Arguments.h"
#include "LoadSource.h"
#include "ProcessCost.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <unistd.h>

namespace
{
using namespace kelvo::bench;

LoadPace paceNamed(const std::string& name)
{
    if (name == "burst")
        return LoadPace::burst;
    if (name == "spread")
        return LoadPace::spread;
    if (name == "full")
        return LoadPace::full;
    throw std::runtime_error("--pace is burst, spread or full");
}

void report(LoadSource& source)
{
    const LoadSource::Totals& totals = source.totals();
    std::printf("{\"frames\":%llu,\"keyFrames\":%llu,\"elementBytes\":%llu,\"wireBytes\":%llu,\"wirePackets\":%llu,"
                "\"datagrams\":%llu,\"skippedPackets\":%llu,\"cpuSeconds\":%.6f}\n",
                static_cast<unsigned long long>(totals.frames), static_cast<unsigned long long>(totals.keyFrames),
                static_cast<unsigned long long>(totals.elementBytes), static_cast<unsigned long long>(totals.wireBytes),
                static_cast<unsigned long long>(totals.wirePackets), static_cast<unsigned long long>(totals.datagrams),
                static_cast<unsigned long long>(totals.skippedPackets), ProcessCost::present().cpuSeconds);
    std::fflush(stdout);
}
}  // namespace

int main(int argc, char** argv)
try {
    const Arguments arguments(argc, argv, {"pace", "frames"});
    LoadOptions options;
    options.pace = paceNamed(arguments.text("pace", "burst"));
    options.frames = arguments.number("frames", options.frames);
    std::signal(SIGPIPE, SIG_IGN);
    raiseDescriptorLimit();
    LoadSource source(options);
    std::printf("{\"http\":%u,\"rtsp\":%u}\n", source.httpPort(), source.rtspPort());
    std::fflush(stdout);
    source.run(STDIN_FILENO, report);
    report(source);
    return 0;
} catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
}
