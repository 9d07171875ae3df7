// The frame step of a scan session, through its handle.
#include <algorithm>
#include <future>
#include <string>
#include <vector>

#include "algorithmQorInclude.h"
#include "bench/Stopwatch.h"
#include "bench/runBenchmarks.h"
#include "bench/sessionData.h"

#ifdef VEXEL_BENCH_RGBD
#    include "bench/kinfuLoop.h"
#endif

namespace {

using namespace VexelAlgorithm;
using namespace VexelBench;

class Session {
public:
    Session(const ScanSequence& sequence, int threads) {
        FusionParameter fusion = sequence.settings.fusion;
        fusion.codeNumSet = threads;
        _handle = fusion_and_track_ini(sequence.settings.common, sequence.settings.track, fusion);
    }
    ~Session() {
        if (_handle != nullptr) fusiontrack_release(_handle);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool is_made() const { return _handle != nullptr; }
    void* handle() const { return _handle; }

    bool step(const ScanFrame& scanned) {
        int elapsedMicroseconds = 0;
        return fusion_and_track(_handle, scanned.frame, elapsedMicroseconds);
    }
    FrameStepTimes stage_times() const {
        FusionScanState state;
        get_fusion_scan_state(_handle, state);
        return state.times;
    }

private:
    void* _handle = nullptr;
};

/// Sums over frames.
struct StageSums {
    TimeSum whole;
    double slowest = 0.0;   // s
    FrameStepTimes stages;  // ms
    int frames = 0;

