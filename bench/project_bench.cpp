// Saving and loading a project of some five million leaves, through the handle, and recording frames for debugging;
// files in the temporary folder, so with a warm cache.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <numeric>
#include <vector>

#include "algorithmQorInclude.h"
#include "apps/peakMemory.h"
#include "bench/Stopwatch.h"
#include "fusiontrackoperation/SessionRecorder.h"

namespace {

using namespace VexelAlgorithm;
using namespace VexelBench;

constexpr double Milli = 1e-3;
constexpr int Width = 1024, Height = 1000;

const CameraInParam Camera(1500.0, 1500.0, Width / 2.0, Height / 2.0);

CommonParameter common_parameter() {
    CommonParameter common;
    common.imageSize = {Width, Height};
    common.campar = Camera;
    common.sample = 1;
    common.rawPointDis = 0.2F;
    return common;
}

FusionParameter fusion_parameter() {
    FusionParameter fusion;
    fusion.pointDis = 0.2F;
    fusion.treeDepth = 12;
    fusion.codeNumSet = 2;
    return fusion;
}

/// A waved surface at 300 mm.
PointImage waved_frame() {
    PointImage frame;
    frame.ini(Width, Height, Camera, 1, Vector2f::Zero());
    frame.enable_vNormal();
    frame.enable_vWeight();
    frame.enable_vFlag();
    for (int y = 0; y < Height; ++y) {
        for (int x = 0; x < Width; ++x) {
            const float u = static_cast<float>(x - Width / 2) / 1500.0F,
                        v = static_cast<float>(y - Height / 2) / 1500.0F;
            const float depth = 300.0F + 4.0F * std::sin(30.0F * u) * std::cos(20.0F * v);
            frame.set_point(x, y, {u * depth, v * depth, depth});
            frame.set_vWeight(frame.index_of(x, y), 1.0F);
        }
    }
    frame.count_point_normal(1, 1, 2, 2, 5.0F);
    return frame;
}

class Session {
public:
    Session() : _handle(fusion_and_track_ini(common_parameter(), TrackParmeter(), fusion_parameter())) {}
    ~Session() {
        if (_handle != nullptr) fusiontrack_release(_handle);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    operator void*() const { return _handle; }

private:
    void* _handle;
};

std::filesystem::path project_path() {
    return std::filesystem::temp_directory_path() / "vexel_project_bench";
}

/// From now on the peak is that of what follows, where the system can do that.
void forget_peak_memory() {
    std::ofstream("/proc/self/clear_refs") << 5;
}

void report(benchmark::State& state, const TimeSum& sum, double beyondMib) {
    const auto times = static_cast<double>(state.iterations());
    state.counters["ms"] = sum.wall / Milli / times;
    state.counters["cpu_ms"] = sum.cpu / Milli / times;
    state.counters["MB"] = static_cast<double>(std::filesystem::file_size(project_path())) / 1e6;
    state.counters["beyondVolume_MiB"] = beyondMib;
}

void project_save(benchmark::State& state) {
    const Session session;
    int microseconds = 0;
    fusion(session, waved_frame(), {}, microseconds);
    get_show_data(session);
    forget_peak_memory();
    const double before = Apps::peak_memory_mib();
    TimeSum sum;
    for (auto _ : state) {
        std::ofstream out(project_path(), std::ios::binary);
        const Stopwatch watch;
        if (!save_project(session, out)) return state.SkipWithError("not saved");
        sum += watch.sum();
    }
    report(state, sum, Apps::peak_memory_mib() - before);
}

void project_load(benchmark::State& state) {
    TimeSum sum;
    double beyondMib = 0.0;
    for (auto _ : state) {
        const Session session;
        std::ifstream in(project_path(), std::ios::binary);
        forget_peak_memory();
        const Stopwatch watch;
        if (!read_project(session, in)) return state.SkipWithError("not read");
        sum += watch.sum();
        const double peak = Apps::peak_memory_mib();
        forget_peak_memory();
        beyondMib = std::max(beyondMib, peak - Apps::peak_memory_mib());
    }
    report(state, sum, beyondMib);
    std::filesystem::remove(project_path());
}

/// Deleting 100,000 neighbouring display points of the whole session, display and prediction included.
void edit_selected(benchmark::State& state) {
    const PointImage frame = waved_frame();
    TimeSum sum;
    for (auto _ : state) {
        const Session session;
        int microseconds = 0;
        fusion(session, frame, {}, microseconds);
        const auto first = static_cast<int>(get_show_data(session).get_vn() / 3);
        std::vector<int> selected(100000);
        std::iota(selected.begin(), selected.end(), first);
        const Stopwatch watch;
        if (delete_selected_point(session, selected) != RET_SUCCESS) return state.SkipWithError("not deleted");
        sum += watch.sum();
    }
    const auto times = static_cast<double>(state.iterations());
    state.counters["ms"] = sum.wall / Milli / times;
    state.counters["cpu_ms"] = sum.cpu / Milli / times;
}

/// Taking a frame whose slots are all filled out of the same session.
void edit_frame(benchmark::State& state) {
    const PointImage frame = waved_frame();
    const Session session;
    int microseconds = 0, index = 0;
    fusion(session, frame, {}, microseconds);
    get_show_data(session);
    TimeSum sum;
    for (auto _ : state) {
        fusion(session, frame, {}, microseconds);
        get_show_data(session);
        const Stopwatch watch;
        if (delete_frame_point(session, ++index) != RET_SUCCESS) return state.SkipWithError("not taken out");
        sum += watch.sum();
    }
    const auto times = static_cast<double>(state.iterations());
    state.counters["ms"] = sum.wall / Milli / times;
    state.counters["cpu_ms"] = sum.cpu / Milli / times;
}

/// What debug recording adds to the step of a frame whose slots are all filled.
void debug_recording(benchmark::State& state) {
    DataArchiveConfig& config = DataArchiveConfig::global();
    config.set_store_directory(std::filesystem::temp_directory_path().string());
    config.set_name_prefix("vexel_project_bench");
    config.set_archive_enabled(true);
    config.set_testbug_enabled(true);
    const std::filesystem::path file = std::filesystem::temp_directory_path() / "vexel_project_bench-000001.tb";
    std::filesystem::remove(file);
    const PointImage frame = waved_frame();
    TimeSum sum;
    {
        SessionRecorder recorder;
        recorder.begin({common_parameter(), TrackParmeter(), fusion_parameter(), std::nullopt, 0});
        for (auto _ : state) {
            const Stopwatch watch;
            recorder.frame_given("fusion_and_track", FrameArguments(), frame, 0);
            recorder.frame_done(FrameResult());
            sum += watch.sum();
        }
    }
    config.set_testbug_enabled(false);
    const auto times = static_cast<double>(state.iterations());
    state.counters["ms"] = sum.wall / Milli / times;
    state.counters["cpu_ms"] = sum.cpu / Milli / times;
    state.counters["MB_per_frame"] = static_cast<double>(std::filesystem::file_size(file)) / 1e6 / times;
    std::filesystem::remove(file);
}

// Loading reads what saving has written.
BENCHMARK(project_save)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(project_load)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(edit_selected)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(edit_frame)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(debug_recording)->Unit(benchmark::kMillisecond)->Iterations(20);

}  // namespace

BENCHMARK_MAIN();
