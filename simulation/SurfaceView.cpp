#include "simulation/SurfaceView.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

#include "foundation/parallel.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr int kBlock = 4;
constexpr int kBlocksPerTile = 16;
constexpr int kTile = kBlock * kBlocksPerTile;
constexpr int kRim = 1;                                  ///< blocks around a tile that have a say in it
constexpr int kCorners = kBlocksPerTile + 2 * kRim + 1;  ///< of a row of blocks
constexpr double kDepthTolerance = 1e-3;                 ///< mm
constexpr double kPatchReach = 0.5;                      ///< mm; farther predictions are not polished but cast anew
constexpr double kTwistLimit = 0.3;   ///< mm that the corners of a block may be off a plane when they see one surface
constexpr double kNearerLimit = 0.5;  ///< mm in front of the plane of a block, from where on a neighbour may cover it
constexpr double kSteepestSight = 0.08;  ///< cosine of the angle of incidence; steeper blocks are cast pixel by pixel
constexpr double kSimilarNormals = 0.97;
constexpr double kBeamMargin = 1.2;      ///< for lenses, whose rays are not evenly spread
constexpr int kCornerGroup = 4;          ///< corners along a side that share the first part of their way
constexpr double kLeastRoom = 0.05;      ///< mm
constexpr double kFarRoom = 10.0;        ///< mm; so far away a bound is as good as the distance
constexpr double kLiftOff = 0.05;        ///< mm above the surface where the ray to the lamp begins
constexpr double kCastResolution = 0.1;  ///< mm

/// What one ray sees; depth 0 for nothing.
struct Sight {
    double depth = 0.0;
    Vector3d normal = Vector3d::Zero();  ///< world coordinates, towards the camera
    bool isLit = false;

    bool sees() const { return depth > 0.0; }
};

/// The work on one tile: rays at the corners of its blocks first, then what lies between.
class Tile {
public:
    Tile(const Shape& scene, const PixelRays& rays, const RigidMatrix& cameraToWorld, double farLimit,
         const Vector3d& lamp, int left, int top, SurfaceView& view)
        : _rays(rays),
          _cameraToWorld(cameraToWorld),
          _farLimit(farLimit),
          _lamp(lamp),
          _left(left),
          _top(top),
          _view(view),
          _scene(scene) {
        _beam = narrowed_to_beam(_scene, {_left - kRim * kBlock, _top - kRim * kBlock}, kTile + 2 * kRim * kBlock);
    }

    void run() {
        cast_corners();
        narrow_to_shadow();
        for (Sight& corner : _corners) corner.isLit = is_lit(corner, point_of(corner));
        for (int row = 0; row < kBlocksPerTile; ++row)
            for (int column = 0; column < kBlocksPerTile; ++column) fill_block(column, row);
    }

private:
    // Corner (0, 0) is that of the tile's first block; the rim has -1 and less.
    Sight& corner(int column, int row) {
        return _corners[static_cast<std::size_t>((row + kRim) * kCorners + column + kRim)];
    }
    Vector2d corner_pixel(int column, int row) const {
        return {std::clamp(_left + column * kBlock, 0, _view.width - 1),
                std::clamp(_top + row * kBlock, 0, _view.height - 1)};
    }

    Vector3d world_direction(const Vector3d& direction) const { return _cameraToWorld.get_rotation() * direction; }
    Vector3d point_at(const Vector3d& direction, double depth) const {
        return _cameraToWorld.get_translation() + depth * world_direction(direction);
    }

    /// The rays of a square of pixels lie within the capsule around its middle ray that is as wide as they are at the
    /// far limit.
    ShapePtr narrowed_to_beam(const Shape& shape, const Vector2i& first, int side) const {
        const auto [axis, halfWidth] = beam_of(first, side);
        const double radius = kBeamMargin * halfWidth * _farLimit;
        return shape.near_segment(point_at(axis, 0.0), point_at(axis, _farLimit), radius);
    }

    struct Beam {
        Vector3d axis;     ///< with z = 1, camera coordinates
        double halfWidth;  ///< per mm of depth
    };
    Beam beam_of(const Vector2i& first, int side) const {
        const auto direction_at = [&](int x, int y) {
            return _rays.at(std::clamp(x, 0, _view.width - 1), std::clamp(y, 0, _view.height - 1));
        };
        const Vector3d axis = direction_at(first.x() + side / 2, first.y() + side / 2);
        double halfWidth = 0.0;
        for (const int x : {first.x(), first.x() + side})
            for (const int y : {first.y(), first.y() + side})
                halfWidth = std::max(halfWidth, (direction_at(x, y) - axis).norm());
        return {axis, halfWidth};
    }

