#include "simulation/TriangleTree.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace VexelAlgorithm::Simulation {

namespace {

constexpr int kBins = 16;
constexpr std::uint32_t kLargestLeaf = 4;
constexpr int kBalancedFrom = 40;  ///< depth from which halves are taken, so that the deepest leaf is known
constexpr int kDeepest = kBalancedFrom + 32;
constexpr double kBoxCost = 1.0;           ///< of visiting a node, in triangle tests
constexpr double kLeastDirection = 1e-30;  ///< whose inverse is still finite
constexpr double kSmallBox = 0.2;          ///< diagonal of a box that is as good as a point, relative to its distance
constexpr double kSlabRounding = 1.0 + 1e-15;

struct FloatBox {
    Vector3f low = Vector3f::Constant(std::numeric_limits<float>::infinity());
    Vector3f high = Vector3f::Constant(-std::numeric_limits<float>::infinity());

    void add(const Vector3f& point) {
        low = low.cwiseMin(point);
        high = high.cwiseMax(point);
    }
    void add(const FloatBox& box) {
        low = low.cwiseMin(box.low);
        high = high.cwiseMax(box.high);
    }
    double half_area() const {
        const Vector3d size = (high.cast<double>() - low.cast<double>()).cwiseMax(0.0);
        return size.x() * size.y() + size.y() * size.z() + size.z() * size.x();
    }
};

/// A ray as the slab test and the sheared triangle test want it.
struct PreparedRay {
    explicit PreparedRay(const Ray& ray) : origin(ray.origin) {
        Vector3d direction = ray.direction;
        for (int axis = 0; axis < 3; ++axis)
            if (std::abs(direction[axis]) < kLeastDirection)
                direction[axis] = std::copysign(kLeastDirection, direction[axis]);
        inverse = direction.cwiseInverse();
        direction.cwiseAbs().maxCoeff(&z);
        x = (z + 1) % 3;
        y = (x + 1) % 3;
        shear = Vector3d(direction[x], direction[y], 1.0) / direction[z];
    }

    /// Range at which the ray enters the box; infinite when it misses it or comes to it beyond `farthest`.
    double entry(const Vector3f& low, const Vector3f& high, double farthest) const {
        double begin = 0.0, end = farthest;
        for (int axis = 0; axis < 3; ++axis) {
            const double one = (static_cast<double>(low[axis]) - origin[axis]) * inverse[axis];
            const double other = (static_cast<double>(high[axis]) - origin[axis]) * inverse[axis];
            begin = std::max(begin, std::min(one, other));
            end = std::min(end, std::max(one, other) * kSlabRounding);
        }
        return begin <= end ? begin : kNoLimit;
    }

    /// Range of the crossing with the triangle's plane; NaN when the ray passes beside the triangle.
    double crossing(const Vector3f* corners) const {
        double u[3], v[3], w[3];
        for (int i = 0; i < 3; ++i) {
            const double along = static_cast<double>(corners[i][z]) - origin[z];
            u[i] = static_cast<double>(corners[i][x]) - origin[x] - shear.x() * along;
            v[i] = static_cast<double>(corners[i][y]) - origin[y] - shear.y() * along;
            w[i] = shear.z() * along;
        }
        const double a = u[2] * v[1] - v[2] * u[1];
        const double b = u[0] * v[2] - v[0] * u[2];
        const double c = u[1] * v[0] - v[1] * u[0];
        const bool isBeside = (a < 0.0 || b < 0.0 || c < 0.0) && (a > 0.0 || b > 0.0 || c > 0.0);
        const double sum = a + b + c;
        if (isBeside || sum == 0.0) return std::numeric_limits<double>::quiet_NaN();
        return (a * w[0] + b * w[1] + c * w[2]) / sum;
    }

