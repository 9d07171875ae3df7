#include "track/IcpBaseOnCam.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"
#include "track/IcpState.h"
#include "track/distanceRank.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

RetVal code_of(IcpEnd end) {
    switch (end) {
        case IcpEnd::Accepted:
            return RET_SUCCESS;
        case IcpEnd::BadInput:
        case IcpEnd::ZeroDistance:
            return RET_INPUT_ERROR;
        case IcpEnd::BadConfiguration:
        case IcpEnd::SingularSystem:
            return RET_INI_ERROR;
        case IcpEnd::OutOfMemory:
            return RET_RUN_FAIL;
        default:
            return RET_NOT_CONVERGED;
    }
}

/// The slot that a point outside the map would have; for the diagnostic line alone.
long long slot_outside_map(const ProjectedPoint& p, const SlotCamera& camera) {
    const SlotPosition position = nearest_slot(p, camera);
    const double slot = std::trunc(double{position.y}) * camera.width + std::trunc(double{position.x});
    return static_cast<long long>(std::clamp(slot, -9e18, 9e18));
}

void report_out_of_map(const Alignment& alignment, std::int32_t entry) {
    const SlotCamera& camera = alignment.fixed.camera();
    const ProjectedPoint p = project(alignment.moving[entry], alignment.movingToFixed, camera);
    print_line("wrong pixPointBelongTo < 0 || pixPointBelongTo >= _fixCloudVaildMap.size()");
    print_line(format_text("pixPointBelongTo = %lld", slot_outside_map(p, camera)));
}

}  // namespace

// ---- the registration -------------------------------------------------------------------------------

RetVal IcpBaseOnCam::State::register_frame(const PointImage& fixedImage, const PointImage& movingImage,
                                           RigidMatrix& result, const RigidMatrix& initial, int debugId,
                                           bool acceptFar) {
    isDebug = false;
    if (!inisucc) {
        print_line(
            "ini fail because icpDis(1)<icpDis(0) || icpAng(1) < icpAng(0)|| iterNum <= 0 || (iterNum - iterNumFixed) "
            "<= 3");
        end = IcpEnd::BadConfiguration;
        return code_of(end);
    }
    if (!is_input_usable(fixedImage, movingImage, initial)) {
        end = IcpEnd::BadInput;
        return code_of(end);
    }
    const IcpThresholds limits = locked_thresholds();
    compact_movecloud(fixedImage, movingImage);
    currentPose = bestPose = initial;
    system = {};
    isStable = true;
    residual = fixedThreshold = movingThreshold = 0.0F;

    end = iterate(limits, debugId);
    if (end == IcpEnd::Accepted) end = check_result(limits, acceptFar);
    if (end == IcpEnd::Accepted || end == IcpEnd::ResidualTooLarge) result = bestPose;
    return code_of(end);
}

bool IcpBaseOnCam::State::is_input_usable(const PointImage& fixedImage, const PointImage& movingImage,
                                          const RigidMatrix& initial) {
    if (!fixedImage.is_enable_vNormal() || !movingImage.is_enable_vNormal() || !movingImage.is_enable_vWeight()) {
        print_line(
            "!cloudFixed.is_enable_vNormal() || !cloudMove.is_enable_vNormal()|| !cloudMove.is_enable_vWeight()");
        return false;
    }
    std::string fault = FixedImage::fault(fixedImage);
    if (fault.empty()) fault = MovingPoints::fault(movingImage);
    if (fault.empty() && !initial.is_finite()) fault = "the initial pose is not finite";
    if (fault.empty()) return true;
    print_line("realTimeIcp fail because " + fault);
    return false;
}

void IcpBaseOnCam::State::compact_movecloud(const PointImage& fixedImage, const PointImage& movingImage) {
    cloudCorr.resize(movingImage.get_vn());
    fixed.prepare(fixedImage, threadNum);
    moving.prepare(movingImage, threadNum);
}

IcpEnd IcpBaseOnCam::State::iterate(const IcpThresholds& limits, int debugId) {
    double disAvg = NoDistance, previousDis = NoDistance, bestDis = NoDistance;
    int notImproving = 0;
    for (int iterId = 0; iterId < schedule.iterNum; ++iterId) {
        if (iterId > schedule.iterNumFixed) previousDis = disAvg;
        float disCut = 0.0F;
        find_correspond_parallel(iterId, disCut, disAvg);
        if (isDebug && debugId == DebugFrame) {
            debug_outpu_data(iterId);
            output_corr_point(iterId);
        }
        if (std::abs(disAvg) < 1e-6) {
            print_line("Error!!!! icp failed because average distance = 0");
            return IcpEnd::ZeroDistance;
        }
        if (cloudCorr.count() < 1) {
            print_line("icp False correspondNum = 0 ");
            residual = static_cast<float>(NoDistance);
            return IcpEnd::NoCorrespondences;
        }
        if (!schedule.is_coarse(iterId)) {
            const bool isBetter = disAvg < bestDis;
            if (isBetter) {
                bestDis = disAvg;
                bestPose = currentPose;
            }
            notImproving = isBetter ? 0 : notImproving + 1;
            const bool hasConverged =
                std::abs(disAvg - previousDis) < 0.05 * previousDis && previousDis < limits.disAvgThread;
            if (notImproving == LargestNotImproving || iterId == schedule.iterNum - 1 || hasConverged) {
                return IcpEnd::Accepted;
            }
        }
        if (!prepare_for_next_inter(disCut)) {
            residual = static_cast<float>(NoDistance);
            return IcpEnd::SingularSystem;
        }
    }
    return IcpEnd::NotConverged;
}

