// Integration, extraction and raycast of the signed-distance volume.
#include <algorithm>
#include <cstdio>
#include <string>

#include "bench/Stopwatch.h"
#include "bench/benchData.h"
#include "bench/runBenchmarks.h"
#include "fusion/rayCast.h"

#ifdef VEXEL_BENCH_RGBD
#    include "bench/kinfuVolumes.h"
#endif

namespace {

using namespace VexelAlgorithm;
using namespace VexelBench;

constexpr double MiB = 1024.0 * 1024.0;
constexpr float IntervalFactor = 3.0f;

using SequenceSource = const Sequence* (*)();

// ---- integration ------------------------------------------------------------------------------------

struct IntegrationTime {
    TimeSum all;
    double slowest = 0.0;  // s
};

IntegrationTime integrate_all(Volume& volume, const Sequence& sequence, Fusion::ChangedLeaves& changed) {
    IntegrationTime time;
    for (const PosedFrame& posed : sequence.frames) {
        const Stopwatch watch;
        integrate(volume, posed, changed);
        const TimeSum frame = watch.sum();
        time.all += frame;
        time.slowest = std::max(time.slowest, frame.wall);
    }
    return time;
}

void report_volume(benchmark::State& state, const Volume& volume, std::int64_t residentBytes) {
    const LeafCounts leaves = count_leaves(volume);
    const double bytes = static_cast<double>(handed_out_bytes(volume));
    state.counters["leafUpdates/s"] =
        benchmark::Counter(static_cast<double>(leaves.contributions), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["leaves"] = static_cast<double>(volume.get_vaild_leaf_num());
    state.counters["usedLeaves"] = static_cast<double>(leaves.used);
    state.counters["bytes/leaf"] = bytes / volume.get_vaild_leaf_num();
    state.counters["octreeMiB"] = bytes / MiB;
    state.counters["residentMiB"] = static_cast<double>(residentBytes) / MiB;
}

// The whole sequence into an empty volume; the time of an iteration is that of the integrations alone.
void integration(benchmark::State& state, SequenceSource source, int threads) {
    const Sequence* sequence = source();
    if (sequence == nullptr) return state.SkipWithError("no frames");

    IntegrationTime time;
    bool reported = false;
    for (auto _ : state) {
        const std::int64_t before = resident_bytes();
        Fusion::ChangedLeaves changed;
        const auto volume = empty_volume(*sequence, threads);
        const IntegrationTime run = integrate_all(*volume, *sequence, changed);
        state.SetIterationTime(run.all.wall);
        time.all += run.all;
        time.slowest = std::max(time.slowest, run.slowest);
        if (!reported) {
            const auto changedBytes = static_cast<std::int64_t>(changed.size() * sizeof(int));
            report_volume(state, *volume, resident_bytes() - before - changedBytes);
            reported = true;
        }
    }
    const double frames = static_cast<double>(sequence->frames.size()) * static_cast<double>(state.iterations());
    state.counters["ms/frame"] = time.all.wall / Milli / frames;
    state.counters["cpu_ms/frame"] = time.all.cpu / Milli / frames;
    state.counters["slowestFrame_ms"] = time.slowest / Milli;
    state.counters["points/s"] =
        benchmark::Counter(static_cast<double>(sequence->pointCount), benchmark::Counter::kIsIterationInvariantRate);
}

// ---- extraction -------------------------------------------------------------------------------------

using Extract = RetVal (Volume::*)(float, BaseTriMesh&, std::vector<int>&, bool);

void extraction(benchmark::State& state, SequenceSource source, Extract extract, int threads) {
    const Sequence* sequence = source();
    if (sequence == nullptr) return state.SkipWithError("no frames");
    Volume& volume = fused_volume(*sequence);
    volume.reset_code_Num(threads);

    std::size_t triangles = 0;
    TimeSum time;
    for (auto _ : state) {
        BaseTriMesh mesh;
        std::vector<int> vertexAxis;
        const Stopwatch watch;
        (volume.*extract)(0.0f, mesh, vertexAxis, false);
        const TimeSum run = watch.sum();
        state.SetIterationTime(run.wall);
        time += run;
        triangles = mesh.get_fn();
    }
    state.counters["cpu_ms"] = time.cpu / Milli / static_cast<double>(state.iterations());
    state.counters["triangles"] = static_cast<double>(triangles);
    state.counters["triangles/s"] =
        benchmark::Counter(static_cast<double>(triangles), benchmark::Counter::kIsIterationInvariantRate);
}

// ---- raycast ----------------------------------------------------------------------------------------

enum class Normals { TimedApart, FromImage, FromVolume };

PointImage empty_view(const PointImage& frame) {
    PointImage view;
    view.ini(frame.get_image_width(), frame.get_image_height(), frame.get_camPar(), 1, Vector2f::Zero());
    return view;
}

// TimedApart: the time is that of the rays, without the normals, which are computed and timed a second time.
void raycast(benchmark::State& state, SequenceSource source, bool guided, Normals normals, int threads) {
    const Sequence* sequence = source();
    if (sequence == nullptr) return state.SkipWithError("no frames");
    Volume& volume = fused_volume(*sequence);
    volume.reset_code_Num(threads);
    const PosedFrame& posed = sequence->view();
    Fusion::RayCastNormals settings;
    settings.fromImage = normals != Normals::FromVolume;
    settings.distance = settings.fromImage ? 10.0f : 0.0f;

    PointImage view;
    TimeSum time, normalTime;
    for (auto _ : state) {
        view = empty_view(posed.frame);
        const Stopwatch watch;
        rayCast(volume, posed.frame, posed.cameraToModel, view, guided, sequence->nearFar, settings, IntervalFactor);
        TimeSum run = watch.sum();
        if (normals == Normals::TimedApart) {
            const Stopwatch normalWatch;
            view.update_VNrv(settings.step, settings.step + 1, settings.distance);
            const TimeSum again = normalWatch.sum();
            normalTime += again;
            run -= again;
        }
        state.SetIterationTime(std::max(run.wall, 0.0));
        time += run;
    }
    state.counters["cpu_ms"] = time.cpu / Milli / static_cast<double>(state.iterations());
    state.counters["rays/s"] =
        benchmark::Counter(static_cast<double>(view.get_vn()), benchmark::Counter::kIsIterationInvariantRate);
    if (normals == Normals::TimedApart) {
        state.counters["normals_ms"] = normalTime.wall / Milli / static_cast<double>(state.iterations());
    }
    state.counters["hits"] = view.count_vaildNum();
    view.to_ori_coor();
    const DepthAgreement agreement = compare_depths(depths_of(view), depths_of(posed.frame));
    state.counters["coverage"] = agreement.coverage;
    state.counters["medianError_mm"] = agreement.medianError;
    if (!agreement.is_same_surface(sequence->pointDis)) state.SkipWithError("the view does not show the surface");
}

// ---- start ------------------------------------------------------------------------------------------

void empty_start(benchmark::State& state) {
    std::int64_t residentBytes = 0;
    for (auto _ : state) {
        const std::int64_t before = resident_bytes();
        const Stopwatch watch;
        const Volume volume(12, 0.5f, 0.5f, 5, 2, "");
        state.SetIterationTime(watch.sum().wall);
        if (residentBytes == 0) residentBytes = resident_bytes() - before;
    }
    state.counters["residentMiB"] = static_cast<double>(residentBytes) / MiB;
}

// ---- the list ---------------------------------------------------------------------------------------

void add_sequence(const std::string& data, SequenceSource source) {
    for (const int threads : {1, 2}) {
        const std::string suffix = "/" + data + "/threads:" + std::to_string(threads);
        add("integration" + suffix, integration, source, threads);
        add("extraction/tbb" + suffix, extraction, source, &Volume::get_result_tbb, threads);
        add("extraction/openmp" + suffix, extraction, source, &Volume::get_result, threads);
        add("raycast/guided" + suffix, raycast, source, true, Normals::TimedApart, threads);
        add("raycast/guided/imageNormals" + suffix, raycast, source, true, Normals::FromImage, threads);
        add("raycast/guided/volumeNormals" + suffix, raycast, source, true, Normals::FromVolume, threads);
        add("raycast/unguided" + suffix, raycast, source, false, Normals::TimedApart, threads);
        add("raycast/unguided/volumeNormals" + suffix, raycast, source, false, Normals::FromVolume, threads);
    }
}

}  // namespace

int main(int argc, char** argv) {
    return run_benchmarks(argc, argv, [] {
        if (has_recordings()) {
            add_sequence("office", office_recording);
#ifdef VEXEL_BENCH_RGBD
            add_kinfu_volumes("office", office_recording);
#endif
        } else {
            std::fprintf(
                stderr,
                "Benchmarks on real frames are left out: VEXEL_RECORDINGS names no folder with office_depth.\n");
        }
        add_sequence("rendered", rendered_object);
        add("emptyVolume", empty_start);
    });
}
