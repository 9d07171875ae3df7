// The member functions of FusionTsdf. Included only by the sources that instantiate it, one for each leaf type:
// apart they compile in parallel, and the compiler inlines the hot loops of each to the end.
#pragma once

#include <algorithm>
#include <cmath>
#include <utility>

#include "foundation/diagnostics.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "fusion/FusionTsdf.h"
#include "fusion/ImageTiles.h"
#include "fusion/cameraConstraint.h"
#include "fusion/integratePoint.h"
#include "fusion/marchingCubes.h"
#include "fusion/meshOptimise.h"

namespace VexelAlgorithm {
namespace Fusion {
namespace detail {

constexpr float FixedSmoothThreshold = 0.5f;
constexpr int FixedFusionRange = 5;
constexpr std::size_t MinPointsPerTask = 512;
constexpr std::size_t MinPieceTriangles = 100;
constexpr int SmoothingSteps = 5;

// A worker starts with an empty cache, so tasks are as large as an even share of the work permits.
inline std::size_t points_per_task(std::size_t points, int threads) {
    return std::max(MinPointsPerTask, points / (4 * static_cast<std::size_t>(usable_threads(threads))));
}

inline bool is_positive(float value) {
    return std::isfinite(value) && value > 0.0f;
}

inline int clamp_range(int fusionRange, int largest) {
    return std::clamp(fusionRange | 1, 1, largest);
}

// Refusals that every way into the volume shares. Missing attributes are refused without a line.
inline bool is_pose_usable(const RigidMatrix& rt, const char* function) {
    if (rt.is_finite()) return true;
    print_line(format_text("can not run function %s because the pose is not finite", function));
    return false;
}

inline bool has_attributes(const PointImage& frame) {
    return frame.is_enable_vNormal() && frame.is_enable_vWeight();
}

inline bool is_consistent(const Cloud& frame, const char* function) {
    if (frame.is_legal()) return true;
    print_line(format_text("can not run function %s because the frame's attributes differ in length", function));
    return false;
}

inline bool is_camera_usable(const CameraInParam& camera, const char* function) {
    if (FusionCone::is_usable(camera)) return true;
    print_line(format_text("can not run function %s because the camera is not usable", function));
    return false;
}

inline bool is_frame_usable(const PointImage& frame, const RigidMatrix& rt, const FusionCone& cone,
                            const char* function) {
    if (!has_attributes(frame) || !is_pose_usable(rt, function) || !is_consistent(frame, function)) return false;
    // A frame without slots is left to the placement, whose line says that there are no points.
    if (cone.empty() && frame.get_vn() > 0) return is_camera_usable(frame.get_camPar(), function);
    const int width = frame.get_image_width(), height = frame.get_image_height();
    if (!cone.empty() && (width != cone.get_width() || height != cone.get_height())) {
        print_line(
            format_text("can not run function %s because the frame has %d x %d pixels and the fusion cone %d x %d",
                        function, width, height, cone.get_width(), cone.get_height()));
        return false;
    }
    return true;
}

inline std::vector<int> collect_valid_indices(const PointImage& frame) {
    std::vector<int> valid;
    valid.reserve(frame.get_vn());
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (is_usable_point(frame.get_vCoord(i), frame.get_vNrv(i))) valid.push_back(static_cast<int>(i));
    }
    return valid;
}

inline MeasuredPoint measure(const PointImage& frame, const FusionCone& cone, int u, int v,
                             const std::vector<unsigned char>* labels) {
    const std::size_t i = frame.index_of(u, v);
    return {frame.get_vCoord(i),
            frame.get_vNrv(i),
            frame.get_vWeight(i),
            cone.pixel(u, v),
            labels != nullptr ? static_cast<int>((*labels)[i]) : 0,
            frame.is_enable_vColor() ? &frame.get_vColor(i) : nullptr};
}

inline int upper_bound(int treeDepth) {
    return (1 << treeDepth) - 3;
}

/// The offsets that come into question for the points of a tile.
inline void select_nearby(const PointImage& frame, const FrameIntegration& integration, const FusionCone& cone,
                          const ImageTile& tile, NearbyOffsets& nearby) {
    PixelCone cones = cone.pixel(tile.x0, tile.y0);
    Vector2f widest = Vector2f::Zero();
    float farthest = 0.0f;
    tile.for_each_pixel([&](int u, int v) {
        const PixelCone pixel = cone.pixel(u, v);
        cones = {std::min(cones.left, pixel.left), std::max(cones.right, pixel.right), std::min(cones.top, pixel.top),
                 std::max(cones.bottom, pixel.bottom)};
        widest = widest.cwiseMax(Vector2f(pixel.right - pixel.left, pixel.bottom - pixel.top));
        const float z = frame.get_point(u, v).z();
        if (z > farthest && z < 1e30f) farthest = z;
    });
    nearby.select(integration.offsets_C, cones, widest, farthest + integration.pointDis, integration.rt.get_rotation(),
                  integration.pointDis);
}

/// `write` may be called from several threads at once.
template <class Leaf, class Write>
void integrate_image(VexelOctree::Octree<Leaf>& tree, const PointImage& frame, const FrameIntegration& integration,
                     const FusionCone& cone, int threads, const std::vector<unsigned char>* labels,
                     const Write& write) {
    const ImageTiles tiles(frame.get_image_width(), frame.get_image_height());
    const std::size_t tilesPerTask =
        std::max(points_per_task(frame.get_vn(), threads) / ImageTiles::PixelsPerTile, std::size_t{1});
    parallel_ranges(threads, tiles.count(), tilesPerTask, [&](std::size_t begin, std::size_t end) {
        IntegrationWorker worker(integration);
        for (std::size_t i = begin; i < end; ++i) {
            if (!integration.openCone) select_nearby(frame, integration, cone, tiles[i], worker.nearby);
            tiles[i].for_each_pixel([&](int u, int v) {
                const std::size_t slot = frame.index_of(u, v);
                if (!is_usable_point(frame.get_vCoord(slot), frame.get_vNrv(slot))) return;
                integrate_point(tree, integration, worker, measure(frame, cone, u, v, labels), write);
            });
        }
        finish_points(worker, write);
    });
}

}  // namespace detail

template <class Leaf>
FusionTsdf<Leaf>::FusionTsdf(int treeDepth, float pointDis, float smoothThreshold, int fusionRange, int threadNum,
                             std::string path)
    : _smoothThreshold(smoothThreshold),
      _path(std::move(path)),
      _threadNum(std::max(threadNum, 1)),
      _fusionRange(detail::clamp_range(fusionRange, MaxFusionRange)) {
    _octree.set_point_dis(detail::is_positive(pointDis) ? pointDis : 0.5f);
    if (std::max(treeDepth, Octree::MinTreeDepth) != _octree.get_treeDepth()) _octree.set_depth(treeDepth, 1);
    _offsets = OffsetCube(_fusionRange, get_pointDis());
    _neighbourhood = OffsetCube::nearest_first(detail::FixedFusionRange, get_pointDis());
}

template <class Leaf>
FusionTsdf<Leaf>::~FusionTsdf() = default;

// ---- integration ------------------------------------------------------------------------------------

template <class Leaf>
bool FusionTsdf<Leaf>::get_shift(const Cloud& frame, const RigidMatrix& rt) {
    return guarded<bool>("get_shift", false, [&] {
        if (!detail::is_pose_usable(rt, "get_shift")) return false;
        const bool hasNormals = frame.is_enable_vNormal() && frame.is_legal();
        Vector3d sum = Vector3d::Zero();
        int invaildNum = 0;
        for (std::size_t i = 0; hasNormals && i < frame.get_vn(); ++i) {
            const Vector3f& point = frame.get_vCoord(i);
            if (!(point.z() >= 1e-5f) || !(std::abs(frame.get_vNrv(i).z()) >= 1e-5f) || !point.allFinite()) continue;
            sum += point.cast<double>();
            ++invaildNum;
        }
        if (invaildNum <= 50) {
            print_line(
                format_text("can not run function get_shift because invaildNum <= 50 invaildNum = %d", invaildNum));
            return false;
        }
        const double halfSize = _octree.get_size() * static_cast<double>(get_pointDis()) / 2.0;
        const Vector3d centre = rt * Vector3d(sum / invaildNum);
        const Vector3f shift = (centre - Vector3d::Constant(halfSize)).template cast<float>();
        if (!shift.allFinite()) {
            print_line("can not run function get_shift because the frame lies too far from the origin");
            return false;
        }
        _octree.set_shift(shift);
        return true;
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::computer_fusion_cone(const PointImage& frame) {
    guarded("computer_fusion_cone", [&] {
        if (!_cone.build(frame, _smoothThreshold)) {
            print_line("can not run function computer_fusion_cone because the frame has no slots or no usable camera");
        }
    });
}

template <class Leaf>
bool FusionTsdf<Leaf>::fusion_one_frame_speckle_parallel(const PointImage& frame, const RigidMatrix& rt,
                                                         ChangedLeaves& changedLeaves, bool fuse, bool passedThrough,
                                                         const std::vector<unsigned char>* labels) {
    return guarded<bool>("fusion_one_frame_speckle_parallel", false, [&] {
        if (!detail::is_frame_usable(frame, rt, _cone, "fusion_one_frame_speckle_parallel")) return false;
        if (get_vaild_leaf_num() == 0 && get_treeShift().cwiseAbs().maxCoeff() < 1e-6f && !get_shift(frame, rt)) {
            print_line("can not run this function because get_shift(oneFrame, rt) == false");
            return false;
        }
        integrate_tsdfvolume_speckle_parallel(frame, rt, changedLeaves, fuse, passedThrough, labels);
        return true;
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::integrate_tsdfvolume_speckle_parallel(const PointImage& frame, const RigidMatrix& rt,
                                                             ChangedLeaves& changedLeaves, bool fuse, bool,
                                                             const std::vector<unsigned char>* labels) {
    guarded("integrate_tsdfvolume_speckle_parallel", [&] {
        if (!detail::is_frame_usable(frame, rt, _cone, "integrate_tsdfvolume_speckle_parallel")) return;
        if (labels != nullptr && labels->size() != frame.get_vn()) {
            print_line("updata AI inform failed! Because AIInform->size() !=oneFrame.get_vn()!");
            labels = nullptr;
        }
        if (_cone.empty()) computer_fusion_cone(frame);
        if (_cone.empty()) return;
        const FrameIntegration integration(rt, get_treeShift(), get_pointDis(), detail::upper_bound(get_treeDepth()),
                                           _offsets, _cone.is_open(), fuse);
        detail::integrate_image(_octree, frame, integration, _cone, _threadNum, labels,
                                Contribute<Leaf>(_octree, fuse, changedLeaves));
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::integrate_tsdfvolume_speckle(const PointImage& frame, const RigidMatrix& rt,
                                                    const std::uint64_t& k, ChangedLeaves& changedLeaves,
                                                    float pointDis, int bound, const std::vector<int>& validIndex,
                                                    bool fuse, const std::vector<unsigned char>* labels) {
    guarded("integrate_tsdfvolume_speckle", [&] {
        if (!detail::has_attributes(frame) || !frame.is_legal()) return;
        if (labels != nullptr && labels->size() != frame.get_vn()) labels = nullptr;
        if (!rt.is_finite() || k >= validIndex.size() || !detail::is_positive(pointDis)) return;
        const int index = validIndex[static_cast<std::size_t>(k)];
        if (index < 0 || static_cast<std::size_t>(index) >= frame.get_vn()) return;
        const int u = index % frame.get_image_width(), v = index / frame.get_image_width();
        if (u >= _cone.get_width() || v >= _cone.get_height()) return;
        const MeasuredPoint measured = detail::measure(frame, _cone, u, v, labels);
        if (!is_usable_point(measured.point_C, measured.normal_C)) return;
        const FrameIntegration integration(rt, get_treeShift(), pointDis, bound, _offsets, _cone.is_open(), fuse);
        IntegrationWorker worker(integration);
        const Contribute<Leaf> write(_octree, fuse, changedLeaves);
        integrate_point(_octree, integration, worker, measured, write);
        finish_points(worker, write);
    });
}

template <class Leaf>
bool FusionTsdf<Leaf>::integrate_tsdfvolume_cam_constrain_one_frame_parallel(const PointImage& frame,
                                                                             const RigidMatrix& rt) {
    constexpr const char* name = "integrate_tsdfvolume_cam_constrain_one_frame_parallel";
    return guarded<bool>(name, false, [&] {
        if (!detail::is_frame_usable(frame, rt, _cone, name)) return false;
        if (get_vaild_leaf_num() == 0 && !get_shift(frame, rt)) return false;
        if (_cone.empty()) computer_fusion_cone(frame);
        if (_cone.empty()) return false;

        // The weights come first, from the surface as it was before this frame, so that they do not depend on
        // the order in which points are integrated.
        const std::vector<int> valid = detail::collect_valid_indices(frame);
        std::vector<float> weights(valid.size());
        parallel_ranges(_threadNum, valid.size(), detail::points_per_task(valid.size(), _threadNum),
                        [&](std::size_t begin, std::size_t end) {
                            FieldReader<Leaf> field(_octree);
                            for (std::size_t k = begin; k < end; ++k) {
                                const auto slot = static_cast<std::size_t>(valid[k]);
                                weights[k] = frame.get_vWeight(slot) *
                                             surface_agreement(field, _neighbourhood, rt * frame.get_vCoord(slot),
                                                               rt.transform_normal(frame.get_vNrv(slot)));
                            }
                        });

        const FrameIntegration integration(rt, get_treeShift(), get_pointDis(), detail::upper_bound(get_treeDepth()),
                                           _offsets, _cone.is_open(), true);
        ChangedLeaves notWanted;
        const Contribute<Leaf> write(_octree, true, notWanted);
        parallel_ranges(_threadNum, valid.size(), detail::points_per_task(valid.size(), _threadNum),
                        [&](std::size_t begin, std::size_t end) {
                            IntegrationWorker worker(integration);
                            for (std::size_t k = begin; k < end; ++k) {
                                const int width = frame.get_image_width();
                                MeasuredPoint measured =
                                    detail::measure(frame, _cone, valid[k] % width, valid[k] / width, nullptr);
                                measured.weight = weights[k];
                                integrate_point(_octree, integration, worker, measured, write);
                            }
                            finish_points(worker, write);
                        });
        return true;
    });
}

template <class Leaf>
bool FusionTsdf<Leaf>::fusion_all_frame_tbb(Octree& tree, const PointImage& frame, const RigidMatrix& rt,
                                            ChangedLeaves& changedLeaves) {
    return guarded<bool>("fusion_all_frame_tbb", false, [&] {
        if (!detail::is_frame_usable(frame, rt, _cone, "fusion_all_frame_tbb")) return false;
        if (_cone.empty()) computer_fusion_cone(frame);
        if (_cone.empty()) return false;
        const OffsetCube cube =
            tree.get_pointDis() == get_pointDis() ? _offsets : OffsetCube(_fusionRange, tree.get_pointDis());
        const FrameIntegration integration(rt, tree.get_shift(), tree.get_pointDis(),
                                           detail::upper_bound(tree.get_treeDepth()), cube, _cone.is_open(), true);
        detail::integrate_image(tree, frame, integration, _cone, _threadNum, nullptr,
                                Contribute<Leaf>(tree, true, changedLeaves));
        return true;
    });
}

template <class Leaf>
bool FusionTsdf<Leaf>::parallel_fusion_all_frame_run(const std::vector<PointImage>& frames,
                                                     const std::vector<RigidMatrix>& poses,
                                                     ChangedLeaves& changedLeaves) {
    constexpr const char* name = "parallel_fusion_all_frame_run";
    return guarded<bool>(name, false, [&] {
        if (frames.size() != poses.size()) {
            print_line(format_text("can not run function %s because there are %zu frames and %zu poses", name,
                                   frames.size(), poses.size()));
            return false;
        }
        if (frames.empty()) return true;
        FusionCone cone = _cone;
        if (cone.empty() && !cone.build(frames.front(), _smoothThreshold)) {
            print_line(format_text("can not run function %s because the first frame has no usable camera", name));
            return false;
        }
        for (std::size_t i = 0; i < frames.size(); ++i) {
            if (!detail::is_frame_usable(frames[i], poses[i], cone, name)) return false;
        }
        for (std::size_t i = 0; i < frames.size(); ++i) {
            if (!fusion_one_frame_speckle_parallel(frames[i], poses[i], changedLeaves, true, false, nullptr))
                return false;
        }
        return true;
    });
}

template <class Leaf>
bool FusionTsdf<Leaf>::fusion_one_frame(const Cloud& frame, const RigidMatrix& rt, const CameraInParam& camera,
                                        const Vector2i& imageSize) {
    return guarded<bool>("fusion_one_frame", false, [&] {
        if (!frame.is_enable_vNormal() || !detail::is_pose_usable(rt, "fusion_one_frame")) return false;
        if (!detail::is_consistent(frame, "fusion_one_frame") || !detail::is_camera_usable(camera, "fusion_one_frame"))
            return false;
        if (get_vaild_leaf_num() == 0 && get_treeShift().cwiseAbs().maxCoeff() < 1e-6f && !get_shift(frame, rt)) {
            print_line("can not run this function because get_shift(oneFrame, rt) == false");
            return false;
        }
        integrate_tsdfvolume(frame, rt, camera, imageSize);
        return true;
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::integrate_tsdfvolume(const Cloud& frame, const RigidMatrix& rt, const CameraInParam& camera,
                                            const Vector2i& imageSize) {
    guarded("integrate_tsdfvolume", [&] {
        if (!frame.is_enable_vNormal() || !detail::is_pose_usable(rt, "integrate_tsdfvolume")) return;
        if (!detail::is_consistent(frame, "integrate_tsdfvolume") ||
            !detail::is_camera_usable(camera, "integrate_tsdfvolume"))
            return;
        const bool openCone = !(std::abs(_smoothThreshold) > 0.0f);
        const FrameIntegration integration(rt, get_treeShift(), get_pointDis(), detail::upper_bound(get_treeDepth()),
                                           _offsets, openCone, true);
        ChangedLeaves notWanted;
        const Contribute<Leaf> write(_octree, true, notWanted);
        parallel_ranges(
            _threadNum, frame.get_vn(), detail::points_per_task(frame.get_vn(), _threadNum),
            [&](std::size_t begin, std::size_t end) {
                IntegrationWorker worker(integration);
                for (std::size_t i = begin; i < end; ++i) {
                    const Vector3f& point = frame.get_vCoord(i);
                    const Vector3f& normal = frame.get_vNrv(i);
                    if (!is_usable_point(point, normal) || point.z() <= 0.0f) continue;
                    Vector2f pixel;
                    camera.point_to_image(point, pixel);
                    const bool inImage = pixel.x() > -0.5f && pixel.x() < static_cast<float>(imageSize.x()) - 0.5f &&
                                         pixel.y() > -0.5f && pixel.y() < static_cast<float>(imageSize.y()) - 0.5f;
                    if (!inImage) continue;
                    integrate_point(_octree, integration, worker,
                                    {point, normal, std::abs(normal.z()),
                                     cone_around(camera, pixel.x(), pixel.y(), _smoothThreshold), 0, nullptr},
                                    write);
                }
                finish_points(worker, write);
            });
    });
}

template <class Leaf>
int FusionTsdf<Leaf>::get_space_contribution(const PointImage& frame, const RigidMatrix& rt) {
    return guarded<int>("get_space_contribution", 0, [&] {
        if (!detail::has_attributes(frame) || !detail::is_pose_usable(rt, "get_space_contribution")) return 0;
        if (!detail::is_consistent(frame, "get_space_contribution")) return 0;
        std::atomic<int> contribution{0};
        parallel_ranges(_threadNum, frame.get_vn(), detail::points_per_task(frame.get_vn(), _threadNum),
                        [&](std::size_t begin, std::size_t end) {
                            FieldReader<Leaf> field(_octree);
                            int found = 0;
                            for (std::size_t i = begin; i < end; ++i) {
                                const Vector3f& point = frame.get_vCoord(i);
                                if (!is_usable_point(point, frame.get_vNrv(i)) || !(frame.get_vWeight(i) >= 1e-6f))
                                    continue;
                                if (std::abs(field.value_anywhere(_octree.world_to_voxel(rt * point))) < 1e-6f) ++found;
                            }
                            contribution.fetch_add(found, std::memory_order_relaxed);
                        });
        return contribution.load();
    });
}

// ---- extraction -------------------------------------------------------------------------------------

namespace detail {

template <class Leaf, class RunChunks>
RetVal extract(const VexelOctree::Octree<Leaf>& tree, float minWeight, BaseTriMesh& mesh, std::vector<int>& vertexAxis,
               const MeshOptimisation* optimisation, const RunChunks& runChunks) {
    mesh.clear();
    vertexAxis.clear();
    if (tree.get_vaild_leaf_num() > tree.pool().size()) {
        print_line("can not get result because vaildNum > leafSize in marching cube");
        return RET_SUCCESS;
    }
    march_cubes(tree, minWeight, mesh, vertexAxis, runChunks);
    if (optimisation != nullptr) optimise_mesh(mesh, vertexAxis, *optimisation);
    return RET_SUCCESS;
}

}  // namespace detail

template <class Leaf>
RetVal FusionTsdf<Leaf>::get_result(float minWeight, BaseTriMesh& mesh, std::vector<int>& vertexAxis, bool optimise) {
    return guarded<RetVal>("get_result", RET_RUN_FAIL, [&] {
        const MeshOptimisation steps{_dropPieces ? detail::MinPieceTriangles : 0, _smooth ? detail::SmoothingSteps : 0,
                                     _normals};
        return detail::extract(_octree, minWeight, mesh, vertexAxis, optimise ? &steps : nullptr,
                               OpenMpChunks{_threadNum});
    });
}

template <class Leaf>
RetVal FusionTsdf<Leaf>::get_result_tbb(float minWeight, BaseTriMesh& mesh, std::vector<int>& vertexAxis,
                                        bool optimise) {
    return guarded<RetVal>("get_result_tbb", RET_RUN_FAIL, [&] {
        const MeshOptimisation steps{_dropPieces ? detail::MinPieceTriangles : 0, _smooth ? detail::SmoothingSteps : 0,
                                     _normals};
        return detail::extract(_octree, minWeight, mesh, vertexAxis, optimise ? &steps : nullptr,
                               TbbChunks{_threadNum});
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::set_opt_mc(const bool& dropPieces, const bool& smooth, const bool& normals) {
    _dropPieces = dropPieces;
    _smooth = smooth;
    _normals = normals;
}

// ---- settings ---------------------------------------------------------------------------------------

template <class Leaf>
void FusionTsdf<Leaf>::set_shift(const Vector3f& shift) {
    guarded("set_shift", [&] {
        if (!shift.allFinite()) {
            print_line("can not run function set_shift because the shift is not finite");
            return;
        }
        _octree.set_shift(shift);
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::set_point_dis(float pointDis) {
    guarded("set_point_dis", [&] {
        if (!detail::is_positive(pointDis) || get_vaild_leaf_num() > 0) {
            print_line("can not run function set_point_dis because pointDis <= 0 or the volume is not empty");
            return;
        }
        _octree.set_point_dis(pointDis);
        _offsets.scale(pointDis);
        _neighbourhood.scale(pointDis);
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::modify_smooth_and_fusionrange(float smoothThreshold, int fusionRange) {
    guarded("modify_smooth_and_fusionrange", [&] {
        if (fusionRange > MaxFusionRange) {
            print_line(format_text("can not run function modify_smooth_and_fusionrange because fusionRange > %d",
                                   MaxFusionRange));
            return;
        }
        OffsetCube offsets(fusionRange, get_pointDis());
        OffsetCube neighbourhood = OffsetCube::nearest_first(fusionRange, get_pointDis());
        _offsets = std::move(offsets);
        _neighbourhood = std::move(neighbourhood);
        _smoothThreshold = smoothThreshold;
        _fusionRange = fusionRange;
        _cone.clear();
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::reset_smooth_and_fusionrange() {
    modify_smooth_and_fusionrange(detail::FixedSmoothThreshold, detail::FixedFusionRange);
}

template <class Leaf>
void FusionTsdf<Leaf>::set_smooth_threshold(float smoothThreshold) {
    modify_smooth_and_fusionrange(smoothThreshold, _fusionRange);
}

template <class Leaf>
void FusionTsdf<Leaf>::set_fusionRange(int fusionRange) {
    modify_smooth_and_fusionrange(_smoothThreshold, fusionRange);
}

template <class Leaf>
void FusionTsdf<Leaf>::reset_code_Num(int threadNum) {
    _threadNum = std::max(threadNum, 1);
}

// ---- life cycle -------------------------------------------------------------------------------------

template <class Leaf>
void FusionTsdf<Leaf>::clear() {
    guarded("clear", [&] {
        _octree.clear();
        _octree.set_shift(Vector3f::Zero());
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::reset() {
    clear();
    _cone.clear();
}

template <class Leaf>
void FusionTsdf<Leaf>::reset_leaf() {
    guarded("reset_leaf", [&] {
        const int count = get_vaild_leaf_num();
        for (int i = 0; i < count; ++i) _octree.leaf_at(i).reset();
    });
}

template <class Leaf>
void FusionTsdf<Leaf>::reset_leaf_tbb() {
    guarded("reset_leaf_tbb", [&] {
        parallel_ranges(_threadNum, static_cast<std::size_t>(get_vaild_leaf_num()), std::size_t{1} << 16,
                        [&](std::size_t begin, std::size_t end) {
                            for (std::size_t i = begin; i < end; ++i) _octree.leaf_at(static_cast<int>(i)).reset();
                        });
    });
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
