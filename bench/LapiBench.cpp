#include "Lapi.h"

#include <benchmark/benchmark.h>
#include <string>
#include <vector>

namespace
{
std::vector<char> bytes(const std::string& text)
{
    return {text.begin(), text.end()};
}

/// Pretty-printed with tabs, as devices send it.
std::string reply(const std::string& data)
{
    return "{\n\t\"Response\":\t{\n\t\t\"ResponseURL\":\t\"/LAPI/V1.0/System/DeviceInfo\",\n\t\t\"CreatedID\":\t-1,\n"
           "\t\t\"ResponseCode\":\t0,\n\t\t\"SubResponseCode\":\t0,\n\t\t\"ResponseString\":\t\"Succeed\",\n"
           "\t\t\"StatusCode\":\t0,\n\t\t\"StatusString\":\t\"Succeed\",\n\t\t\"Data\":\t" +
           data + "\n\t}\n}";
}

void judgeBody(benchmark::State& state, const std::vector<char>& body)
{
    Tavro8::http::HttpResponse response;
    response.status = 200;
    for (auto _ : state) {
        auto judged = Uniview::lapi::judge({}, response, body);
        benchmark::DoNotOptimize(judged);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(body.size()));
}

void judgeDeviceInfo(benchmark::State& state)
{
    judgeBody(state, bytes(reply("{\n\t\t\t\"DeviceName\":\t\"IPC\",\n\t\t\t\"DeviceType\":\t0\n\t\t}")));
}
BENCHMARK(judgeDeviceInfo);

/// A position: numbers with a fraction take the way around the host's locale.
void judgePosition(benchmark::State& state)
{
    judgeBody(state, bytes(reply("{\"Longitude\":\t359.9,\n\t\t\t\"Latitude\":\t-12.5}")));
}
BENCHMARK(judgePosition);

/// A page of a hundred recordings, the largest reply that is asked for again and again.
void judgeRecordings(benchmark::State& state)
{
    std::string records = "{\"Nums\":\t100,\n\"Total\":\t100,\n\"RecordInfos\":\t[";
    for (int index = 0; index < 100; ++index) {
        records += std::string(index == 0 ? "" : ",") + "{\n\t\t\t\t\"Begin\":\t" +
                   std::to_string(1494208846 + 600 * index) + ",\n\t\t\t\t\"End\":\t" +
                   std::to_string(1494209446 + 600 * index) + "\n\t\t\t}";
    }
    judgeBody(state, bytes(reply(records + "]}")));
}
BENCHMARK(judgeRecordings);

void judgeRefusal(benchmark::State& state)
{
    Tavro8::http::HttpResponse response;
    response.status = 404;
    response.reason = "Not Found";
    for (auto _ : state) {
        const auto judged = Uniview::lapi::judge({}, response, {});
        auto line = Uniview::lapi::describe(judged, "/LAPI/V1.0/System/DeviceInfo");
        benchmark::DoNotOptimize(line);
    }
}
BENCHMARK(judgeRefusal);
}  // namespace