    const Shape& beam() const { return _beam ? *_beam : _scene; }

    /// A depth before which the rays of a square of pixels meet nothing: their middle ray is followed with steps that
    /// leave room for the others.
    double free_depth(const Shape& shape, const Vector2i& first, int side) const {
        const auto [axis, halfWidth] = beam_of(first, side);
        const double spread = kBeamMargin * halfWidth;
        const double length = axis.norm();
        double depth = 0.0;
        for (int step = 0; step < 50 && depth < _farLimit; ++step) {
            const Vector3d point = point_at(axis, depth);
            const double bound = shape.at_least(point);
            const double room = (bound > kFarRoom ? bound : shape.distance(point)) - spread * depth;
            if (!(room > kLeastRoom)) break;
            depth += room / (length + spread);
        }
        return std::clamp(depth - kLeastRoom, 0.0, _farLimit);
    }

    Sight cast(const Shape& beam, const Vector3d& direction, double freeDepth) const {
        const double length = direction.norm();
        const Ray ray{point_at(direction, freeDepth), world_direction(direction) / length, kCastResolution};
        const std::optional<Hit> hit = beam.hit(ray, (_farLimit - freeDepth) * length);
        if (!hit) return {};
        const bool facesAway = hit->normal.dot(ray.direction) > 0.0;
        return {freeDepth + hit->range / length, facesAway ? Vector3d(-hit->normal) : hit->normal, false};
    }

    void cast_corners() {
        for (int row = -kRim; row < kCorners - kRim; row += kCornerGroup)
            for (int column = -kRim; column < kCorners - kRim; column += kCornerGroup) cast_corner_group(column, row);
    }
    void cast_corner_group(int firstColumn, int firstRow) {
        const Vector2i first(_left + firstColumn * kBlock, _top + firstRow * kBlock);
        const double freeDepth = free_depth(beam(), first, (kCornerGroup - 1) * kBlock);
        for (int row = firstRow; row < std::min(firstRow + kCornerGroup, kCorners - kRim); ++row)
            for (int column = firstColumn; column < std::min(firstColumn + kCornerGroup, kCorners - kRim); ++column) {
                const Vector2d pixel = corner_pixel(column, row);
                const Vector3d direction = _rays.at(static_cast<int>(pixel.x()), static_cast<int>(pixel.y()));
                corner(column, row) = cast(beam(), direction, freeDepth);
                _points[static_cast<std::size_t>(&corner(column, row) - _corners.data())] =
                    point_at(direction, corner(column, row).depth);
            }
    }
    const Vector3d& point_of(const Sight& corner) const {
        return _points[static_cast<std::size_t>(&corner - _corners.data())];
    }

    /// The rays to the lamp from everything that the tile sees.
    void narrow_to_shadow() {
        Bounds seen;
        for (const Sight& corner : _corners)
            if (corner.sees()) seen = seen.united({point_of(corner), point_of(corner)});
        if (seen.empty()) return;
        const Vector3d centre = 0.5 * (seen.low + seen.high);
        _shadow = _scene.near_segment(centre, _lamp, 0.55 * (seen.high - seen.low).norm() + 5.0);
        _shadowCentre = centre;
        _shadowRadius = 0.55 * (seen.high - seen.low).norm() + 5.0;
    }

    bool is_lit(const Sight& sight, const Vector3d& point) const {
        if (!sight.sees()) return false;
        const Vector3d toLamp = _lamp - point;
        if (sight.normal.dot(toLamp) <= 0.0) return false;
        const Vector3d start = point + kLiftOff * sight.normal;
        const double range = (_lamp - start).norm();
        const bool isNarrowed = _shadow && (start - _shadowCentre).norm() < _shadowRadius;
        return !(isNarrowed ? *_shadow : _scene)
                    .first_crossing({start, (_lamp - start) / range, kCastResolution}, range);
    }

    /// The corners of a block, row by row.
    std::array<const Sight*, 4> corners_of(int column, int row) {
        return {&corner(column, row), &corner(column + 1, row), &corner(column, row + 1), &corner(column + 1, row + 1)};
    }