    void add(const TimeSum& step, const FrameStepTimes& times) {
        whole += step;
        slowest = std::max(slowest, step.wall);
        stages.prepare += times.prepare;
        stages.particles += times.particles;
        stages.icp += times.icp;
        stages.integrate += times.integrate;
        stages.predict += times.predict;
        ++frames;
    }
    void report(benchmark::State& state) const {
        state.counters["ms/frame"] = whole.wall / Milli / frames;
        state.counters["cpu_ms/frame"] = whole.cpu / Milli / frames;
        state.counters["frames/s"] = frames / whole.wall;
        state.counters["slowestFrame_ms"] = slowest / Milli;
        state.counters["prepare_ms"] = stages.prepare / frames;
        state.counters["particles_ms"] = stages.particles / frames;
        state.counters["icp_ms"] = stages.icp / frames;
        state.counters["integrate_ms"] = stages.integrate / frames;
        state.counters["predict_ms"] = stages.predict / frames;
    }
};

// An iteration scans the whole sequence in a new session. The first frame, which is only fused, counts in no figure.
void whole_scan(benchmark::State& state, ScanSource source, ImageSize size, int threads) {
    const ScanSequence* sequence = source(size);
    if (sequence == nullptr) return state.SkipWithError("no frames");
    StageSums sums;
    std::vector<RigidMatrix> poses;
    for (auto _ : state) {
        Session session(*sequence, threads);
        if (!session.is_made() || !session.step(sequence->frames.front())) {
            return state.SkipWithError("the session did not start");
        }
        poses.assign(1, RigidMatrix());
        double seconds = 0.0;
        for (std::size_t i = 1; i < sequence->frames.size(); ++i) {
            const Stopwatch watch;
            if (!session.step(sequence->frames[i])) return state.SkipWithError("a frame was lost");
            const TimeSum step = watch.sum();
            sums.add(step, session.stage_times());
            seconds += step.wall;
            poses.push_back(get_current_rt(session.handle()));
        }
        state.SetIterationTime(seconds);
    }
    sums.report(state);
    state.counters["trajectoryError_mm"] = trajectory_error(*sequence, poses);
}

/// The records of a colour camera 45 mm beside the scanner's with twice its pixels along each axis.
void add_color_camera(ScanSequence& sequence) {
    const CameraInParam& camera = sequence.settings.common.campar;
    FusionParameter& fusion = sequence.settings.fusion;
    fusion.colorImageSize = 2 * sequence.settings.common.imageSize;
    fusion.colorImageRange << 0, 0, fusion.colorImageSize;
    fusion.colorImagePar << 2.0 * camera.get_fx(), 0.0, 2.0 * camera.get_cx() + 0.5, 0.0, 2.0 * camera.get_fy(),
        2.0 * camera.get_cy() + 0.5, 0.0, 0.0, 1.0;
    fusion.tranLeftToColor = RigidMatrix(Matrix3d::Identity(), Vector3d(-45.0, 0.0, 0.0));
}

ColorImage any_image(const Vector2i& size) {
    ColorImage image;
    image.width = size.x();
    image.height = size.y();
    image.bytes.resize(image.row_bytes() * static_cast<std::size_t>(image.height));
    for (std::size_t i = 0; i < image.bytes.size(); ++i) image.bytes[i] = static_cast<std::uint8_t>(i / 7 % 256);
    return image;
}

// Two sessions take turns with the same frames, one without colour and one with images; what is counted is the
// processor's time for the step and for bringing the display up to date.
void colored_scan(benchmark::State& state, ScanSource source, ImageSize size, int threads) {
    const ScanSequence* given = source(size);
    if (given == nullptr) return state.SkipWithError("no frames");
    ScanSequence sequence;
    sequence.settings = given->settings;
    add_color_camera(sequence);
    ColorAndPoint colored;
    colored.color = any_image(sequence.settings.fusion.colorImageSize);
    TimeSum plainSteps, coloredSteps, plainDisplay, coloredDisplay;
    double plainIntegration = 0.0, coloredIntegration = 0.0, plainPreparation = 0.0, coloredPreparation = 0.0;
    int frames = 0;
    for (auto _ : state) {
        Session plain(sequence, threads), inColor(sequence, threads);
        if (!plain.is_made() || !inColor.is_made()) return state.SkipWithError("the session did not start");
        for (std::size_t i = 0; i < given->frames.size(); ++i) {
            colored.point = given->frames[i].frame;
            const Stopwatch plainStep;
            if (!plain.step(given->frames[i])) return state.SkipWithError("a frame was lost");
            const TimeSum plainTime = plainStep.sum();
            int microseconds = 0;
            const Stopwatch coloredStep;
            if (!fusion_and_track(inColor.handle(), colored, microseconds, true, 0)) {
                return state.SkipWithError("a coloured frame was lost");
            }
            const TimeSum coloredTime = coloredStep.sum();
            const Stopwatch plainShow;
            get_show_data(plain.handle());
            const TimeSum plainShown = plainShow.sum();
            const Stopwatch coloredShow;
            get_show_data(inColor.handle());
            const TimeSum coloredShown = coloredShow.sum();
            if (i == 0) continue;
            plainSteps += plainTime;
            coloredSteps += coloredTime;
            plainDisplay += plainShown;
            coloredDisplay += coloredShown;
            plainIntegration += plain.stage_times().integrate;
            coloredIntegration += inColor.stage_times().integrate;
            plainPreparation += plain.stage_times().prepare;
            coloredPreparation += inColor.stage_times().prepare;
            ++frames;
        }
        state.SetIterationTime(coloredSteps.wall);
    }
    state.counters["cpu_ms/frame"] = coloredSteps.cpu / Milli / frames;
    state.counters["plain_cpu_ms/frame"] = plainSteps.cpu / Milli / frames;
    state.counters["integrate_ms"] = coloredIntegration / frames;
    state.counters["plain_integrate_ms"] = plainIntegration / frames;
    state.counters["prepare_ms"] = coloredPreparation / frames;
    state.counters["plain_prepare_ms"] = plainPreparation / frames;
    state.counters["display_cpu_ms"] = coloredDisplay.cpu / Milli / frames;
    state.counters["plain_display_cpu_ms"] = plainDisplay.cpu / Milli / frames;
}

/// Slope of the least-squares line through the values at 0, 1, 2, ...
double slope(const std::vector<double>& values) {
    const double middle = 0.5 * (static_cast<double>(values.size()) - 1.0);
    double products = 0.0, squares = 0.0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const double offset = static_cast<double>(i) - middle;
        products += offset * values[i];
        squares += offset * offset;
    }
    return products / squares;
}

double mean(std::vector<double>::const_iterator first, std::vector<double>::const_iterator last) {
    double sum = 0.0;
    for (auto value = first; value != last; ++value) sum += *value;
    return sum / static_cast<double>(last - first);
}

// 1000 frames of a view that stays, all fused: whether the frame step becomes slower the more has been fused.
void still_view(benchmark::State& state, ScanSource source, ImageSize size, int threads) {
    constexpr int FrameCount = 1000, WarmUp = 20, Part = 100;
    const ScanSequence* sequence = source(size);
    if (sequence == nullptr) return state.SkipWithError("no frames");
    std::vector<double> milliseconds, processorMilliseconds;
    for (auto _ : state) {
        Session session(*sequence, threads);
        if (!session.is_made()) return state.SkipWithError("the session did not start");
        milliseconds.clear();
        processorMilliseconds.clear();
        double seconds = 0.0;
        for (int i = -WarmUp; i < FrameCount; ++i) {
            const ScanFrame& scanned = sequence->frames[static_cast<std::size_t>(i + WarmUp) % sequence->frames.size()];
            const Stopwatch watch;
            if (!session.step(scanned)) return state.SkipWithError("a frame was lost");
            if (i < 0) continue;
            const TimeSum step = watch.sum();
            seconds += step.wall;
            milliseconds.push_back(step.wall / Milli);
            processorMilliseconds.push_back(step.cpu / Milli);
        }
        state.SetIterationTime(seconds);
    }
    state.counters["ms/frame"] = mean(milliseconds.begin(), milliseconds.end());
    state.counters["cpu_ms/frame"] = mean(processorMilliseconds.begin(), processorMilliseconds.end());
    state.counters["first100_cpu_ms"] = mean(processorMilliseconds.begin(), processorMilliseconds.begin() + Part);
    state.counters["last100_cpu_ms"] = mean(processorMilliseconds.end() - Part, processorMilliseconds.end());
    state.counters["slope_cpu_ms/1000frames"] = slope(processorMilliseconds) * FrameCount;
    state.counters["slope_ms/1000frames"] = slope(milliseconds) * FrameCount;
}

/// The application of a frame that is waited for.
void report(FusionparallelInputData* data) {
    static_cast<std::promise<FusionparallelInputData>*>(data->user)->set_value(*data);
}

void report_success(const Cloud&, const std::vector<int>&, int, const Cloud&, const RigidMatrix&, const RigidMatrix&,
                    FusionparallelInputData* data, int) {
    report(data);
}

void report_fail(const Cloud&, FusionparallelInputData* data) {
    report(data);
}

enum class Given { Copied, TakenOver };

// Each frame is given while the worker rests: how long it takes to the beginning of the step, the session's copy of the
// frame included.
void parallel_delay(benchmark::State& state, ScanSource source, ImageSize size, int threads, Given given) {
    const ScanSequence* sequence = source(size);
    if (sequence == nullptr) return state.SkipWithError("no frames");
    std::vector<double> delays;  // ms
    for (auto _ : state) {
        Session session(*sequence, threads);
        if (!session.is_made()) return state.SkipWithError("the session did not start");
        set_fusion_success_call_back(session.handle(), report_success);
        set_fusion_fail_call_back(session.handle(), report_fail);
        set_illegal_input_call_back(session.handle(), report);
        const Stopwatch watch;
        for (std::size_t i = 0; i < sequence->frames.size(); ++i) {
            std::promise<FusionparallelInputData> reported;
            FusionparallelInputData data;
            data.user = &reported;
            const PointImage& frame = sequence->frames[i].frame;
            const RetVal result = given == Given::Copied
                                      ? fusion_and_track_parallel(session.handle(), frame, data)
                                      : fusion_and_track_parallel(session.handle(), PointImage(frame), data);
            if (result != RET_SUCCESS) return state.SkipWithError("a frame was refused");
            const int delay = reported.get_future().get().queuedMicroseconds;
            if (i > 0) delays.push_back(1e-3 * delay);  // the first one makes the thread
        }
        state.SetIterationTime(watch.sum().wall);
    }
    std::sort(delays.begin(), delays.end());
    state.counters["mean_ms"] = mean(delays.begin(), delays.end());
    state.counters["median_ms"] = delays[delays.size() / 2];
    state.counters["slowest_ms"] = delays.back();
}

void add_scans(const std::string& data, ScanSource source, const std::vector<ImageSize>& sizes) {
    for (const ImageSize& size : sizes) {
        for (const int threads : {1, 2}) {
            add("session/" + data + '/' + size_text(size) + "/threads:" + std::to_string(threads), whole_scan, source,
                size, threads);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    return run_benchmarks(argc, argv, [] {
        add_scans("office", office_scan, {{320, 240}, {640, 480}});
#ifdef VEXEL_BENCH_RGBD
        for (const ImageSize size : {ImageSize{320, 240}, ImageSize{640, 480}})
            add("session/fastIcpAndHashTsdf/office/" + size_text(size) + "/threads:2", kinfu_loop, office_scan, size);
#endif
        add_scans("rendered", rendered_scan, {{320, 240}, {640, 480}, {640, 512}});
        add("still/rendered/320x240/threads:2", still_view, still_scan, ImageSize{320, 240}, 2);
        for (const int threads : {1, 2}) {
            add("colored/rendered/640x512/threads:" + std::to_string(threads), colored_scan, rendered_scan,
                ImageSize{640, 512}, threads);
        }
        for (const ImageSize size : {ImageSize{320, 240}, ImageSize{640, 512}}) {
            const std::string name = "parallelDelay/rendered/" + size_text(size);
            add(name + "/copied", parallel_delay, rendered_scan, size, 2, Given::Copied);
            add(name + "/takenOver", parallel_delay, rendered_scan, size, 2, Given::TakenOver);
        }
    });
}