    Vector3d origin;
    Vector3d inverse;
    Vector3d shear;
    int x = 0, y = 1, z = 2;
};

struct TrianglePoint {
    Vector3d point;
    TrianglePart part;
};

TrianglePoint nearest_on(const Vector3d& a, const Vector3d& b, const Vector3d& c, const Vector3d& query) {
    const Vector3d ab = b - a, ac = c - a, aq = query - a;
    const double d1 = ab.dot(aq), d2 = ac.dot(aq);
    if (d1 <= 0.0 && d2 <= 0.0) return {a, TrianglePart::Corner0};
    const Vector3d bq = query - b;
    const double d3 = ab.dot(bq), d4 = ac.dot(bq);
    if (d3 >= 0.0 && d4 <= d3) return {b, TrianglePart::Corner1};
    const double vc = d1 * d4 - d3 * d2;
    if (vc <= 0.0 && d1 >= 0.0 && d3 <= 0.0) return {a + d1 / (d1 - d3) * ab, TrianglePart::Edge0};
    const Vector3d cq = query - c;
    const double d5 = ab.dot(cq), d6 = ac.dot(cq);
    if (d6 >= 0.0 && d5 <= d6) return {c, TrianglePart::Corner2};
    const double vb = d5 * d2 - d1 * d6;
    if (vb <= 0.0 && d2 >= 0.0 && d6 <= 0.0) return {a + d2 / (d2 - d6) * ac, TrianglePart::Edge2};
    const double va = d3 * d6 - d5 * d4;
    if (va <= 0.0 && d4 >= d3 && d5 >= d6)
        return {b + (d4 - d3) / ((d4 - d3) + (d5 - d6)) * (c - b), TrianglePart::Edge1};
    const double scale = 1.0 / (va + vb + vc);
    return {a + vb * scale * ab + vc * scale * ac, TrianglePart::Inside};
}

}  // namespace

class TriangleTree::Builder {
public:
    Builder(TriangleTree& tree, const std::vector<Vector3f>& points, const std::vector<Vector3i>& triangles)
        : _tree(tree) {
        _boxes.resize(triangles.size());
        _centres.reserve(triangles.size());
        for (std::size_t i = 0; i < triangles.size(); ++i) {
            for (const int corner : triangles[i]) _boxes[i].add(points[static_cast<std::size_t>(corner)]);
            _centres.emplace_back(0.5F * _boxes[i].low + 0.5F * _boxes[i].high);
        }
        _order.resize(triangles.size());
        std::iota(_order.begin(), _order.end(), 0);
    }

    void run() {
        if (_order.empty()) return;
        _tree._nodes.emplace_back();
        divide(0, 0, static_cast<std::uint32_t>(_order.size()), 0);
        _tree._numbers = std::move(_order);
    }

private:
    const FloatBox& box(std::uint32_t i) const { return _boxes[static_cast<std::size_t>(_order[i])]; }
    const Vector3f& centre(std::uint32_t i) const { return _centres[static_cast<std::size_t>(_order[i])]; }

    void divide(std::size_t node, std::uint32_t begin, std::uint32_t end, int depth) {
        FloatBox whole, centres;
        for (std::uint32_t i = begin; i < end; ++i) {
            whole.add(box(i));
            centres.add(centre(i));
        }
        _tree._nodes[node] = {whole.low, begin, whole.high, end - begin};
        if (end - begin <= 1) return;
        const std::uint32_t middle =
            depth < kBalancedFrom ? by_area(whole, centres, begin, end) : in_halves(centres, begin, end);
        if (middle == begin) return;
        const std::size_t children = _tree._nodes.size();
        _tree._nodes.resize(children + 2);
        _tree._nodes[node].first = static_cast<std::uint32_t>(children);
        _tree._nodes[node].count = 0;
        divide(children, begin, middle, depth + 1);
        divide(children + 1, middle, end, depth + 1);
    }

    std::uint32_t in_halves(const FloatBox& centres, std::uint32_t begin, std::uint32_t end) {
        if (end - begin <= kLargestLeaf) return begin;
        int axis = 0;
        (centres.high - centres.low).maxCoeff(&axis);
        const std::uint32_t middle = begin + (end - begin) / 2;
        std::nth_element(_order.begin() + begin, _order.begin() + middle, _order.begin() + end, [&](int a, int b) {
            return _centres[static_cast<std::size_t>(a)][axis] < _centres[static_cast<std::size_t>(b)][axis];
        });
        return middle;
    }

