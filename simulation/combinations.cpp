#include "simulation/combinations.h"

#include <Eigen/LU>
#include <algorithm>
#include <array>

#include "foundation/diagnostics.h"
#include "simulation/marchSolid.h"
#include "simulation/primitives.h"
#include "simulation/rayMarch.h"

namespace VexelAlgorithm::Simulation {

namespace {

/// The smooth minimum of `smooth_union`. phi(s) = sum max(0, 1 + (s - d_i) / blend)^2 rises and is convex, and
/// phi(min d) >= 1, so Newton's method from there falls to the root of phi = 1 without passing it.
double smooth_minimum(const double* distances, std::size_t count, double blend) {
    double s = *std::min_element(distances, distances + count);
    if (blend == 0.0 || count == 1) return s;
    const double perBlend = 1.0 / blend;
    for (int step = 0; step < 50; ++step) {
        double phi = -1.0;
        double slope = 0.0;
        for (std::size_t i = 0; i < count; ++i) {
            const double share = 1.0 + (s - distances[i]) * perBlend;
            if (share <= 0.0) continue;
            phi += share * share;
            slope += 2.0 * share * perBlend;
        }
        const double next = s - phi / slope;
        if (!(next < s)) break;
        s = next;
    }
    return s;
}

class SmoothUnion final : public Shape {
public:
    SmoothUnion(std::vector<ShapePtr> shapes, double blend) : _shapes(std::move(shapes)), _blend(blend) {
        for (const ShapePtr& shape : _shapes) {
            _reaches.push_back(shape->bounds().inflated(_blend + kBoundsMargin));
            _bounds = _bounds.united(_reaches.back());
        }
    }

    double distance(const Vector3d& point) const override {
        std::array<double, 32> few;
        std::vector<double> many;
        if (_shapes.size() > few.size()) many.resize(_shapes.size());
        double* distances = many.empty() ? few.data() : many.data();
        std::size_t count = 0;
        visit_near(point, [&](std::size_t, double value) { distances[count++] = value; });
        return smooth_minimum(distances, count, _blend);
    }

    Vector3d gradient(const Vector3d& point) const override {
        std::vector<std::size_t> members;
        std::vector<double> distances;
        visit_near(point, [&](std::size_t i, double value) {
            members.push_back(i);
            distances.push_back(value);
        });
        const double s = smooth_minimum(distances.data(), distances.size(), _blend);
        if (_blend == 0.0) {
            const auto nearest = std::min_element(distances.begin(), distances.end()) - distances.begin();
            return _shapes[members[static_cast<std::size_t>(nearest)]]->gradient(point);
        }
        Vector3d sum = Vector3d::Zero();
        double shares = 0.0;
        for (std::size_t i = 0; i < members.size(); ++i) {
            const double share = 1.0 + (s - distances[i]) / _blend;
            if (share <= 0.0) continue;
            sum += share * _shapes[members[i]]->gradient(point);
            shares += share;
        }
        return sum / shares;
    }

    Bounds bounds() const override { return _bounds; }

    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        const std::vector<MemberSpan> spans = members_on(ray, std::min(farthest, kMarchHorizon));
        if (spans.empty()) return std::nullopt;
        std::vector<double> distances(spans.size());
        Piece piece = piece_at(kSelfHitRange, spans);
        const bool startsInside = !piece.members.empty() && value_of(piece, ray.at(piece.begin), distances) < 0.0;
        if (_blend == 0.0 && !startsInside) return nearest_crossing(ray, spans);
        for (; piece.end < kNoLimit; piece = piece_at(piece.end, spans)) {
            if (piece.members.empty()) continue;
            const auto field = [&](double t) { return value_of(piece, ray.at(t), distances); };
            if (const auto crossing = march_to_crossing(field, piece.begin, piece.end, startsInside)) return crossing;
        }
        return std::nullopt;
    }

private:
    struct MemberSpan {
        const Shape* shape;
        RaySpan span;
    };
    /// A part of a ray on which the same operands are in reach, up to where the next one comes or goes. These
    /// operands alone give the same sign as the whole union.
    struct Piece {
        double begin;
        double end = kNoLimit;
        std::vector<const Shape*> members;
    };

    std::vector<MemberSpan> members_on(const Ray& ray, double farthest) const {
        std::vector<MemberSpan> spans;
        if (_bounds.span(ray, farthest).empty()) return spans;
        for (std::size_t i = 0; i < _shapes.size(); ++i) {
            const RaySpan span = _reaches[i].span(ray, farthest);
            if (!span.empty()) spans.push_back({_shapes[i].get(), span});
        }
        return spans;
    }

    /// Its end is infinite when nothing is in reach from t on.
    static Piece piece_at(double t, const std::vector<MemberSpan>& spans) {
        Piece piece{t, kNoLimit, {}};
        for (const MemberSpan& member : spans) {
            if (member.span.end <= t) continue;
            const bool reached = member.span.begin <= t;
            piece.end = std::min(piece.end, reached ? member.span.end : member.span.begin);
            if (reached) piece.members.push_back(member.shape);
        }
        return piece;
    }

    double value_of(const Piece& piece, const Vector3d& point, std::vector<double>& distances) const {
        for (std::size_t i = 0; i < piece.members.size(); ++i) distances[i] = piece.members[i]->distance(point);
        return smooth_minimum(distances.data(), piece.members.size(), _blend);
    }

    /// Sharp seams, seen from outside all operands: the union is hit where the first operand is.
    static std::optional<double> nearest_crossing(const Ray& ray, const std::vector<MemberSpan>& spans) {
        std::optional<double> nearest;
        for (const MemberSpan& member : spans) {
            const double limit = nearest.value_or(member.span.end);
            if (member.span.begin > limit) continue;
            if (const auto crossing = member.shape->first_crossing(ray, limit)) nearest = crossing;
        }
        return nearest;
    }

