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
    BadConfiguration,   ///< the constructor's values are not usable
    BadInput,           ///< an image or the initial pose is not usable
    ZeroDistance,       ///< the images already coincide to 1e-6 mm: two copies of one image
    NoCorrespondences,  ///< an iteration found no partner for any point
    SingularSystem,     ///< the normal matrix has no solution
    NotConverged,       ///< the iterations were used up
    ResidualTooLarge,   ///< the average distance of the final check is not below `disAvgThread`
    TooFewValid,        ///< too few points of the final check have a partner
    OutOfMemory,        ///< or another failure of the system the library runs on
};

/// Finds the pose that takes the points of a moving image to the frame of reference of a fixed image. Every moving
/// point is projected into the fixed image and paired with what it meets there (Blais and Levine 1995). The sum of
/// squared distances from the partners' tangent planes (Chen and Medioni 1991), each distance multiplied by the moving
/// point's weight, is minimised by linearised steps (Low 2004) over the share of nearest pairs (trimming: Chetverikov
/// et al. 2002). Pairs whose interpolated partner lies beyond the trimming cut are left out too: at depth edges it
/// floats between two surfaces.
///
/// The first `iterNumFixed` iterations are coarse: every `code_Num`-th point, a distance gate that shrinks linearly
/// from icpDis(1) to icpDis(0), a keep ratio that goes from corrRatio(0) to corrRatio(1). The others use every point,
/// icpDis(0) and corrRatio(1), and only their poses are candidates for the result. They end when the average distance
/// changes by less than a twentieth while being below `disAvgThread`, when it has not improved twice in a row, or with
/// the last iteration.
///
/// What serves well: for a room-size depth camera (errors of some mm), 20 iterations of which 6 coarse, gates of 20 and
/// 100 mm, keep ratios of 0.9 and 0.97, `disAvgThread` of 10 mm; for frames of a desk-size object (errors of some 0.1
/// mm) gates of 1 and 6 mm, keep ratios of 0.7 and 0.9, `disAvgThread` of 0.5 mm, and more coarse iterations with a
/// wider first gate where it moves faster.
///
/// Units: mm, radians, pixels. The same input gives the same bytes, with any number of threads.
///
/// Threads: one registration at a time for each object; `get_disAvgThread`, `set_disAvgThread`, `get_rata` and
/// `set_rata` may be called meanwhile from any thread and act on the next registration. All other members belong to the
/// thread that registers, or between registrations. Nothing throws but the constructor, when there is no memory.
class VEXEL_API IcpBaseOnCam {
public:
    /// `icpDis`: gates of the point-to-plane distance, mm. `disAvgThread`: largest average distance of a result, mm.
    /// `rata`: least shares of the usable fixed pixels and of the usable moving points that must end with a partner.
    /// `corrRatio`: shares of pairs kept, below 1; others count as the nearest rank there is. `threadNum`: at least 1.
    /// Gates that are not finite or in the wrong order, `iterNum` below 1, or no iteration behind the coarse ones: one
    /// line, and the object refuses to register.
    IcpBaseOnCam(int iterNum, int iterNumFixed, const Vector2f& icpDis, float disAvgThread, const Vector2f& rata,
                 const std::string& debugPath, const Vector2f& corrRatio, int threadNum);
    ~IcpBaseOnCam();
    IcpBaseOnCam(const IcpBaseOnCam&) = delete;
    IcpBaseOnCam& operator=(const IcpBaseOnCam&) = delete;

    /// Whether the constructor's values are usable.
    bool get_inisucc() const;

    /// `initial` and `result` take moving points to the fixed image's frame. The fixed image needs normals, the moving
    /// one normals and weights; their sizes and cameras may differ, and the stored poses of both are ignored. With
    /// `acceptFar` the final check counts points however far their partner is, otherwise up to the first gate.
    ///
    /// RET_SUCCESS: `result` is the pose. RET_NOT_CONVERGED: no acceptable pose; `result` is the best one when the
    /// average distance was too large, and as it was otherwise. RET_INPUT_ERROR: images or initial pose are not usable,
    /// or the images coincide. RET_INI_ERROR: configuration or system not usable. RET_RUN_FAIL: no memory. Failures
    /// print their line; `get_end` tells them apart. A point outside the fixed image's map because of its view radial
    /// prints its two lines once for each search, for the first such point. `result` may be the same object as
    /// `initial`.
    RetVal realTimeIcp(const PointImage& fixed, const PointImage& moving, RigidMatrix& result,
                       const RigidMatrix& initial, int debugId, bool acceptFar);

    // ---- the last registration ------------------------------------------------------------------------

    IcpEnd get_end() const;
    /// Average point-to-plane distance of the final check, mm; 1e6 when it failed before for want of correspondences or
    /// of a solution, 0 when the images coincide. What cannot be registered at all leaves it, and the values below, as
    /// they were.
    float get_residual() const;
    /// False when the smallest eigenvalue of the last iteration's normal matrix (angles in radians, lengths in mm,
    /// points relative to the fixed image's centre) is below the stable threshold: some motion is not held by the
    /// points.
    bool get_isStable_icp() const;
    /// The pose of smallest average distance among the fine iterations; the initial pose before there is one.
    RigidMatrix get_bestRecord_rt() const;
    /// Correspondences of the last iteration, and the thresholds for those of the final check: of the fixed pixels and
    /// of the moving points.
    Vector3f get_corr_par() const;

    // ---- settings -------------------------------------------------------------------------------------

    Vector2f get_rata() const;
    void set_rata(const Vector2f& rata);
    Vector2f get_icpDis() const;
    /// Gates that the constructor would refuse give one line and change nothing.
    void set_icpDis(const Vector2f& icpDis);
    Vector2f get_corrRatio() const;
    /// As the constructor takes them.
    void set_corrRatio(const Vector2f& corrRatio);
    float get_disAvgThread() const;
    void set_disAvgThread(float disAvgThread);
    float get_Stable_Threadhold() const;
    void set_icpStableThreadhold(float threshold);
    /// The step between the points of coarse iterations, 12 at first. Below 1: one line, nothing changed.
    void reset_code_Num(int step);

    // ---- debugging ------------------------------------------------------------------------------------

    /// Whether iterations of the running registration write their dumps, when its `debugId` is 1000000. Every
    /// registration starts by clearing it. May be called from any thread.
    void set_debug(bool isDebug);
    /// Writes "icpFixed_%d.txt" and "icpMoving_%d.txt" under the debug path: the usable points of both images, the
    /// moving ones at the current pose ("x y z", the fixed ones with "nx ny nz").
    void debug_outpu_data(int iterId) const;
    /// Writes "icpCorrespond_%d.txt" under the debug path: one line for each correspondence of the last search, with
    /// fixed point, normal, moving point (mm), distance (mm), mode, and the slots of the moving point and of its pixel.
    void output_corr_point(int iterId) const;

private:
    struct State;
    std::unique_ptr<State> _state;
};

}  // namespace Track
}  // namespace VexelAlgorithm
