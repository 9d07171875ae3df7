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
    /// are zeroed; the pose becomes the identity. More than 2^31 - 1 slots, and more than there is memory for, are
    /// refused with a line, and the image then has none.
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
    //
    // Depth is z in camera coordinates; points moved by the stored pose are taken back for it. Limits may be
    // infinite. All of them run on the library's default thread number, give the same result for any, and do
    // nothing while the image is not legal.

    /// Computes the normal of every slot, enabling normals when needed: a least-squares facet through the points
    /// of the window around the slot, at pixel offsets that are multiples of (stepX, stepY) and at most (windowX,
    /// windowY), as far as they lie within `distanceLimit` (mm) of the slot's point. Per coordinate the facet is an
    /// affine function of the pixel offset (Haralick and Watson, "A facet model for image data", 1981; the tangents
    /// are those of Holzer et al., "Adaptive neighborhood selection for real-time surface normal estimation from
    /// organized point cloud data", 2012, by regression instead of differences).
    ///
    /// Normals have unit length and face the camera, which is at the translation of the stored pose (the origin
    /// when that is the identity or not finite). Zero for slots without a point and for facets whose points stand on
    /// one line, in the image or in space. Steps below 1 count as 1, windows below the step as the step, windows of
    /// more than 16 steps as 16 steps; with a negative or NaN limit every normal is zero.
    void count_point_normal(int stepX, int stepY, int windowX, int windowY, float distanceLimit);
    /// The same with one step and one window for both axes.
    void update_VNrv(int step, int window, float distanceLimit);

    /// Empties the slots whose normal is zero or not finite. No effect while normals are disabled.
    void delete_point_without_normal();
    /// Empties the slots that are marked `VertexFlag::Edge`, `Deleted` or `Selected`, and writes `emptyPoint`,
    /// normally zero, as their point. No effect while flags are disabled.
    void delete_point_flaged(const Vector3f& emptyPoint);

    /// Marks the points on depth edges with `VertexFlag::Edge` and clears that mark on all other slots, enabling
    /// flags when needed. Points there are unreliable, because the matching windows of the reconstruction see two
    /// surfaces. `window` is the width (pixels) of the strip to be marked, `depthJump` (mm) the step that makes an
    /// edge, `countLimit` the number of slots from which on a piece of surface or a gap matters. The usual 3, 0.3
    /// and 150 suit points 0.2 to 0.3 mm apart, where 150 slots are about 3 mm x 3 mm.
    ///
    /// 1. Two points that follow each other in a row or column, with nothing but empty slots between, have a jump
    ///    between them when their depths differ by more than `depthJump`, and still do after subtracting what the
    ///    slope before the first or after the second predicts. The slopes are differences over `window` slots, so
    ///    steep surfaces are no edges, and ramps shorter than the window, such as points that float between
    ///    foreground and background, are.
    /// 2. Points that follow each other at most `window` slots apart without a jump are connected. Connected pieces
    ///    of fewer than `countLimit` points are edge points, and empty for what follows.
    /// 3. Gaps are 4-connected regions of empty slots. Those of fewer than `countLimit` slots are drop-outs and make
    ///    no edge; neither does the border of the image.
    /// 4. Jumps are looked for again among the points that are left and not directly connected. A point is an edge
    ///    point when a slot of a gap is at most `window` slots away along each axis, or a point beside a jump at most
    ///    `window` - 1.
    ///
    /// Windows below 1 count as 1. A negative or NaN jump has no effect.
    void find_egde_point(int window, float depthJump, int countLimit);

    /// Empties connected regions of fewer than `countLimit` points. Two points are connected when they lie
    /// at most `radius` pixels apart along each axis and at most `distanceJump` (mm) apart in space. A radius below
    /// 1 counts as 1, above 16 as 16. A negative or NaN distance has no effect.
    void delete_island(int radius, float distanceJump, int countLimit);
    /// The same with connection by depth: depths that differ by at most `depthJump` (mm). `emptyPoint`, normally
    /// zero, is written as the point of emptied slots.
    void delete_island_through_depth(int radius, float depthJump, int countLimit, const Vector3f& emptyPoint);

    /// Estimates which share of the points lies on one plane: `planeRatio` in [0, 1] is the largest share found of
    /// points within `distance` (mm) of a common plane, among every `step`-th slot of every `step`-th row (steps
    /// below 1 count as 1). A search by random sampling with local optimisation (Fischler and Bolles, 1981; Chum,
    /// Matas and Kittler, 2003) in a fixed sequence: candidates are least-squares planes of overlapping patches of
    /// 8 x 8 samples and planes through triples; the best are refitted to their inliers. The true maximum may be
    /// larger. 0 when there are fewer than three points, or when the distance is negative or NaN.
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
