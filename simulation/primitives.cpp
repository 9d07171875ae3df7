#include "simulation/primitives.h"

#include <Eigen/Geometry>
#include <algorithm>

#include "foundation/diagnostics.h"
#include "simulation/marchSolid.h"
#include "simulation/rayMarch.h"

namespace VexelAlgorithm::Simulation {

namespace {

Vector3d unit_or(const Vector3d& direction, const Vector3d& fallback) {
    const double length = direction.norm();
    return length > 0.0 ? Vector3d(direction / length) : fallback;
}

std::optional<double> first_admissible(double nearer, double farther, double farthest) {
    for (const double t : {nearer, farther})
        if (t > kSelfHitRange && t <= farthest) return t;
    return std::nullopt;
}

class Nothing final : public Shape {
public:
    double distance(const Vector3d&) const override { return kNoLimit; }
    Vector3d gradient(const Vector3d&) const override { return Vector3d::Zero(); }
    Bounds bounds() const override { return {}; }
    std::optional<double> first_crossing(const Ray&, double) const override { return std::nullopt; }
};

class Sphere final : public Shape {
public:
    Sphere(const Vector3d& centre, double radius) : _centre(centre), _radius(radius) {}

    double distance(const Vector3d& point) const override { return (point - _centre).norm() - _radius; }
    Vector3d gradient(const Vector3d& point) const override { return unit_or(point - _centre, Vector3d::UnitZ()); }
    Bounds bounds() const override { return Bounds{_centre, _centre}.inflated(_radius); }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        const double nearest = (_centre - ray.origin).dot(ray.direction);
        const double passing = (ray.at(nearest) - _centre).norm();
        if (passing >= _radius) return std::nullopt;
        const double halfChord = std::sqrt((_radius - passing) * (_radius + passing));
        return first_admissible(nearest - halfChord, nearest + halfChord, farthest);
    }

private:
    Vector3d _centre;
    double _radius;
};

class HalfSpace final : public Shape {
public:
    HalfSpace(const Vector3d& point, const Vector3d& normal) : _point(point), _normal(normal) {}

    double distance(const Vector3d& point) const override { return _normal.dot(point - _point); }
    double at_least(const Vector3d& point) const override { return distance(point); }
    Vector3d gradient(const Vector3d&) const override { return _normal; }
    Bounds bounds() const override { return Bounds::everything(); }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        const double approach = -_normal.dot(ray.direction);
        if (approach == 0.0) return std::nullopt;
        const double t = distance(ray.origin) / approach;
        return first_admissible(t, t, std::min(farthest, kMarchHorizon));
    }

private:
    Vector3d _point;
    Vector3d _normal;
};

class Box final : public Shape {
public:
    Box(const Vector3d& centre, const Vector3d& halfSize, double rounding)
        : _centre(centre), _core(halfSize.array() - rounding), _rounding(rounding) {}

    double distance(const Vector3d& point) const override {
        const Vector3d beyond = (point - _centre).cwiseAbs() - _core;
        return beyond.cwiseMax(0.0).norm() + std::min(beyond.maxCoeff(), 0.0) - _rounding;
    }
    Vector3d gradient(const Vector3d& point) const override {
        const Vector3d local = point - _centre;
        const Vector3d beyond = local.cwiseAbs() - _core;
        Eigen::Index face = 0;
        Vector3d gradient = Vector3d::Zero();
        if (beyond.maxCoeff(&face) > 0.0)
            gradient = beyond.cwiseMax(0.0).normalized();
        else
            gradient[face] = 1.0;
        for (int axis = 0; axis < 3; ++axis)
            if (local[axis] < 0.0) gradient[axis] = -gradient[axis];
        return gradient;
    }
    Bounds bounds() const override { return Bounds{_centre - _core, _centre + _core}.inflated(_rounding); }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        if (_rounding > 0.0) return march_solid(*this, ray, farthest);
        const Vector3d relative = ray.origin - _centre;
        RaySpan line{-kNoLimit, kNoLimit};
        for (int axis = 0; axis < 3; ++axis) {
            const double direction = ray.direction[axis];
            if (direction == 0.0) {
                if (std::abs(relative[axis]) >= _core[axis]) return std::nullopt;
                continue;
            }
            const double middle = -relative[axis] / direction;
            const double half = _core[axis] / std::abs(direction);
            line.begin = std::max(line.begin, middle - half);
            line.end = std::min(line.end, middle + half);
        }
        if (!(line.begin < line.end)) return std::nullopt;
        return first_admissible(line.begin, line.end, farthest);
    }

private:
    Vector3d _centre;
    Vector3d _core;
    double _rounding;
};

class Torus final : public Shape {
public:
    Torus(const Vector3d& centre, double ringRadius, double tubeRadius)
        : _centre(centre), _ringRadius(ringRadius), _tubeRadius(tubeRadius) {}

