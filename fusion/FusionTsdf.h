// The truncated signed-distance volume: posed frames go in, a mesh comes out.
#pragma once

#include <tbb/concurrent_vector.h>

#include <cstdint>
#include <string>
#include <vector>

#include "foundation/BaseTriMesh.h"
#include "foundation/PointImage.h"
#include "foundation/RetVal.h"
#include "foundation/export.h"
#include "fusion/FusionCone.h"
#include "fusion/LeafTSDFCloudGenerator.h"
#include "fusion/LeafTSDFLaser.h"
#include "fusion/LeafTSDFSpeckle.h"
#include "fusion/LeafTSDFTeeth.h"
#include "fusion/Octree.h"
#include "fusion/OffsetCube.h"

namespace VexelAlgorithm {
namespace Fusion {

/// Leaf indices in the order in which integration marked them changed.
using ChangedLeaves = tbb::concurrent_vector<int>;

/// Fuses posed point images into a sparse octree of signed distances and extracts the surface.
///
/// Method: every measured point contributes its point-to-plane distance to the voxels of a small cube around
/// it that lie inside the viewing cone of its pixel; a voxel holds the weighted mean. After B. Curless and
/// M. Levoy, "A volumetric method for building complex models from range images", SIGGRAPH 1996.
///
/// Lengths are in millimetres. Poses take camera coordinates to model coordinates. Voxel (i, j, k) has its
/// centre at shift + (i + 0.5, j + 0.5, k + 0.5) pointDis. Distances are positive in front of the surface.
///
/// Thread-safety: one operation at a time, except that const operations may overlap each other. Integration,
/// extraction and raycast run on up to `get_code_Num()` threads inside. With one thread the results are the
/// same bytes on every run; with several, leaf indices depend on timing, values only by rounding.
///
/// Instantiated for LeafTSDFSpeckle, LeafTSDFTeeth, LeafTSDFCloudGenerator and LeafTSDFLaser.
template <class Leaf>
class FusionTsdf {
public:
    using Octree = VexelOctree::Octree<Leaf>;

    /// treeDepth: bits per axis, clamped to [10, 20] (15 for the laser leaf). pointDis: voxel edge in mm; 0.5
    /// when it is not a positive number. smoothThreshold: half-width of a pixel's cone in pixels.
    /// fusionRange: side of the offset cube in voxels, made odd by setting the lowest bit, clamped to
    /// [1, MaxFusionRange]. threadNum: at least 1. path: directory for debug output, kept with the object.
    FusionTsdf(int treeDepth, float pointDis, float smoothThreshold, int fusionRange, int threadNum, std::string path);
    ~FusionTsdf();
    FusionTsdf(const FusionTsdf&) = delete;
    FusionTsdf& operator=(const FusionTsdf&) = delete;

    /// A cube of 63^3 offsets takes 6 MB of tables; a larger range serves nobody.
    static constexpr int MaxFusionRange = 63;

    // ---- integration --------------------------------------------------------------------------------

    /// Places the volume: its centre goes to the mean, moved by `rt`, of the points with |z| of point (not
    /// negative) and of normal of at least 1e-5. With 50 such points or fewer prints a line, returns false
    /// and changes nothing.
    bool get_shift(const Cloud& frame, const RigidMatrix& rt);

    /// Builds the cone table for this frame's camera. Integration does so by itself while the table is empty.
    void computer_fusion_cone(const PointImage& frame);
    const FusionCone& get_fusion_cone() const { return _cone; }

