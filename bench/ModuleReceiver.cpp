// Our receiver: the module, loaded as a host loads it, with one device and one stream for each camera of a load
// source. Counts what reaches the frame handler, checks that nothing is missing, and measures what all of it costs.
#include "AllocationCounter.h"
#include "Arguments.h"
#include "BenchHost.h"
#include "FrameStamp.h"
#include "LatencyHistogram.h"
#include "ProcessCost.h"

#include <Tavro8/GDRV.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace
{
using namespace kelvo::bench;
using namespace Tavro8;
using namespace Tavro8::GDRV;

constexpr std::string_view startCode("\0\0\0\1", 4);

/// Wakes the main thread when a stream has come to a point that it waits for.
struct Progress {
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t begun = 0;     // streams with a first frame
    std::size_t complete = 0;  // streams that have all frames they wait for

    void note(std::size_t Progress::*count)
    {
        const std::lock_guard lock(mutex);
        ++(this->*count);
        changed.notify_all();
    }
    bool await(std::size_t Progress::*count, std::size_t streams, double seconds)
    {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::duration<double>(seconds), [&] { return this->*count >= streams; });
    }
};

/// What the streams of a process have in common.
class Run {
public:
    Progress progress;
    std::atomic<bool> measuring{false};
    std::uint64_t framesAwaited = 0;

    /// One for each I/O thread, so that counting costs a stream no memory of its own.
    LatencyHistogram& latencyOfThisThread()
    {
        static thread_local LatencyHistogram* own = nullptr;
        if (own == nullptr) {
            const std::lock_guard lock(mutex);
            own = &latencies.emplace_back();
        }
        return *own;
    }
    void addLatenciesTo(LatencyHistogram& sum)
    {
        const std::lock_guard lock(mutex);
        for (const LatencyHistogram& one : latencies)
            one.addTo(sum);
    }

private:
    std::mutex mutex;  // guards the list, not what is in it
    std::deque<LatencyHistogram> latencies;
};