    double distance(const Vector3d& point) const override {
        const Vector3d local = point - _centre;
        return std::hypot(local.head<2>().norm() - _ringRadius, local.z()) - _tubeRadius;
    }
    Vector3d gradient(const Vector3d& point) const override {
        const Vector3d local = point - _centre;
        const Vector3d outwards = unit_or(Vector3d(local.x(), local.y(), 0.0), Vector3d::UnitX());
        return unit_or(local - _ringRadius * outwards, Vector3d::UnitZ());
    }
    Bounds bounds() const override {
        const Vector3d half(_ringRadius, _ringRadius, 0.0);
        return Bounds{_centre - half, _centre + half}.inflated(_tubeRadius);
    }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        return march_solid(*this, ray, farthest);
    }

private:
    Vector3d _centre;
    double _ringRadius;
    double _tubeRadius;
};

class Ellipsoid final : public Shape {
public:
    Ellipsoid(const Vector3d& centre, const Vector3d& halfAxes)
        : _centre(centre), _halfAxes(halfAxes), _squares(halfAxes.cwiseProduct(halfAxes)) {}

    double distance(const Vector3d& point) const override {
        const Vector3d local = point - _centre;
        const Nearest nearest = nearest_to(local);
        const double size = (local - nearest.point).norm();
        return nearest.isInside ? -size : size;
    }
    /// To the box around it, and to the unit ball that it becomes when every axis is divided by its half length, which
    /// shortens no distance to less than a share of 1 / the smallest one.
    double at_least(const Vector3d& point) const override {
        const Vector3d local = point - _centre;
        const double toBox = (local.cwiseAbs() - _halfAxes).cwiseMax(0.0).norm();
        const double toBall = _halfAxes.minCoeff() * (local.cwiseQuotient(_halfAxes).norm() - 1.0);
        const double bound = std::max(toBox, toBall);
        return bound > 0.0 ? bound : -kNoLimit;
    }
    Vector3d gradient(const Vector3d& point) const override {
        return unit_or(nearest_to(point - _centre).point.cwiseQuotient(_squares), Vector3d::UnitZ());
    }
    Bounds bounds() const override { return {_centre - _halfAxes, _centre + _halfAxes}; }
    Bounds bounds_after(const RigidMatrix& motion) const override {
        const Vector3d centre = motion * _centre;
        const Vector3d half = (motion.get_rotation() * _halfAxes.asDiagonal()).rowwise().norm();
        return {centre - half, centre + half};
    }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        // The ellipsoid becomes the unit ball when every axis is divided by its half length.
        const Vector3d origin = (ray.origin - _centre).cwiseQuotient(_halfAxes);
        const Vector3d direction = ray.direction.cwiseQuotient(_halfAxes);
        const double scale = direction.norm();
        const double nearest = -origin.dot(direction) / (scale * scale);
        const double passing = (origin + nearest * direction).norm();
        if (passing >= 1.0) return std::nullopt;
        const double halfChord = std::sqrt((1.0 - passing) * (1.0 + passing)) / scale;
        return first_admissible(nearest - halfChord, nearest + halfChord, farthest);
    }

private:
    struct Nearest {
        Vector3d point;  ///< of the surface, relative to the centre
        bool isInside;   ///< whether the query is
    };

    /// The nearest surface point is x_i = e_i^2 y_i / (t + e_i^2) with the largest root t of |q(t)| = 1,
    /// q_i = e_i y_i / (t + e_i^2) (Eberly, Distance from a Point to an Ellipse, an Ellipsoid, or a
    /// Hyperellipsoid). 1 / |q| is concave, so that Newton's method for 1 / |q| = 1 comes to the left of the
    /// root and never passes it again, and almost linear, so that few steps do (More and Sorensen, SIAM J.
    /// Sci. Stat. Comput. 4, 1983). The unknown is t + min e_i^2, which keeps its digits next to the pole.
    Nearest nearest_to(const Vector3d& local) const {
        // Off the planes of symmetry, where the root may be the pole itself; moves the result by at most 2e-11 mm.
        const Vector3d query = local.cwiseAbs().cwiseMax(1e-11);
        const Vector3d scaled = _halfAxes.cwiseProduct(query);
        const double surface = _squares.minCoeff();
        const Vector3d excess = _squares.array() - surface;
        const double leftmost = std::max((scaled - excess).maxCoeff(), scaled.norm() - excess.maxCoeff());
        double u = std::max(leftmost, surface);
        for (int step = 0; step < 100; ++step) {
            const Vector3d inverse = (excess.array() + u).inverse();
            const Vector3d q = scaled.cwiseProduct(inverse);
            const Vector3d terms = q.cwiseProduct(q);
            const double sum = terms.sum();
            const double advance = sum * (std::sqrt(sum) - 1.0) / terms.dot(inverse);
            u = std::max(u + advance, leftmost);
            // Each step squares the error: 1e-7 now is 1e-14 after it.
            const bool settled = std::abs(advance) * inverse.maxCoeff() < 1e-7;
            if (settled || (step > 0 && advance <= 0.0)) break;
        }
        Vector3d nearest = _squares.cwiseProduct(query).cwiseQuotient((excess.array() + u).matrix());
        for (int axis = 0; axis < 3; ++axis)
            if (local[axis] < 0.0) nearest[axis] = -nearest[axis];
        return {nearest, u < surface};
    }

    Vector3d _centre;
    Vector3d _halfAxes;
    Vector3d _squares;
};