    struct Split {
        double cost = kNoLimit;
        int axis = 0;
        int bin = 0;  ///< first one of the right side
    };
    struct Bins {
        float low;
        float perWidth;

        int of(float value) const { return std::clamp(static_cast<int>((value - low) * perWidth), 0, kBins - 1); }
    };
    static Bins bins_along(const FloatBox& centres, int axis) {
        return {centres.low[axis], static_cast<float>(kBins) / (centres.high[axis] - centres.low[axis])};
    }

    /// `begin` for a leaf.
    std::uint32_t by_area(const FloatBox& whole, const FloatBox& centres, std::uint32_t begin, std::uint32_t end) {
        Split best;
        for (int axis = 0; axis < 3; ++axis) {
            if (!std::isfinite(bins_along(centres, axis).perWidth)) continue;
            const Split split = best_along(axis, centres, begin, end);
            if (split.cost < best.cost) best = split;
        }
        const std::uint32_t count = end - begin;
        const bool isLeafCheaper = best.cost + kBoxCost * whole.half_area() >= count * whole.half_area();
        if (count <= kLargestLeaf && isLeafCheaper) return begin;
        if (best.cost == kNoLimit) return in_halves(centres, begin, end);
        const Bins bins = bins_along(centres, best.axis);
        const auto middle = std::partition(_order.begin() + begin, _order.begin() + end, [&](int i) {
            return bins.of(_centres[static_cast<std::size_t>(i)][best.axis]) < best.bin;
        });
        return static_cast<std::uint32_t>(middle - _order.begin());
    }

    Split best_along(int axis, const FloatBox& centres, std::uint32_t begin, std::uint32_t end) const {
        const Bins bins = bins_along(centres, axis);
        std::array<FloatBox, kBins> boxes;
        std::array<std::uint32_t, kBins> counts{};
        for (std::uint32_t i = begin; i < end; ++i) {
            const auto bin = static_cast<std::size_t>(bins.of(centre(i)[axis]));
            boxes[bin].add(box(i));
            ++counts[bin];
        }
        std::array<double, kBins> leftCost{};
        FloatBox left;
        std::uint32_t leftCount = 0;
        for (int bin = 1; bin < kBins; ++bin) {
            left.add(boxes[static_cast<std::size_t>(bin - 1)]);
            leftCount += counts[static_cast<std::size_t>(bin - 1)];
            leftCost[static_cast<std::size_t>(bin)] = leftCount > 0 ? leftCount * left.half_area() : kNoLimit;
        }
        Split best;
        FloatBox right;
        std::uint32_t rightCount = 0;
        for (int bin = kBins - 1; bin > 0; --bin) {
            right.add(boxes[static_cast<std::size_t>(bin)]);
            rightCount += counts[static_cast<std::size_t>(bin)];
            const double cost = leftCost[static_cast<std::size_t>(bin)] + rightCount * right.half_area();
            if (rightCount > 0 && cost < best.cost) best = {cost, axis, bin};
        }
        return best;
    }

    TriangleTree& _tree;
    std::vector<FloatBox> _boxes;
    std::vector<Vector3f> _centres;
    std::vector<int> _order;
};

TriangleTree::TriangleTree(const std::vector<Vector3f>& points, const std::vector<Vector3i>& triangles) {
    Builder(*this, points, triangles).run();
    _corners.reserve(triangles.size());
    for (const int number : _numbers) {
        Corners corners;
        for (int i = 0; i < 3; ++i)
            corners.corner[i] = points[static_cast<std::size_t>(triangles[static_cast<std::size_t>(number)][i])];
        _corners.push_back(corners);
    }
}

Bounds TriangleTree::bounds() const {
    if (_nodes.empty()) return {};
    return {_nodes.front().low.cast<double>(), _nodes.front().high.cast<double>()};
}