/// The counters of one stream. Its I/O thread writes, the main thread reads.
struct Counters {
    std::atomic<std::uint64_t> frames{0};
    std::atomic<std::uint64_t> keyFrames{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> bad{0};      // not what the source has sent
    std::atomic<std::uint64_t> missing{0};  // frames left out before one that came
    std::atomic<std::uint64_t> wireBytes{0};
    std::atomic<std::uint64_t> wirePackets{0};
    std::atomic<std::uint64_t> framesWithAllocation{0};  // something was allocated on the thread since the frame before
};

/// Only one thread writes, so an increment need not be one step.
void increase(std::atomic<std::uint64_t>& counter, std::uint64_t by) noexcept
{
    counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

/// One camera and its stream.
class Stream final : private IDeviceHandler, private IAsyncDeviceChannelHandler, private IMediaFrameHandler {
public:
    Stream(IModule& module, const CameraDescription& camera, const std::string& transport, Run& run) : run(run)
    {
        if (module.CreateDevice(&camera, this, &device) != 0)
            throw std::runtime_error("the module makes no device");
        const ParameterMap parameters{{"transport", transport}};
        if (device->CreateVideoSource(0, 0, this, this, parameters, nullptr, &video) != 0)
            throw std::runtime_error("the module makes no video source");
    }
    ~Stream()
    {
        if (video != nullptr)
            video->Destroy();
        if (device != nullptr)
            device->Destroy();
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    void start(const std::string& address)
    {
        video->Start();
        device->Open(address.c_str());
    }

    Counters counters;

private:
    void* FindContract(const char* name) noexcept override
    {
        if (void* handler =
                findContractIn<IAsyncDeviceChannelHandler>(static_cast<IAsyncDeviceChannelHandler*>(this), name))
            return handler;
        return findContractIn<IDeviceHandler, IContract>(static_cast<IDeviceHandler*>(this), name);
    }
    void Connected(IDevice*) noexcept override {}
    void ConnectFailed(IDevice*, std::int32_t result) noexcept override { complain("not connected", result); }
    void ConnectionLost(IDevice*, std::int32_t result) noexcept override { complain("connection lost", result); }
    void Closed(IDevice*) noexcept override {}
    void Started(IContract*) noexcept override {}
    void Stopped(IContract*) noexcept override {}
    void StatisticsUpdated(IContract*, const StreamStatistics&) noexcept override {}
    void SettingsApplied(IContract*, const char*, std::int32_t) noexcept override {}
    void OnStreamState(IContract*, std::int32_t result) noexcept override
    {
        if (result != 0)
            complain("no media", result);
    }
    static void complain(const char* what, std::int32_t result)
    {
        std::fprintf(stderr, "%s: %s\n", what, describeResult(result));
    }

    void OnFrame(IContract*, const MediaFrame& frame) noexcept override
    {
        const std::uint64_t now = monotonicNs();
        const auto stamp = FrameStamp::decode(frame.data);
        const bool whole =
            stamp && !frame.damaged &&
            std::string_view(reinterpret_cast<const char*>(frame.data.data()), startCode.size()) == startCode;
        if (!whole) {
            increase(counters.bad, 1);
        } else {
            increase(counters.missing, stamp->frame - nextFrame);
            nextFrame = stamp->frame + 1;
            counters.wireBytes.store(stamp->wireBytes, std::memory_order_relaxed);
            counters.wirePackets.store(stamp->wirePackets, std::memory_order_relaxed);
            if (run.measuring.load(std::memory_order_relaxed))
                run.latencyOfThisThread().add(now - stamp->sentNs);
        }
        increase(counters.keyFrames, frame.keyFrame ? 1 : 0);
        increase(counters.bytes, frame.data.size());
        increase(counters.frames, 1);
        noteAllocations();
        noteProgress(counters.frames.load(std::memory_order_relaxed));
    }

    /// The thread's frames of other streams count as well: what was allocated since belongs to none of them.
    void noteAllocations() noexcept
    {
        static thread_local std::size_t before = 0;
        const std::size_t now = kelvo::test::heapUseOfThisThread().allocations;
        if (std::exchange(before, now) != now)
            increase(counters.framesWithAllocation, 1);
    }

    void noteProgress(std::uint64_t frames) noexcept
    {
        if (frames == 1)
            run.progress.note(&Progress::begun);
        if (frames == run.framesAwaited)
            run.progress.note(&Progress::complete);
    }

    Run& run;
    IDevice* device = nullptr;
    IVideoSource* video = nullptr;
    std::uint32_t nextFrame = 0;
};

/// The counters of all streams at one moment.
struct Sum {
    std::uint64_t frames = 0;
    std::uint64_t keyFrames = 0;
    std::uint64_t bytes = 0;
    std::uint64_t bad = 0;
    std::uint64_t missing = 0;
    std::uint64_t wireBytes = 0;
    std::uint64_t wirePackets = 0;
    std::uint64_t framesWithAllocation = 0;
    std::uint64_t allocations = 0;
    ProcessCost cost;

    static Sum of(const std::vector<std::unique_ptr<Stream>>& streams)
    {
        Sum sum;
        for (const auto& stream : streams) {
            const Counters& one = stream->counters;
            sum.frames += one.frames;
            sum.keyFrames += one.keyFrames;
            sum.bytes += one.bytes;
            sum.bad += one.bad;
            sum.missing += one.missing;
            sum.wireBytes += one.wireBytes;
            sum.wirePackets += one.wirePackets;
            sum.framesWithAllocation += one.framesWithAllocation;
        }
        sum.allocations = kelvo::test::allocationCount();
        sum.cost = ProcessCost::present();
        return sum;
    }
};

void print(const char* name, std::uint64_t value)
{
    std::printf(",\"%s\":%llu", name, static_cast<unsigned long long>(value));
}

void printResult(Run& run, const Sum& before, const Sum& after, const ProcessCost& empty, double connectSeconds,
                 double seconds)
{
    LatencyHistogram latency;
    run.addLatenciesTo(latency);
    std::printf("{\"event\":\"result\",\"seconds\":%.6f,\"connectSeconds\":%.6f,\"cpuSeconds\":%.6f", seconds,
                connectSeconds, after.cost.cpuSeconds - before.cost.cpuSeconds);
    print("sleeps", after.cost.contextSwitches - before.cost.contextSwitches);
    print("wireBytes", after.wireBytes - before.wireBytes);
    print("wirePackets", after.wirePackets - before.wirePackets);
    print("frames", after.frames - before.frames);
    print("keyFrames", after.keyFrames - before.keyFrames);
    print("frameBytes", after.bytes - before.bytes);
    print("bad", after.bad - before.bad);
    print("missing", after.missing - before.missing);
    print("allocations", after.allocations - before.allocations);
    print("framesWithAllocation", after.framesWithAllocation - before.framesWithAllocation);
    print("latencyMedianNs", latency.percentile(0.5));
    print("latency99Ns", latency.percentile(0.99));
    print("emptyBytes", empty.residentBytes);
    print("residentBytes", after.cost.residentBytes);
    print("peakBytes", after.cost.peakBytes);
    std::printf("}\n");
    std::fflush(stdout);
}

double secondsSince(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void pause(double seconds)
{
    std::mutex mutex;
    std::condition_variable never;
    std::unique_lock lock(mutex);
    never.wait_for(lock, std::chrono::duration<double>(seconds), [] { return false; });
}

int measure(const Arguments& arguments)
{
    const HostedModule module(arguments.text("module", HostedModule::builtPath()));
    const CameraDescription camera;
    Run run;
    run.framesAwaited = arguments.number<std::uint64_t>("frames", 0);
    const auto count = arguments.number<std::size_t>("streams", 1);
    const double patience = arguments.number("patience", 30.0);
    const std::string address = "127.0.0.1:" + arguments.text("http", "80");

    const ProcessCost empty = ProcessCost::present();
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::unique_ptr<Stream>> streams;
    for (std::size_t i = 0; i < count; ++i)
        streams.push_back(std::make_unique<Stream>(*module, camera, arguments.text("transport", "tcp"), run));
    for (const auto& stream : streams)
        stream->start(address);
    if (!run.progress.await(&Progress::begun, count, patience))
        throw std::runtime_error("not all streams have begun in time");
    const double connectSeconds = secondsSince(begin);

    Sum before;
    auto steady = begin;
    if (run.framesAwaited != 0) {
        if (!run.progress.await(&Progress::complete, count, patience))
            throw std::runtime_error("not all frames have come in time");
    } else {
        pause(arguments.number("warm-up", 1.0));
        std::printf("{\"event\":\"steady\"}\n");
        std::fflush(stdout);
        steady = std::chrono::steady_clock::now();
        run.measuring = true;
        before = Sum::of(streams);
        pause(arguments.number("seconds", 4.0));
    }
    const Sum after = Sum::of(streams);
    run.measuring = false;
    printResult(run, before, after, empty, connectSeconds, secondsSince(steady));
    return 0;
}
}  // namespace

int main(int argc, char** argv)
try {
    raiseDescriptorLimit();
    return measure(
        Arguments(argc, argv, {"module", "http", "streams", "transport", "seconds", "warm-up", "frames", "patience"}));
} catch (const std::exception& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
}