    /// Calls visitor(index, distance) for every operand that can have a share in the value at the point; all
    /// others are farther than the nearest one by the blend radius.
    template <class Visitor>
    void visit_near(const Vector3d& point, const Visitor& visitor) const {
        double nearest = kNoLimit;
        for (std::size_t i = 0; i < _shapes.size(); ++i) {
            if (_reaches[i].distance(point) > std::max(nearest, 0.0)) continue;
            const double value = _shapes[i]->distance(point);
            nearest = std::min(nearest, value);
            visitor(i, value);
        }
    }

    std::vector<ShapePtr> _shapes;
    std::vector<Bounds> _reaches;
    double _blend;
    Bounds _bounds;
};

class SmoothDifference final : public Shape {
public:
    SmoothDifference(ShapePtr solid, ShapePtr tool, double blend)
        : _solid(std::move(solid)), _tool(std::move(tool)), _blend(blend) {}

    double distance(const Vector3d& point) const override { return -smooth_minimum(depths(point).data(), 2, _blend); }
    Vector3d gradient(const Vector3d& point) const override {
        const std::array<double, 2> depth = depths(point);
        if (_blend == 0.0) return depth[0] <= depth[1] ? _solid->gradient(point) : Vector3d(-_tool->gradient(point));
        const double s = smooth_minimum(depth.data(), 2, _blend);
        const double shareSolid = std::max(0.0, 1.0 + (s - depth[0]) / _blend);
        const double shareTool = std::max(0.0, 1.0 + (s - depth[1]) / _blend);
        Vector3d gradient = Vector3d::Zero();
        if (shareSolid > 0.0) gradient += shareSolid * _solid->gradient(point);
        if (shareTool > 0.0) gradient -= shareTool * _tool->gradient(point);
        return gradient / (shareSolid + shareTool);
    }
    Bounds bounds() const override { return _solid->bounds(); }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        return march_solid(*this, ray, farthest);
    }

private:
    /// Depth below the surface of the solid, and outside the tool.
    std::array<double, 2> depths(const Vector3d& point) const {
        return {-_solid->distance(point), _tool->distance(point)};
    }

    ShapePtr _solid;
    ShapePtr _tool;
    double _blend;
};

class Moved final : public Shape {
public:
    Moved(ShapePtr shape, const RigidMatrix& motion)
        : _shape(std::move(shape)), _toCaller(motion), _toOwn(motion.inverse()), _bounds(moved_bounds()) {}

    double distance(const Vector3d& point) const override { return _shape->distance(_toOwn * point); }
    Vector3d gradient(const Vector3d& point) const override {
        return _toCaller.get_rotation() * _shape->gradient(_toOwn * point);
    }
    Bounds bounds() const override { return _bounds; }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        return _shape->first_crossing({_toOwn * ray.origin, _toOwn.get_rotation() * ray.direction}, farthest);
    }

private:
    Bounds moved_bounds() const {
        const Bounds own = _shape->bounds();
        if (!own.low.allFinite() || !own.high.allFinite()) return Bounds::everything();
        Bounds all;
        for (int corner = 0; corner < 8; ++corner) {
            const Vector3d point =
                _toCaller * Vector3d((corner & 1 ? own.high : own.low).x(), (corner & 2 ? own.high : own.low).y(),
                                     (corner & 4 ? own.high : own.low).z());
            all = all.united({point, point});
        }
        return all;
    }

    ShapePtr _shape;
    RigidMatrix _toCaller;
    RigidMatrix _toOwn;
    Bounds _bounds;
};

bool is_nothing(const ShapePtr& shape) {
    return !shape || shape->bounds().empty();
}

double usable_blend(double blend) {
    if (std::isfinite(blend) && blend >= 0.0) return blend;
    print_line("blend radius must be finite and at least 0, seams stay sharp");
    return 0.0;
}

}  // namespace

ShapePtr smooth_union(const std::vector<ShapePtr>& shapes, double blend) {
    std::vector<ShapePtr> members;
    for (const ShapePtr& shape : shapes)
        if (!is_nothing(shape)) members.push_back(shape);
    const double radius = usable_blend(blend);
    if (members.empty()) return nothing();
    if (members.size() == 1) return members.front();
    return std::make_shared<SmoothUnion>(std::move(members), radius);
}

ShapePtr smooth_difference(const ShapePtr& solid, const ShapePtr& tool, double blend) {
    const double radius = usable_blend(blend);
    if (is_nothing(solid)) return nothing();
    if (is_nothing(tool)) return solid;
    return std::make_shared<SmoothDifference>(solid, tool, radius);
}

bool is_rigid(const RigidMatrix& pose) {
    if (!pose.is_finite()) return false;
    const Matrix3d& rotation = pose.get_rotation();
    return (rotation * rotation.transpose() - Matrix3d::Identity()).cwiseAbs().maxCoeff() < 1e-6 &&
           rotation.determinant() > 0.0;
}

ShapePtr moved(const ShapePtr& shape, const RigidMatrix& motion) {
    if (!is_rigid(motion)) {
        print_line("motion of a solid is not a finite rotation and translation, nothing takes its place in the scene");
        return nothing();
    }
    if (is_nothing(shape)) return nothing();
    RigidMatrix exactMotion = motion;
    rigidMatrix_regularization(exactMotion);
    return std::make_shared<Moved>(shape, exactMotion);
}

}  // namespace VexelAlgorithm::Simulation
