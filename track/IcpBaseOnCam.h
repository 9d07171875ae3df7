// Registers a frame against a view of the model by projective point-to-plane ICP.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "foundation/RigidMatrix.h"
#include "foundation/export.h"

namespace VexelAlgorithm {
namespace Track {

/// How the last registration ended.
enum class IcpEnd : std::int32_t {
    NotRun,
    Accepted,
    BadConfiguration,
    BadInput,
    ZeroDistance,
    NoCorrespondences,
    SingularSystem,
    NotConverged,
    ResidualTooLarge,
    TooFewValid,
};

class VEXEL_API IcpBaseOnCam {
public:
    IcpBaseOnCam(int iterNum, int iterNumFixed, const Vector2f& icpDis, float disAvgThread, const Vector2f& rata,
                 const std::string& debugPath, const Vector2f& corrRatio, int threadNum);
    ~IcpBaseOnCam();
    IcpBaseOnCam(const IcpBaseOnCam&) = delete;
    IcpBaseOnCam& operator=(const IcpBaseOnCam&) = delete;

    bool get_inisucc() const;
    RetVal realTimeIcp(const PointImage& fixed, const PointImage& moving, RigidMatrix& result,
                       const RigidMatrix& initial, int debugId, bool acceptFar);

    IcpEnd get_end() const;
    float get_residual() const;
    bool get_isStable_icp() const;
    RigidMatrix get_bestRecord_rt() const;
    /// Correspondences of the last iteration, fixed threshold, moving threshold.
    Vector3f get_corr_par() const;

    Vector2f get_rata() const;
    void set_rata(const Vector2f& rata);
    Vector2f get_icpDis() const;
    void set_icpDis(const Vector2f& icpDis);
    float get_disAvgThread() const;
    void set_disAvgThread(float disAvgThread);
    float get_Stable_Threadhold() const;
    void set_icpStableThreadhold(float threshold);
    void reset_code_Num(int step);

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace Track
}  // namespace VexelAlgorithm
