// Finds the pose of a frame that is far from the prediction: short ICPs from a grid of start poses.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "foundation/RigidMatrix.h"
#include "foundation/export.h"

namespace VexelAlgorithm {
namespace Track {

class VEXEL_API ParticleTrack {
public:
    ParticleTrack(float disThreshold, int iterNum, const std::string& debugPath, int codeNum,
                  const Vector3i& particleCounts, const Vector3f& particleSizes, float minValidRatio, float keepRatio,
                  int threadNum);
    ~ParticleTrack();
    ParticleTrack(const ParticleTrack&) = delete;
    ParticleTrack& operator=(const ParticleTrack&) = delete;

    /// RET_SUCCESS; RET_INPUT_ERROR for images that cannot be used; RET_RUN_FAIL when no particle is left.
    RetVal partical_track(const PointImage& fixed, const PointImage& moving, RigidMatrix& result, int frameId,
                          const std::vector<RigidMatrix>* extraPoses);

    Vector3f get_particleSize() const;
    void reset_particleSize(float size);
    void reset_code_Num(int codeNum);
    float get_the_min_residual() const;
    void release();

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace Track
}  // namespace VexelAlgorithm