    enum class Content { Nothing, OneSurface, Mixed };
    /// A surface is linear in inverse depth over a block unless it is bent or steps.
    Content content_of(int column, int row) {
        const auto corners = corners_of(column, row);
        const auto seen = std::count_if(corners.begin(), corners.end(), [](const Sight* c) { return c->sees(); });
        if (seen == 0) return Content::Nothing;
        if (seen < 4) return Content::Mixed;
        const double depth = corners[0]->depth;
        const double twist = depth * depth *
                             std::abs(1.0 / corners[0]->depth + 1.0 / corners[3]->depth - 1.0 / corners[1]->depth -
                                      1.0 / corners[2]->depth);
        return twist < kTwistLimit ? Content::OneSurface : Content::Mixed;
    }

    /// Whether nothing can reach into the block from its neighbours that its own corners do not show: something where
    /// they see nothing, or something nearer than the surface on which they lie.
    bool is_calm(int column, int row, Content content) {
        if (content == Content::Mixed) return false;
        const auto own = corners_of(column, row);
        for (int y = -1; y <= 2; ++y)
            for (int x = -1; x <= 2; ++x) {
                const Sight& around = corner(column + x, row + y);
                if (!around.sees()) continue;
                if (content == Content::Nothing) return false;
                const double inverseDepth = 1.0 / own[0]->depth + x * (1.0 / own[1]->depth - 1.0 / own[0]->depth) +
                                            y * (1.0 / own[2]->depth - 1.0 / own[0]->depth);
                if (around.depth * around.depth * (1.0 / around.depth - inverseDepth) > kNearerLimit) return false;
            }
        return true;
    }

    void fill_block(int column, int row) {
        const Content content = content_of(column, row);
        const bool isCalm = is_calm(column, row, content);
        if (isCalm && content == Content::Nothing) return;
        if (isCalm && is_well_seen(column, row))
            interpolate_block(column, row);
        else
            cast_block(column, row);
    }

    void cast_block(int column, int row) {
        const Vector2i first(_left + column * kBlock, _top + row * kBlock);
        const ShapePtr narrowed = narrowed_to_beam(beam(), first, kBlock);
        const Shape& shape = narrowed ? *narrowed : beam();
        const double freeDepth = free_depth(shape, first, kBlock);
        const std::optional<bool> light = light_around(column, row);
        for_pixels_of(column, row, [&](int x, int y) { store_cast(shape, x, y, freeDepth, light); });
    }

    template <class Visitor>
    void for_pixels_of(int column, int row, const Visitor& visitor) const {
        const int left = _left + column * kBlock;
        const int top = _top + row * kBlock;
        for (int y = top; y < std::min(top + kBlock, _view.height); ++y)
            for (int x = left; x < std::min(left + kBlock, _view.width); ++x) visitor(x, y);
    }

    bool is_well_seen(int column, int row) {
        for (const Sight* corner : corners_of(column, row)) {
            const Vector3d sight = (point_of(*corner) - _cameraToWorld.get_translation()).normalized();
            if (-sight.dot(corner->normal) < kSteepestSight) return false;
        }
        return true;
    }

    void store_cast(const Shape& beam, int x, int y, double freeDepth, std::optional<bool> light) {
        const Vector3d direction = _rays.at(x, y);
        Sight sight = cast(beam, direction, freeDepth);
        const Vector3d point = point_at(direction, sight.depth);
        sight.isLit = light ? *light && sight.normal.dot(_lamp - point) > 0.0 : is_lit(sight, point);
        store(x, y, sight);
    }