class RoundCone final : public Shape {
public:
    RoundCone(const Vector3d& from, double radiusFrom, const Vector3d& to, double radiusTo)
        : _from(from),
          _to(to),
          _radiusFrom(radiusFrom),
          _radiusTo(radiusTo),
          _length((to - from).norm()),
          _axis((to - from) / _length),
          _sine((radiusFrom - radiusTo) / _length),
          _cosine(std::sqrt(1.0 - _sine * _sine)) {}

    double distance(const Vector3d& point) const override {
        const Section section = section_of(point);
        if (section.alongSide < 0.0) return (point - _from).norm() - _radiusFrom;
        if (section.alongSide > _cosine * _length) return (point - _to).norm() - _radiusTo;
        return section.radial * _cosine + section.axial * _sine - _radiusFrom;
    }
    Vector3d gradient(const Vector3d& point) const override {
        const Section section = section_of(point);
        if (section.alongSide < 0.0) return unit_or(point - _from, -_axis);
        if (section.alongSide > _cosine * _length) return unit_or(point - _to, _axis);
        const Vector3d radial = unit_or(point - _from - section.axial * _axis, _axis.unitOrthogonal());
        return _cosine * radial + _sine * _axis;
    }
    Bounds bounds() const override {
        return Bounds{_from, _from}.inflated(_radiusFrom).united(Bounds{_to, _to}.inflated(_radiusTo));
    }
    std::optional<double> first_crossing(const Ray& ray, double farthest) const override {
        return march_solid(*this, ray, farthest);
    }

private:
    /// A point in the half plane through the axis: along it, away from it, and along the straight side.
    struct Section {
        double axial;
        double radial;
        double alongSide;
    };
    Section section_of(const Vector3d& point) const {
        const Vector3d local = point - _from;
        const double axial = local.dot(_axis);
        const double radial = (local - axial * _axis).norm();
        return {axial, radial, axial * _cosine - radial * _sine};
    }

    Vector3d _from;
    Vector3d _to;
    double _radiusFrom;
    double _radiusTo;
    double _length;
    Vector3d _axis;
    double _sine;
    double _cosine;
};

bool usable(double size) {
    return std::isfinite(size) && size > 0.0;
}

ShapePtr refuse(const char* what) {
    print_line(std::string(what) + ", nothing takes its place in the scene");
    return nothing();
}

}  // namespace

ShapePtr nothing() {
    return std::make_shared<Nothing>();
}

ShapePtr sphere(const Vector3d& centre, double radius) {
    if (!centre.allFinite() || !usable(radius)) return refuse("sphere: centre not finite or radius not above 0");
    return std::make_shared<Sphere>(centre, radius);
}

ShapePtr half_space(const Vector3d& point, const Vector3d& normal) {
    if (!point.allFinite() || !usable(normal.norm()))
        return refuse("half-space: point not finite or normal without direction");
    return std::make_shared<HalfSpace>(point, normal.normalized());
}

ShapePtr box(const Vector3d& centre, const Vector3d& halfSize, double rounding) {
    const bool valid = centre.allFinite() && halfSize.allFinite() && halfSize.minCoeff() > 0.0 && rounding >= 0.0 &&
                       rounding < halfSize.minCoeff();
    if (!valid) return refuse("box: centre or size not finite, size not above 0, or rounding not within the size");
    return std::make_shared<Box>(centre, halfSize, rounding);
}

ShapePtr torus(const Vector3d& centre, double ringRadius, double tubeRadius) {
    if (!centre.allFinite() || !usable(ringRadius) || !usable(tubeRadius) || tubeRadius >= ringRadius)
        return refuse("torus: centre not finite, or tube radius not between 0 and the ring radius");
    return std::make_shared<Torus>(centre, ringRadius, tubeRadius);
}

ShapePtr ellipsoid(const Vector3d& centre, const Vector3d& halfAxes) {
    if (!centre.allFinite() || !halfAxes.allFinite() || halfAxes.minCoeff() <= 0.0)
        return refuse("ellipsoid: centre or half axes not finite, or a half axis not above 0");
    return std::make_shared<Ellipsoid>(centre, halfAxes);
}

ShapePtr round_cone(const Vector3d& from, double radiusFrom, const Vector3d& to, double radiusTo) {
    if (!from.allFinite() || !to.allFinite() || !usable(radiusFrom) || !usable(radiusTo))
        return refuse("round cone: an end not finite or a radius not above 0");
    const bool oneHoldsOther = (to - from).norm() <= std::abs(radiusFrom - radiusTo);
    if (oneHoldsOther) return radiusFrom > radiusTo ? sphere(from, radiusFrom) : sphere(to, radiusTo);
    return std::make_shared<RoundCone>(from, radiusFrom, to, radiusTo);
}

}  // namespace VexelAlgorithm::Simulation