IcpEnd IcpBaseOnCam::State::check_result(const IcpThresholds& limits, bool acceptFar) {
    fixedThreshold = static_cast<float>(fixed.usable_count()) * limits.rata(0);
    movingThreshold = static_cast<float>(moving.count()) * limits.rata(1);
    judge_stability();

    double disAvg = NoDistance;
    const std::int64_t vaildCorrNum = error_correspond_detect_parallel(acceptFar, disAvg);
    residual = static_cast<float>(disAvg);
    if (!(disAvg < limits.disAvgThread)) {
        print_line("icp False , because disAvg > disThread");
        print_line(format_text("disAvg = %f   disThread = %f ", disAvg, static_cast<double>(limits.disAvgThread)));
        return IcpEnd::ResidualTooLarge;
    }
    const float count = static_cast<float>(vaildCorrNum);
    if (!(count > fixedThreshold) || !(count > movingThreshold)) {
        print_line("icp False , vaildCorrNum too small ");
        print_line(format_text("corrThresholdCloudFix = %f    corrThresholdRaCloudMove = %f ",
                               static_cast<double>(fixedThreshold), static_cast<double>(movingThreshold)));
        print_line(format_text("_IcpRataRay(0) = %f     _IcpRataRay(1) = %f  ", static_cast<double>(limits.rata(0)),
                               static_cast<double>(limits.rata(1))));
        print_line(format_text("vaildCorrNum = %d ", static_cast<int>(vaildCorrNum)));
        return IcpEnd::TooFewValid;
    }
    return IcpEnd::Accepted;
}

// ---- its steps --------------------------------------------------------------------------------------

void IcpBaseOnCam::State::find_correspond_parallel(int iterId, float& disCut, double& disAvg) {
    const std::size_t step = schedule.is_coarse(iterId) ? static_cast<std::size_t>(codeNum) : 1;
    const Alignment current = alignment(currentPose);
    const SearchResult search = cloudCorr.find(current, moving.count(), step, schedule.disSchedule(iterId), threadNum);
    if (search.outOfMap > 0) report_out_of_map(current, search.firstOutOfMap);

    disAvg = NoDistance;
    if (search.found == 0) return;
    const std::size_t rank = rank_of_share(search.found, schedule.ratioSchedule(iterId));
    disCut = element_of_rank(cloudCorr.distances(), search.found, rank, rankScratch, threadNum);
    disAvg = mean_up_to(cloudCorr.distances(), search.found, disCut, threadNum);
}

void IcpBaseOnCam::State::getmat_parallel(float disCut) {
    system = cloudCorr.sum_system(alignment(currentPose), disCut, threadNum);
}

bool IcpBaseOnCam::State::prepare_for_next_inter(float disCut) {
    getmat_parallel(disCut);
    if (step_pose(system, fixed.centre(), currentPose)) return true;
    print_line("icp False covMat.determinant() is too small ");
    return false;
}

void IcpBaseOnCam::State::judge_stability() {
    const double smallest = smallest_eigenvalue(system.JTJ());
    isStable = smallest >= static_cast<double>(stableThreshold);
    if (isStable) return;
    print_line(
        format_text("this is a unstable , icp may fail. %f < %f ", smallest, static_cast<double>(stableThreshold)));
}

std::int64_t IcpBaseOnCam::State::error_correspond_detect_parallel(bool acceptFar, double& disAvg) const {
    constexpr float Unlimited = std::numeric_limits<float>::infinity();
    const Alignment best = alignment(bestPose);
    const ResidualRule rule{ImageBorder, acceptFar ? Unlimited : schedule.disSchedule(0), Unlimited};
    const double saturation = largest_summed_distance(moving.count());
    std::atomic<std::int64_t> sum{0}, count{0};
    parallel_ranges(threadNum, moving.count(), KernelChunk, [&](std::size_t begin, std::size_t last) {
        for (std::size_t first = begin; first < last; first += KernelChunk) {
            const EntryRange range{first, std::min(KernelChunk, last - first), 1};
            const ResidualSum chunk = best_correspondence_kernels().residual(best, range, rule, saturation);
            sum.fetch_add(chunk.sum, std::memory_order_relaxed);
            count.fetch_add(chunk.count, std::memory_order_relaxed);
        }
    });
    disAvg = count > 0 ? static_cast<double>(sum) / (static_cast<double>(count) * _tbbfloattoint) : NoDistance;
    return count;
}

