// Registration of frames.
#include <algorithm>
#include <string>
#include <vector>

#include "bench/Stopwatch.h"
#include "bench/runBenchmarks.h"
#include "bench/trackingData.h"
#include "track/IcpBaseOnCam.h"

#ifdef VEXEL_BENCH_RGBD
#    include "bench/fastIcp.h"
#endif

namespace {

using namespace VexelAlgorithm;
using namespace VexelBench;

// An iteration registers one pair of frames that follow each other, from the pose of no motion.
void icp(benchmark::State& state, FramePairsSource source, ImageSize size, int threads) {
    const FramePairs* pairs = source(size);
    if (pairs == nullptr) return state.SkipWithError("no frames");
    const IcpSettings& settings = pairs->settings;
    Track::IcpBaseOnCam registration(settings.iterNum, settings.iterNumFixed, settings.icpDis, settings.disAvgThread,
                                     settings.rata, "", settings.corrRatio, threads);
    std::vector<double> errors;
    TimeSum time;
    std::size_t next = 0;
    for (auto _ : state) {
        const FramePair& pair = pairs->pairs[next++ % pairs->pairs.size()];
        RigidMatrix movingToFixed;
        const Stopwatch watch;
        const RetVal code = registration.realTimeIcp(pair.fixed, pair.moving, movingToFixed, RigidMatrix(), 0, false);
        const TimeSum run = watch.sum();
        if (code != RET_SUCCESS) return state.SkipWithError("a pair was not registered");
        state.SetIterationTime(run.wall);
        time += run;
        errors.push_back(rms_distance(pair.moving, movingToFixed, pair.movingToFixed));
    }
    state.counters["cpu_ms"] = time.cpu / Milli / static_cast<double>(state.iterations());
    state.counters["medianError_mm"] = median(errors);
    state.counters["points"] = static_cast<double>(pairs->pairs.front().moving.count_vaildNum());
}

void add_pairs(const std::string& data, FramePairsSource source, const std::vector<ImageSize>& sizes) {
    for (const ImageSize& size : sizes) {
        const std::string suffix = data + '/' + size_text(size);
        for (const int threads : {1, 2})
            add("icp/" + suffix + "/threads:" + std::to_string(threads), icp, source, size, threads);
#ifdef VEXEL_BENCH_RGBD
        add("icp/fastIcpOdometry/" + suffix, fast_icp_odometry, source, size);
#endif
    }
}

}  // namespace

int main(int argc, char** argv) {
    return run_benchmarks(argc, argv, [] {
        add_pairs("office", office_pairs, {{320, 240}, {640, 480}});
        add_pairs("rendered", rendered_pairs, {{320, 240}, {640, 480}, {640, 512}});
    });
}
