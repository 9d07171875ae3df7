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
/// phi(min d) >= 1, so Newton's method from there falls to the root of phi = 1 without passing it. As soon as the
/// operands that share are those of the root, it is that of a quadratic.
double smooth_minimum(const double* distances, std::size_t count, double blend) {
    double s = *std::min_element(distances, distances + count);
    if (blend == 0.0 || count == 1) return s;
    const double perBlend = 1.0 / blend;
    for (int step = 0; step < 50; ++step) {
        double sharing = 0.0, sum = 0.0, squares = 0.0, least = kNoLimit;
        for (std::size_t i = 0; i < count; ++i) {
            const double share = 1.0 + (s - distances[i]) * perBlend;
            if (share <= 0.0) continue;
            sharing += 1.0;
            sum += share;
            squares += share * share;
            least = std::min(least, share);
        }
        const double excess = squares - 1.0;
        if (!(excess > 0.0)) break;
        const double fall = excess / (sum + std::sqrt(std::max(sum * sum - sharing * excess, 0.0)));
        if (fall <= least) return s - fall * blend;
        const double next = s - 0.5 * excess / sum * blend;
        if (!(next < s)) break;
        s = next;
    }
    return s;
}

/// An operand of a union beside a ray.
struct RayMember {
    const Shape* shape;
    RaySpan span;                     ///< where the ray is within its reach
    double lastDistance = -kNoLimit;  ///< at the last place that was asked about, or a lower bound
    double lastRange = 0.0;           ///< that place
    bool isExact = false;             ///< no bound

    /// The distance changes by at most 1 per mm.
    double lower_bound(double t) const { return lastDistance - std::abs(t - lastRange); }
};

/// The value of a union along a ray, of the operands in whose reach the ray has come so far. Where these are all that
/// it comes to up to `next_arrival`, the value has the same sign as that of the whole union and changes by at most 1
/// per mm.
class RayField {
public:
    RayField(const Ray& ray, double blend, std::vector<RayMember>& members)
        : _ray(&ray), _blend(blend), _members(members.data()), _count(members.size()) {
        std::sort(members.begin(), members.end(),
                  [](const RayMember& a, const RayMember& b) { return a.span.begin < b.span.begin; });
        _distances.resize(_count);
    }

    /// Takes in what begins up to there and leaves out what has ended.
    void advance_to(double t) {
        while (_arrived < _count && _members[_arrived].span.begin <= t) _active.push_back(&_members[_arrived++]);
        const auto ended = [t](const RayMember* member) { return member->span.end < t; };
        _active.erase(std::remove_if(_active.begin(), _active.end(), ended), _active.end());
    }
    bool empty() const { return _active.empty(); }
    /// Negative infinity when there is nothing.
    double last_end() const {
        double last = -kNoLimit;
        for (const RayMember* member : _active) last = std::max(last, member->span.end);
        return last;
    }
    /// Infinite when nothing is to come.
    double next_arrival() const { return _arrived < _count ? _members[_arrived].span.begin : kNoLimit; }

    /// Evaluates the operands that can have a share, the nearest one of the last call first.
    double operator()(double t) {
        const Vector3d point = _ray->at(t);
        double nearest = kNoLimit;
        std::size_t count = 0;
        for (RayMember*& member : _active) {
            if (member->lower_bound(t) > nearest + _blend) continue;
            evaluate(*member, t, point, nearest + _blend);
            if (!member->isExact) continue;
            const double distance = member->lastDistance;
            _distances[count++] = distance;
            if (distance >= nearest) continue;
            nearest = distance;
            std::swap(_active.front(), member);
        }
        return smooth_minimum(_distances.data(), count, _blend);
    }

private:
    /// Its distance, or only a bound when that is beyond the limit.
    static void evaluate(RayMember& member, double t, const Vector3d& point, double limit) {
        if (member.isExact && member.lastRange == t) return;
        member.lastRange = t;
        member.lastDistance = limit < kNoLimit ? member.shape->at_least(point) : -kNoLimit;
        member.isExact = !(member.lastDistance > limit);
        if (member.isExact) member.lastDistance = member.shape->distance(point);
    }

    const Ray* _ray;
    double _blend;
    RayMember* _members;  ///< in the order in which the ray comes to them
    std::size_t _count;
    std::size_t _arrived = 0;
    std::vector<RayMember*> _active;
    std::vector<double> _distances;
};