std::optional<TriangleTree::RayHit> TriangleTree::first_hit(const Ray& given, double least, double farthest) const {
    struct Visit {
        std::uint32_t node;
        double entry;
    };
    const PreparedRay ray(given);
    std::optional<RayHit> first;
    std::array<Visit, kDeepest + 1> open;
    std::size_t count = 0;
    if (!_nodes.empty()) open[count++] = {0, ray.entry(_nodes[0].low, _nodes[0].high, farthest)};
    while (count > 0) {
        const Visit visit = open[--count];
        if (!(visit.entry <= farthest)) continue;
        const Node& node = _nodes[visit.node];
        for (std::uint32_t i = node.first; i < node.first + node.count; ++i) {
            const double range = ray.crossing(_corners[i].corner);
            if (!(range > least && range <= farthest)) continue;
            first = RayHit{range, _numbers[i]};
            farthest = range;
        }
        if (node.count > 0) continue;
        const Node* children = &_nodes[node.first];
        Visit nearer{node.first, ray.entry(children[0].low, children[0].high, farthest)};
        Visit farther{node.first + 1, ray.entry(children[1].low, children[1].high, farthest)};
        if (farther.entry < nearer.entry) std::swap(nearer, farther);
        if (farther.entry <= farthest) open[count++] = farther;
        if (nearer.entry <= farthest) open[count++] = nearer;
    }
    return first;
}

double TriangleTree::Node::squared_distance(const Vector3d& point) const {
    return (low.cast<double>() - point).cwiseMax(point - high.cast<double>()).cwiseMax(0.0).squaredNorm();
}

TriangleTree::Nearest TriangleTree::nearest_to(const Vector3d& query) const {
    struct Visit {
        std::uint32_t node;
        double squaredDistance;
    };
    Nearest nearest;
    double least = kNoLimit;
    std::array<Visit, kDeepest + 1> open;
    std::size_t count = 0;
    open[count++] = {0, _nodes[0].squared_distance(query)};
    while (count > 0) {
        const Visit visit = open[--count];
        if (visit.squaredDistance >= least) continue;
        const Node& node = _nodes[visit.node];
        for (std::uint32_t i = node.first; i < node.first + node.count; ++i) {
            const Vector3f* corner = _corners[i].corner;
            const TrianglePoint place =
                nearest_on(corner[0].cast<double>(), corner[1].cast<double>(), corner[2].cast<double>(), query);
            const double squaredDistance = (place.point - query).squaredNorm();
            if (!(squaredDistance < least)) continue;
            least = squaredDistance;
            nearest = {place.point, _numbers[i], place.part};
        }
        if (node.count > 0) continue;
        Visit nearer{node.first, _nodes[node.first].squared_distance(query)};
        Visit farther{node.first + 1, _nodes[node.first + 1].squared_distance(query)};
        if (farther.squaredDistance < nearer.squaredDistance) std::swap(nearer, farther);
        if (farther.squaredDistance < least) open[count++] = farther;
        if (nearer.squaredDistance < least) open[count++] = nearer;
    }
    return nearest;
}

double TriangleTree::at_least(const Vector3d& query) const {
    double least = kNoLimit;
    std::array<std::uint32_t, kDeepest + 1> open;
    std::size_t count = 0;
    if (!_nodes.empty()) open[count++] = 0;
    while (count > 0) {
        const Node& node = _nodes[open[--count]];
        const double squaredDistance = node.squared_distance(query);
        if (squaredDistance >= least) continue;
        const double squaredSize = (node.high - node.low).cast<double>().squaredNorm();
        if (node.count > 0 || squaredSize < kSmallBox * kSmallBox * squaredDistance) {
            least = squaredDistance;
            continue;
        }
        // The nearer child is looked at first.
        const Node* children = &_nodes[node.first];
        const bool isFirstNearer = children[0].squared_distance(query) < children[1].squared_distance(query);
        open[count++] = node.first + (isFirstNearer ? 1 : 0);
        open[count++] = node.first + (isFirstNearer ? 0 : 1);
    }
    return std::sqrt(least);
}

}  // namespace VexelAlgorithm::Simulation