    /// Integrates a frame in camera coordinates at its pose; the first one places the volume (`get_shift`)
    /// unless a shift has been set. `changedLeaves` gets the leaves near the surface that were not marked
    /// changed before. With `fuse` false the frame's contribution is removed from teeth leaves; other leaf
    /// types ignore the call's points. The further bool is passed through and not used. `labels`, when not
    /// null, holds one label a slot (teeth leaves).
    /// False without a message when normals or weights are missing; false with a line when the volume cannot
    /// be placed, when the pose is not finite, when the frame is not consistent in itself, has no usable camera
    /// or is not of the size that the cone table was built for. Points without weight, and points outside the volume or
    /// within three voxels of its faces, are skipped silently.
    bool fusion_one_frame_speckle_parallel(const PointImage& frame, const RigidMatrix& rt, ChangedLeaves& changedLeaves,
                                           bool fuse, bool passedThrough, const std::vector<unsigned char>* labels);
    /// The integration without the placement.
    void integrate_tsdfvolume_speckle_parallel(const PointImage& frame, const RigidMatrix& rt,
                                               ChangedLeaves& changedLeaves, bool fuse, bool passedThrough,
                                               const std::vector<unsigned char>* labels);
    /// The integration of one point: slot validIndex[k]. The cone table must be there. `pointDis` and `bound`
    /// (2^treeDepth - 3) are those of the volume. Arguments that cannot be used are ignored without a message.
    /// May run on several threads at once.
    void integrate_tsdfvolume_speckle(const PointImage& frame, const RigidMatrix& rt, const std::uint64_t& k,
                                      ChangedLeaves& changedLeaves, float pointDis, int bound,
                                      const std::vector<int>& validIndex, bool fuse,
                                      const std::vector<unsigned char>* labels);

    /// Integrates a frame but lets the surface that is already there speak: a point whose distance from it,
    /// by trilinear sample (from the nearest used voxel of the neighbourhood table where there is no sample), is
    /// e, counts with weight w (1 - (e / 2 pointDis)^2)^2, and not at all from 2 pointDis on (Tukey's
    /// biweight). Where nothing is known the point counts fully. Needs normals and weights; places an empty
    /// volume whatever its shift is, and returns false when that fails.
    bool integrate_tsdfvolume_cam_constrain_one_frame_parallel(const PointImage& frame, const RigidMatrix& rt);

    /// Integrates one stored frame into `tree`, an octree of the caller or this object's own, with this
    /// object's offsets, cone and thread number. False as for `fusion_one_frame_speckle_parallel`; the tree
    /// must have been placed.
    bool fusion_all_frame_tbb(Octree& tree, const PointImage& frame, const RigidMatrix& rt,
                              ChangedLeaves& changedLeaves);
    /// Integrates many stored frames at their poses, in order; the first one places an empty volume. All or
    /// nothing is checked before the first frame is fused: false when the numbers of frames and poses differ
    /// (with a line) or a frame would be refused.
    bool parallel_fusion_all_frame_run(const std::vector<PointImage>& frames, const std::vector<RigidMatrix>& poses,
                                       ChangedLeaves& changedLeaves);

    /// The form for clouds without image order (laser lines): the pixel of a point is where it projects; its
    /// cone has the half-width of the smooth threshold around that position; its weight is |z| of its normal.
    /// Points that project outside the image (width, height) are skipped. Places the volume as the image form
    /// does. False without a message when normals are missing, with a line as for the image form.
    bool fusion_one_frame(const Cloud& frame, const RigidMatrix& rt, const CameraInParam& camera,
                          const Vector2i& imageSize);
    /// The same without the placement.
    void integrate_tsdfvolume(const Cloud& frame, const RigidMatrix& rt, const CameraInParam& camera,
                              const Vector2i& imageSize);

    /// The number of the frame's points (|z| of point and normal and weight at least 1e-6) that fall where the
    /// volume has no leaf, an unused one, or the value 0.
    int get_space_contribution(const PointImage& frame, const RigidMatrix& rt);

    // ---- extraction ---------------------------------------------------------------------------------