// ---- the interface ----------------------------------------------------------------------------------

IcpBaseOnCam::IcpBaseOnCam(int iterNum, int iterNumFixed, const Vector2f& icpDis, float disAvgThread,
                           const Vector2f& rata, const std::string& debugPath, const Vector2f& corrRatio, int threadNum)
    : _state(std::make_unique<State>()) {
    _state->schedule = {iterNum, iterNumFixed, icpDis, corrRatio};
    _state->thresholds = {disAvgThread, rata};
    _state->debugPath = debugPath;
    _state->threadNum = usable_threads(threadNum);
    _state->inisucc = _state->schedule.is_usable();
    if (!_state->inisucc) {
        print_line("ini fail because icpDis(1)<icpDis(0) || iterNum <= 0 || (iterNum - iterNumFixed) <= 3");
    }
}

IcpBaseOnCam::~IcpBaseOnCam() = default;

bool IcpBaseOnCam::get_inisucc() const {
    return _state->inisucc;
}

RetVal IcpBaseOnCam::realTimeIcp(const PointImage& fixed, const PointImage& moving, RigidMatrix& result,
                                 const RigidMatrix& initial, int debugId, bool acceptFar) {
    try {
        return _state->register_frame(fixed, moving, result, initial, debugId, acceptFar);
    } catch (const std::exception& failure) {
        print_line(std::string("realTimeIcp fail because ") + failure.what());
    } catch (...) {
        print_line("realTimeIcp fail because of an unknown exception");
    }
    _state->end = IcpEnd::OutOfMemory;
    return code_of(_state->end);
}

IcpEnd IcpBaseOnCam::get_end() const {
    return _state->end;
}
float IcpBaseOnCam::get_residual() const {
    return _state->residual;
}
bool IcpBaseOnCam::get_isStable_icp() const {
    return _state->isStable;
}
RigidMatrix IcpBaseOnCam::get_bestRecord_rt() const {
    return _state->bestPose;
}
Vector3f IcpBaseOnCam::get_corr_par() const {
    return {static_cast<float>(_state->cloudCorr.count()), _state->fixedThreshold, _state->movingThreshold};
}

IcpThresholds IcpBaseOnCam::State::locked_thresholds() const {
    const std::lock_guard<std::mutex> lock(thresholdMutex);
    return thresholds;
}
Vector2f IcpBaseOnCam::get_rata() const {
    return _state->locked_thresholds().rata;
}
void IcpBaseOnCam::set_rata(const Vector2f& rata) {
    const std::lock_guard<std::mutex> lock(_state->thresholdMutex);
    _state->thresholds.rata = rata;
}
float IcpBaseOnCam::get_disAvgThread() const {
    return _state->locked_thresholds().disAvgThread;
}
void IcpBaseOnCam::set_disAvgThread(float disAvgThread) {
    const std::lock_guard<std::mutex> lock(_state->thresholdMutex);
    _state->thresholds.disAvgThread = disAvgThread;
}

Vector2f IcpBaseOnCam::get_icpDis() const {
    return _state->schedule.icpDis;
}
void IcpBaseOnCam::set_icpDis(const Vector2f& icpDis) {
    if (!IcpSchedule::are_gates_usable(icpDis)) {
        return print_line("set_icpDis fail because icpDis(1)<icpDis(0) or a value is not finite");
    }
    _state->schedule.icpDis = icpDis;
}
Vector2f IcpBaseOnCam::get_corrRatio() const {
    return _state->schedule.corrRatio;
}
void IcpBaseOnCam::set_corrRatio(const Vector2f& corrRatio) {
    _state->schedule.corrRatio = corrRatio;
}
float IcpBaseOnCam::get_Stable_Threadhold() const {
    return _state->stableThreshold;
}
void IcpBaseOnCam::set_icpStableThreadhold(float threshold) {
    _state->stableThreshold = threshold;
}
void IcpBaseOnCam::reset_code_Num(int step) {
    if (step < 1) return print_line("reset_code_Num fail because the step is below 1");
    _state->codeNum = step;
}

void IcpBaseOnCam::set_debug(bool isDebug) {
    _state->isDebug = isDebug;
}
void IcpBaseOnCam::debug_outpu_data(int iterId) const {
    _state->debug_outpu_data(iterId);
}
void IcpBaseOnCam::output_corr_point(int iterId) const {
    _state->output_corr_point(iterId);
}

}  // namespace Track
}  // namespace VexelAlgorithm
