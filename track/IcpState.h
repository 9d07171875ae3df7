// Settings and working state of the projective ICP. Internal to the library.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "track/CorrespondenceSet.h"
#include "track/FixedImage.h"
#include "track/IcpBaseOnCam.h"
#include "track/IcpSchedule.h"
#include "track/MovingPoints.h"
#include "track/normalEquations.h"

namespace VexelAlgorithm {
namespace Track {

/// The two settings that another thread may change during a registration.
struct IcpThresholds {
    float disAvgThread = 0.0F;         ///< mm
    Vector2f rata = Vector2f::Zero();  ///< shares of fixed pixels and of moving points
};

struct IcpBaseOnCam::State {
    static constexpr int DebugFrame = 1000000;
    static constexpr int LargestNotImproving = 2;
    static constexpr double NoDistance = 1e6;  ///< the average of no correspondences, mm

    // Settings.
    IcpSchedule schedule;
    std::string debugPath;
    int threadNum = 1;
    float stableThreshold = 5.0F;
    int codeNum = 12;
    bool inisucc = false;
    mutable std::mutex thresholdMutex;
    IcpThresholds thresholds;  ///< under the mutex
    std::atomic<bool> isDebug{false};

    // Working state of one registration.
    FixedImage fixed;
    MovingPoints moving;
    CorrespondenceSet cloudCorr;
    std::vector<float> rankScratch;
    NormalEquations system;  ///< of the last step
    RigidMatrix currentPose;

    // Outcome.
    IcpEnd end = IcpEnd::NotRun;
    RigidMatrix bestPose;
    float residual = 0.0F;
    bool isStable = true;
    float fixedThreshold = 0.0F;
    float movingThreshold = 0.0F;

    IcpThresholds locked_thresholds() const;
    Alignment alignment(const RigidMatrix& movingToFixed) const {
        return {fixed, moving.points(), FloatPose(movingToFixed)};
    }

    // The registration, from top to bottom.
    RetVal register_frame(const PointImage& fixedImage, const PointImage& movingImage, RigidMatrix& result,
                          const RigidMatrix& initial, int debugId, bool acceptFar);
    bool is_input_usable(const PointImage& fixedImage, const PointImage& movingImage, const RigidMatrix& initial);
    void compact_movecloud(const PointImage& fixedImage, const PointImage& movingImage);
    IcpEnd iterate(const IcpThresholds& limits, int debugId);
    IcpEnd check_result(const IcpThresholds& limits, bool acceptFar);

    // Its steps.
    void find_correspond_parallel(int iterId, float& disCut, double& disAvg);
    void getmat_parallel(float disCut);
    bool prepare_for_next_inter(float disCut);
    void judge_stability();
    std::int64_t error_correspond_detect_parallel(bool acceptFar, double& disAvg) const;

    // Dumps.
    void debug_outpu_data(int iterId) const;
    void output_corr_point(int iterId) const;
};

}  // namespace Track
}  // namespace VexelAlgorithm
