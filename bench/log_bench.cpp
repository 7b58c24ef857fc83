#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>

#include "framework/log/logging.h"

namespace {

constexpr const char* kMarker = "/tmp/Quorvik-PleaseDoLog";

void BM_MainLoggerOff(benchmark::State& state) {
    std::remove(kMarker);
    for (auto _ : state) QVK_Framework_Log_Internal("bench", "Bench", 1, 5, "%s %d", "value", 42);
}
BENCHMARK(BM_MainLoggerOff);

void BM_MainLoggerCombinedFile(benchmark::State& state) {
    if (std::FILE* f = std::fopen(kMarker, "w")) std::fclose(f);
    for (auto _ : state) QVK_Framework_Log_Internal("bench", "Bench", 1, 5, "%s %d", "value", 42);
    std::remove(kMarker);
    std::remove(("/tmp/Quorvik.Log." + std::to_string(getpid())).c_str());
}
BENCHMARK(BM_MainLoggerCombinedFile);

}  // namespace