    void interpolate_block(int column, int row) {
        const auto corners = corners_of(column, row);
        const Vector2d first = corner_pixel(column, row);
        const Vector2d last = corner_pixel(column + 1, row + 1);
        const Vector3d centre =
            0.25 * (point_of(*corners[0]) + point_of(*corners[1]) + point_of(*corners[2]) + point_of(*corners[3]));
        double radius = 0.0;
        bool isSmooth = true;
        for (const Sight* corner : corners) {
            radius = std::max(radius, (point_of(*corner) - centre).norm());
            isSmooth = isSmooth && corner->normal.dot(corners[0]->normal) > kSimilarNormals;
        }
        const std::optional<bool> light = light_around(column, row);
        const ShapePtr narrowed = _scene.near_segment(centre, centre, radius + kPatchReach);
        const Shape& patch = narrowed ? *narrowed : _scene;

        for_pixels_of(column, row, [&](int x, int y) {
            const double u = last.x() > first.x() ? (x - first.x()) / (last.x() - first.x()) : 0.0;
            const double v = last.y() > first.y() ? (y - first.y()) / (last.y() - first.y()) : 0.0;
            const std::array<double, 4> share{(1 - u) * (1 - v), u * (1 - v), (1 - u) * v, u * v};
            Sight sight;
            double inverseDepth = 0.0;
            for (std::size_t i = 0; i < 4; ++i) {
                inverseDepth += share[i] / corners[i]->depth;
                sight.normal += share[i] * corners[i]->normal;
            }
            const Vector3d direction = _rays.at(x, y);
            sight.depth = 1.0 / inverseDepth;
            sight.normal.normalize();
            if (!polish(patch, world_direction(direction), sight)) return store_cast(beam(), x, y, 0.0, light);
            const Vector3d point = point_at(direction, sight.depth);
            if (!isSmooth) {
                sight.normal = patch.gradient(point).normalized();
                if (sight.normal.dot(point - _cameraToWorld.get_translation()) > 0.0) sight.normal = -sight.normal;
            }
            sight.isLit = light ? *light : is_lit(sight, point);
            store(x, y, sight);
        });
    }

    /// What all corners of the block and its neighbours that see something have in common; nothing near the edge of a
    /// shadow.
    std::optional<bool> light_around(int column, int row) {
        std::optional<bool> light;
        for (int y = row - 1; y <= row + 2; ++y)
            for (int x = column - 1; x <= column + 2; ++x) {
                const Sight& around = corner(x, y);
                if (!around.sees()) continue;
                if (light && *light != around.isLit) return std::nullopt;
                light = around.isLit;
            }
        return light;
    }

    /// Moves the depth onto the surface with the slope that the normal gives; false when it does not arrive.
    bool polish(const Shape& patch, const Vector3d& direction, Sight& sight) const {
        const double slope = sight.normal.dot(direction);
        for (int step = 0; step < 4; ++step) {
            const double distance = patch.distance(_cameraToWorld.get_translation() + sight.depth * direction);
            if (!(std::abs(distance) < kPatchReach)) return false;
            sight.depth -= distance / slope;
            // The slope is off by the bend of the surface within the block, a few percent.
            if (std::abs(distance) < (step == 0 ? 10.0 : 20.0) * kDepthTolerance * std::abs(slope)) return true;
        }
        return false;
    }

    void store(int x, int y, const Sight& sight) {
        if (!sight.sees()) return;
        const std::size_t index = _view.index_of(x, y);
        _view.depth[index] = static_cast<float>(sight.depth);
        _view.normals[index] = (_cameraToWorld.get_rotation().transpose() * sight.normal).cast<float>();
        _view.isLit[index] = sight.isLit ? 1 : 0;
    }

    const PixelRays& _rays;
    const RigidMatrix& _cameraToWorld;
    double _farLimit;
    const Vector3d& _lamp;
    int _left;
    int _top;
    SurfaceView& _view;
    const Shape& _scene;
    ShapePtr _beam;
    ShapePtr _shadow;
    Vector3d _shadowCentre = Vector3d::Zero();
    double _shadowRadius = 0.0;
    std::array<Sight, kCorners * kCorners> _corners;
    std::array<Vector3d, kCorners * kCorners> _points;
};

}  // namespace

SurfaceView view_surface(const Shape& scene, const PixelRays& rays, const RigidMatrix& cameraToWorld, double farLimit,
                         const Vector3d& lamp, int threads) {
    SurfaceView view{rays.width, rays.height, {}, {}, {}};
    view.depth.assign(rays.directions.size(), 0.0F);
    view.normals.assign(rays.directions.size(), Vector3f::Zero());
    view.isLit.assign(rays.directions.size(), 0);
    const int columns = (rays.width + kTile - 1) / kTile;
    const int rows = (rays.height + kTile - 1) / kTile;
    parallel_ranges(threads, static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows), 1,
                    [&](std::size_t begin, std::size_t end) {
                        for (std::size_t i = begin; i < end; ++i) {
                            const int left = static_cast<int>(i) % columns * kTile;
                            const int top = static_cast<int>(i) / columns * kTile;
                            Tile(scene, rays, cameraToWorld, farLimit, lamp, left, top, view).run();
                        }
                    });
    return view;
}

}  // namespace VexelAlgorithm::Simulation
