// How the programs name, time and run their benchmarks.
#pragma once

#include <benchmark/benchmark.h>

#include <string>

#include "recording/DepthImage.h"

namespace VexelBench {

/// Adds a benchmark that states the time of its iterations itself.
template <class Function, class... Arguments>
void add(const std::string& name, Function function, Arguments... arguments) {
    benchmark::RegisterBenchmark(name.c_str(), function, arguments...)->UseManualTime()->Unit(benchmark::kMillisecond);
}

/// The time of whole iterations, and that of the processor on all threads.
inline void timed_as_a_whole(benchmark::internal::Benchmark* added) {
    added->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
}

inline std::string size_text(const VexelAlgorithm::ImageSize& size) {
    return std::to_string(size.width) + 'x' + std::to_string(size.height);
}

/// The main function of a program: `add_all` adds what is not known before it runs.
template <class AddAll>
int run_benchmarks(int argc, char** argv, const AddAll& add_all) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    add_all();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

}  // namespace VexelBench
