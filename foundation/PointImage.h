// An organised depth frame: one slot for every pixel of a camera image.
#pragma once

#include "foundation/CameraInParam.h"
#include "foundation/CloudWithWeight.h"

namespace VexelAlgorithm {

/// Points (mm), normals and optional weights, colours and flags of a width x height image, row by row:
/// index = y * width + x. A slot whose point is (0, 0, 0) is empty; a slot with a point that is not finite
/// counts as empty too.
///
/// Frames of reference: a point image is either in camera coordinates (stored pose = identity) or moved by
/// its stored pose. `rigid_transformation` moves it and stores the motion, `set_rt` states by which pose the
/// points are already moved, `to_ori_coor` brings it back.
///
/// The view radial is the pixel position of slot (0, 0) in the camera image, so slot (x, y) looks through
/// pixel (x + radial.x, y + radial.y).
///
/// Thread-safety: reading is safe from several threads; different slots may be written at the same time.
/// The neighbourhood operations run in parallel inside and must not overlap other writes.
class VEXEL_API PointImage : public CloudWithWeight {
public:
    PointImage();
    PointImage(const PointImage& other);
    PointImage(PointImage&& other) noexcept;
    PointImage& operator=(const PointImage& other);
    PointImage& operator=(PointImage&& other) noexcept;
    ~PointImage() override;

    /// Allocates width x height empty slots (negative sizes count as 0). Enabled attributes stay enabled and
    /// are zeroed; the pose becomes the identity. More than 2^31 - 1 slots are refused with a line, and the
    /// image then has none.
    void ini(int width, int height);
    /// The same, and sets camera, sampling factor and view radial. Size and camera are those of the
    /// sub-sampled image.
    void ini(int width, int height, const CameraInParam& camera, int sample, const Vector2f& viewRadial);

    int get_image_width() const { return _width; }
    int get_image_height() const { return _height; }
    std::size_t index_of(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(_width) + static_cast<std::size_t>(x);
    }

    const Vector3f& get_point(int x, int y) const { return _coords[index_of(x, y)]; }
    void set_point(int x, int y, const Vector3f& point) { _coords[index_of(x, y)] = point; }
    /// Normals must be enabled.
    const Vector3f& get_normal(int x, int y) const { return _normals[index_of(x, y)]; }
    void set_normal(int x, int y, const Vector3f& normal) { _normals[index_of(x, y)] = normal; }

    const CameraInParam& get_camPar() const { return _camera; }
    void set_camPar(const CameraInParam& camera) { _camera = camera; }
    int get_sample() const { return _sample; }
    float get_viewRadialX() const { return _viewRadial.x(); }
    float get_viewRadialY() const { return _viewRadial.y(); }

    const RigidMatrix& get_rt() const { return _rt; }
    /// States that the points are in the coordinates to which `rt` takes camera coordinates; moves nothing.
    void set_rt(const RigidMatrix& rt) { _rt = rt; }
    /// Moves points and normals back by the inverse of the stored pose, which becomes the identity.
    void to_ori_coor();

    /// Whether the slot holds a point.
    bool has_point(std::size_t index) const {
        const Vector3f& point = _coords[index];
        return point.allFinite() && (point.x() != 0.0f || point.y() != 0.0f || point.z() != 0.0f);
    }
    /// The number of slots that hold a point.
    int count_vaildNum() const;
    /// Empties every slot: all attributes become zero. Size, camera, pose and enabled attributes stay.
    void setZero();
    /// Empties one slot: point, normal, colour, weight and flags become zero.
    void set_slot_empty(std::size_t index);

    /// Unit viewing ray of the slot's pixel in camera coordinates.
    Vector3f get_ray_direct(std::size_t index) const;

    // ---- neighbourhood operations -------------------------------------------------------------------

    /// Computes the normal of every slot: enables normals, then for each slot that
    /// holds a point fits a plane to the points of the window around it, at pixel offsets that are multiples
    /// of (stepX, stepY) and at most (windowX, windowY), as far as they lie within `distanceLimit` (mm) of
    /// the slot's point. Slots without a point, or with too few neighbours to span a plane, get a zero
    /// normal. Normals have unit length and face the camera. Steps below 1 count as 1, windows below the
    /// step as the step.
    void count_point_normal(int stepX, int stepY, int windowX, int windowY, float distanceLimit);
    /// The same with one step and one window for both axes.
    void update_VNrv(int step, int window, float distanceLimit);

    /// Empties the slots whose normal is zero or not finite. No effect while normals are disabled.
    void delete_point_without_normal();
    /// Empties the slots that are marked `VertexFlag::Edge`, `Deleted` or `Selected`, and writes `emptyPoint`,
    /// normally zero, as their point. No effect while flags are disabled.
    void delete_point_flaged(const Vector3f& emptyPoint);

    /// Marks the points on depth edges with `VertexFlag::Edge` (and clears that mark on all others), enabling
    /// flags when needed. See the source for the rule; window in pixels, depthJump in mm.
    void find_egde_point(int window, float depthJump, int countLimit);

    /// Empties connected regions of fewer than `countLimit` points. Two points are connected when they lie
    /// at most `radius` pixels apart along each axis and at most `distanceJump` (mm) apart in space.
    void delete_island(int radius, float distanceJump, int countLimit);
    /// The same with connection by depth: |z1 - z2| at most `depthJump` (mm). `emptyPoint`, normally zero, is
    /// written as the point of emptied slots.
    void delete_island_through_depth(int radius, float depthJump, int countLimit, const Vector3f& emptyPoint);

    /// Estimates which share of the points lies on one plane: `planeRatio` in [0, 1] is the largest share
    /// found of points within `distance` (mm) of a common plane, among every `step`-th slot of every
    /// `step`-th row. Deterministic. 0 when there are fewer than three points.
    void plane_detect(float& planeRatio, float distance, int step) const;

    // ---- overrides ----------------------------------------------------------------------------------

    /// Also drops the slots: width and height become 0.
    void clear() override;
    void reset_type() override;
    /// A point image keeps its slots: the ones marked deleted are emptied instead of dropped.
    void squeeze(bool releaseMemory) override;
    /// Empty slots do not count.
    bool get_boundBox(Vector3f& low, Vector3f& high) const override;
    /// Legal also means that there are width x height slots.
    bool is_legal() const override;
    void repair_illegal() override;
    /// Moves the points that are there and all normals, and composes the stored pose with the motion.
    void rigid_transformation(const RigidMatrix& rt) override;
    /// The form of `Cloud`, then int32 width, height and sample, two floats of the view radial, and the
    /// archives of the camera (32 bytes) and of the pose (96 bytes).
    bool write_archive(std::ostream& out) const override;
    bool read_archive(std::istream& in) override;

private:
    void swap_content(PointImage& other) noexcept;
    void move_slots(const RigidMatrix& rt);

    int _width = 0;
    int _height = 0;
    CameraInParam _camera;
    int _sample = 1;
    Vector2f _viewRadial = Vector2f::Zero();
    RigidMatrix _rt;
};

}  // namespace VexelAlgorithm
