#include "AllocationCounter.h"

#include "wire/InterleavedParser.h"

#include <benchmark/benchmark.h>

#include <string_view>

namespace Tavro8::wire
{
namespace
{
constexpr std::size_t bufferBytes = std::size_t{256} * 1024;  ///< what one read of a busy connection brings
constexpr std::size_t payloadBytes = 1400;

void appendFrame(Bytes& to, std::uint8_t channel, std::size_t count)
{
    appendByte(to, '$');
    appendByte(to, channel);
    appendBe16(to, static_cast<std::uint16_t>(count));
    to.resize(to.size() + count, 0x80);
}

Bytes framesOnly()
{
    Bytes bytes;
    while (bytes.size() + 4 + payloadBytes <= bufferBytes)
        appendFrame(bytes, 0, payloadBytes);
    return bytes;
}

/// Pictures of video packets, then sound, and now and then a report and the answer to a keep-alive.
Bytes mixedStream()
{
    constexpr std::string_view answer = "RTSP/1.0 200 OK\r\nCSeq: 12\r\nSession: 88;timeout=60\r\n\r\n";
    Bytes bytes;
    while (bytes.size() + 16 * 1024 <= bufferBytes) {
        for (int packet = 0; packet < 8; ++packet)
            appendFrame(bytes, 0, payloadBytes);
        appendFrame(bytes, 2, 172);
        appendFrame(bytes, 1, 28);
    }
    bytes.insert(bytes.end(), answer.begin(), answer.end());
    return bytes;
}

void parse(benchmark::State& state, const Bytes& bytes)
{
    InterleavedParser parser;
    std::size_t units = 0;
    const std::size_t allocationsBefore = kelvo::test::allocationCount();
    for (auto _ : state) {
        ByteView input(bytes);
        for (;;) {
            const InterleavedParser::Result result = parser.next(input);
            if (std::holds_alternative<InterleavedParser::NeedMore>(result))
                break;
            if (std::holds_alternative<InterleavedParser::Malformed>(result)) {
                state.SkipWithError("malformed");
                return;
            }
            if (const auto* frame = std::get_if<InterleavedFrame>(&result))
                benchmark::DoNotOptimize(frame->payload.data());
            ++units;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
    state.SetItemsProcessed(static_cast<std::int64_t>(units));
    state.counters["allocations/unit"] = static_cast<double>(kelvo::test::allocationCount() - allocationsBefore) /
                                         static_cast<double>(units == 0 ? 1 : units);
}

void framesOf1400Bytes(benchmark::State& state)
{
    parse(state, framesOnly());
}
BENCHMARK(framesOf1400Bytes);

void videoSoundAndReports(benchmark::State& state)
{
    parse(state, mixedStream());
}
BENCHMARK(videoSoundAndReports);
}  // namespace
}  // namespace Tavro8::wire