class SmoothUnion final : public Shape {
public:
    SmoothUnion(std::vector<ShapePtr> shapes, double blend) : _shapes(std::move(shapes)), _blend(blend) {
        for (const ShapePtr& shape : _shapes) {
            _reaches.push_back(shape->bounds().inflated(margin()));
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

    /// Operands with sharp seams are few, and each can say more than the box around all.
    double at_least(const Vector3d& point) const override {
        const double toBox = _bounds.distance(point) > 0.0 ? _bounds.distance(point) : -kNoLimit;
        if (_blend > 0.0) return toBox;
        double least = kNoLimit;
        for (const ShapePtr& shape : _shapes) least = std::min(least, shape->at_least(point));
        return std::max(least, toBox);
    }
    Bounds bounds() const override { return _bounds; }
    Bounds bounds_after(const RigidMatrix& motion) const override {
        Bounds all;
        for (const ShapePtr& shape : _shapes) all = all.united(shape->bounds_after(motion));
        return all.inflated(_blend + kBoundsMargin);
    }

    ShapePtr near_segment(const Vector3d& from, const Vector3d& to, double radius) const override {
        const std::vector<std::size_t> kept = from == to ? shares_in_ball(from, radius) : reaches(from, to, radius);
        std::vector<ShapePtr> shapes;
        for (const std::size_t i : kept) {
            // What blends with its neighbours must have the right distance as far as the blend reaches.
            const ShapePtr simpler = _shapes[i]->near_segment(from, to, radius + _blend);
            shapes.push_back(simpler ? simpler : _shapes[i]);
        }
        if (shapes.empty()) return nothing();
        if (shapes.size() == 1) return shapes.front();
        return std::make_shared<SmoothUnion>(std::move(shapes), _blend);
    }

    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        std::vector<RayMember> members = members_on(ray, std::min(farthest, kMarchHorizon));
        if (members.empty()) return std::nullopt;
        RayField field(ray, _blend, members);
        field.advance_to(kSelfHitRange);
        const bool startsInside = !field.empty() && field(kSelfHitRange) < 0.0;
        if (_blend == 0.0 && !startsInside) return nearest_crossing(ray, members);
        for (double begin = kSelfHitRange; begin < kNoLimit; begin = field.next_arrival()) {
            field.advance_to(begin);
            const double end = std::min(field.last_end(), field.next_arrival());
            if (!(begin <= end)) continue;
            if (const auto crossing = march_to_crossing(field, begin, end, startsInside, ray.resolution))
                return crossing;
        }
        return std::nullopt;
    }

private:
    /// Farther away an operand has no share.
    double margin() const { return _blend + kBoundsMargin; }

    /// Operands that may be within the radius and the blend of the segment.
    std::vector<std::size_t> reaches(const Vector3d& from, const Vector3d& to, double radius) const {
        const double length = (to - from).norm();
        const Ray ray{from, length > 0.0 ? Vector3d((to - from) / length) : Vector3d::UnitX()};
        Bounds box{from.cwiseMin(to), from.cwiseMax(to)};
        box = box.inflated(radius);
        std::vector<std::size_t> found;
        for (std::size_t i = 0; i < _reaches.size(); ++i) {
            const Bounds& reach = _reaches[i];
            if ((reach.low.array() > box.high.array()).any() || (reach.high.array() < box.low.array()).any()) continue;
            if (!_shapes[i]->reach(ray, radius + margin(), length).empty()) found.push_back(i);
        }
        return found;
    }

    /// Operands that can have a share in the value somewhere in the ball.
    std::vector<std::size_t> shares_in_ball(const Vector3d& centre, double radius) const {
        std::vector<std::size_t> found = reaches(centre, centre, radius);
        std::vector<double> distances;
        for (const std::size_t i : found) distances.push_back(_shapes[i]->distance(centre));
        if (found.empty()) return found;
        const double limit = *std::min_element(distances.begin(), distances.end()) + 2.0 * radius + _blend;
        std::size_t kept = 0;
        for (std::size_t k = 0; k < found.size(); ++k)
            if (distances[k] <= limit) found[kept++] = found[k];
        found.resize(kept);
        return found;
    }

    std::vector<RayMember> members_on(const Ray& ray, double farthest) const {
        std::vector<RayMember> members;
        if (_bounds.span(ray, farthest).empty()) return members;
        for (std::size_t i = 0; i < _shapes.size(); ++i) {
            if (_reaches[i].span(ray, farthest).empty()) continue;
            const RaySpan span = _shapes[i]->reach(ray, margin(), farthest);
            if (!span.empty()) members.push_back({_shapes[i].get(), span});
        }
        return members;
    }

    /// Sharp seams, seen from outside all operands: the union is hit where the first operand is.
    static std::optional<double> nearest_crossing(const Ray& ray, const std::vector<RayMember>& members) {
        std::optional<double> nearest;
        for (const RayMember& member : members) {
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
            if (nearest < kNoLimit && _shapes[i]->at_least(point) > nearest + _blend) continue;
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
        : _shape(std::move(shape)),
          _toCaller(motion),
          _toOwn(motion.inverse()),
          _bounds(_shape->bounds_after(motion)) {}

    double distance(const Vector3d& point) const override { return _shape->distance(_toOwn * point); }
    double at_least(const Vector3d& point) const override { return _shape->at_least(_toOwn * point); }
    Vector3d gradient(const Vector3d& point) const override {
        return _toCaller.get_rotation() * _shape->gradient(_toOwn * point);
    }
    Bounds bounds() const override { return _bounds; }
    Bounds bounds_after(const RigidMatrix& motion) const override { return _shape->bounds_after(motion * _toCaller); }
    ShapePtr near_segment(const Vector3d& from, const Vector3d& to, double radius) const override {
        const ShapePtr simpler = _shape->near_segment(_toOwn * from, _toOwn * to, radius);
        return simpler ? moved(simpler, _toCaller) : nullptr;
    }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        return _shape->first_crossing(own(ray), farthest);
    }
    RaySpan reach(const Ray& ray, double margin, double farthest) const override {
        return _shape->reach(own(ray), margin, farthest);
    }

private:
    Ray own(const Ray& ray) const {
        return {_toOwn * ray.origin, _toOwn.get_rotation() * ray.direction, ray.resolution};
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