    /// Marching cubes (W. Lorensen and H. Cline, SIGGRAPH 1987) over the used voxels, parallel by OpenMP.
    /// Replaces `mesh`: vertices in model coordinates, each made once and shared; faces counter-clockwise
    /// seen from in front of the surface. `vertexAxis` gets, for each vertex, the axis (0, 1, 2) of the voxel
    /// edge on which it lies. A voxel makes vertices from `minWeight` contributions on, towards neighbours
    /// with more than that. Vertices are in the order of leaf indices, for any number of threads.
    /// With `optimise` the steps chosen by `set_opt_mc` follow.
    /// Always RET_SUCCESS unless memory runs out (RET_RUN_FAIL); nothing found is an empty mesh. An octree
    /// that is not consistent gives one line and an empty mesh.
    RetVal get_result(float minWeight, BaseTriMesh& mesh, std::vector<int>& vertexAxis, bool optimise);
    /// The same with TBB.
    RetVal get_result_tbb(float minWeight, BaseTriMesh& mesh, std::vector<int>& vertexAxis, bool optimise);
    /// What `optimise` does, in this order: drop connected pieces of fewer than 100 triangles; smooth (Taubin,
    /// borders kept); make vertex normals. At first true, false, true.
    void set_opt_mc(const bool& dropPieces, const bool& smooth, const bool& normals);

    // ---- settings -----------------------------------------------------------------------------------

    Octree& get_fusion_tree() { return _octree; }
    const Octree& get_fusion_tree() const { return _octree; }
    int get_vaild_leaf_num() const { return _octree.get_vaild_leaf_num(); }
    int get_treeDepth() const { return _octree.get_treeDepth(); }
    float get_pointDis() const { return _octree.get_pointDis(); }
    Vector3f get_treeShift() const { return _octree.get_shift(); }
    Vector3f get_model_shift() const { return _octree.get_shift(); }
    /// A shift that is not finite is refused with a line.
    void set_shift(const Vector3f& shift);
    /// Changes the voxel size of an empty volume, offsets included. Refused with a line when it is not a
    /// positive number or the volume holds leaves.
    void set_point_dis(float pointDis);

    /// Half-width and range exactly as given (no odd forcing); rebuilds the offset tables and empties the cone
    /// table. A range above MaxFusionRange is refused with a line; one below 1 gives no offsets at all.
    void modify_smooth_and_fusionrange(float smoothThreshold, int fusionRange);
    /// Half-width 0.5, range 5.
    void reset_smooth_and_fusionrange();
    float get_smooth_threshold() const { return _smoothThreshold; }
    /// The setters leave the other value as it is and rebuild what depends on theirs.
    void set_smooth_threshold(float smoothThreshold);
    void set_fusionRange(int fusionRange);
    int get_fusionRange() const { return _fusionRange; }

    std::vector<Vector3f> get_shiftLT() const { return _offsets.offsets; }
    std::vector<Vector3i> get_shiftLTInt() const { return _offsets.voxels; }

    int get_code_Num() const { return _threadNum; }
    /// Values below 1 count as 1.
    void reset_code_Num(int threadNum);
    const std::string& get_output_path() const { return _path; }

    // ---- life cycle ---------------------------------------------------------------------------------

    /// Empties the octree and takes the shift back to zero, so that the next first frame places the volume anew. Depth,
    /// spacing, offsets and the cone table stay.
    void clear();
    /// `clear`, and empties the cone table.
    void reset();
    /// Returns every leaf slot to the state before its first contribution; the nodes stay.
    void reset_leaf();
    void reset_leaf_tbb();

private:
    Octree _octree;
    float _smoothThreshold;
    std::string _path;
    OffsetCube _offsets;
    int _threadNum;
    int _fusionRange;
    FusionCone _cone;
    OffsetCube _neighbourhood;  // nearest offset first; where to look for a surface around a point
    bool _dropPieces = true;
    bool _smooth = false;
    bool _normals = true;
};

extern template class VEXEL_API_TEMPLATE FusionTsdf<LeafTSDFSpeckle>;
extern template class VEXEL_API_TEMPLATE FusionTsdf<LeafTSDFTeeth>;
extern template class VEXEL_API_TEMPLATE FusionTsdf<LeafTSDFCloudGenerator>;
extern template class VEXEL_API_TEMPLATE FusionTsdf<LeafTSDFLaser>;

}  // namespace Fusion
}  // namespace VexelAlgorithm
