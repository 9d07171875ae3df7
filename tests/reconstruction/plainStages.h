// The stages that slide or use vector instructions, written straight from their definitions, in double precision and
// without any sliding.
#pragma once

#include <Eigen/Cholesky>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

#include "SpeckleRebCPU/parallaxFacets.h"
#include "SpeckleRebCPU/parallaxFilters.h"
#include "SpeckleRebCPU/pixelMatch.h"
#include "SpeckleRebCPU/subPixelStep.h"
#include "SpeckleRebCPU/validMask.h"
#include "foundation/types.h"

namespace VexelAlgorithm::Plain {

inline std::uint8_t sampled_pixel(const GreyImage& image, int ratio, int x, int y) {
    double sum = 0, weights = 0;
    for (int dy = 1 - ratio; dy < ratio; ++dy)
        for (int dx = 1 - ratio; dx < ratio; ++dx) {
            const double weight = (ratio - std::abs(dx)) * (ratio - std::abs(dy));
            sum += weight * image.at(std::clamp(x * ratio + dx, 0, image.width() - 1),
                                     std::clamp(y * ratio + dy, 0, image.height() - 1));
            weights += weight;
        }
    return static_cast<std::uint8_t>(std::floor(sum / weights + 0.5));
}

/// Whether the test of texture, dilated, holds at a pixel; bounds as they are stated, not as they are computed.
inline bool is_valid(const GreyImage& image, const PixelRange& range, int window, double threshold, int dilateX,
                     int dilateY, int x, int y) {
    const int w = image.width(), h = image.height();
    const auto step = [&](int u, int v) -> double {
        const int x0 = std::max(range.xBegin, 3), y0 = std::max(range.yBegin, 3);
        if (u < x0 || u >= std::min(w - x0, range.xEnd) || v < y0 + 1 || v >= std::min(h - y0, range.yEnd)) return 0;
        return std::abs(image.at(u + 1, v) - image.at(u - 1, v));
    };
    const int r = window >> 1;
    const auto is_textured = [&](int u, int v) {
        const int x0 = std::max(r + 1, range.xBegin), y0 = std::max(r + 1, range.yBegin);
        if (u < x0 || u >= std::min(w - x0, range.xEnd) || v < y0 || v >= std::min(h - y0, range.yEnd)) return false;
        double squares = 0;
        for (int dv = -r; dv <= r; ++dv)
            for (int du = -r; du <= r; ++du) squares += std::pow(step(u + du, v + dv), 2);
        return squares >= threshold * threshold * (2 * r + 1) * (2 * r + 1);
    };
    if (x < range.xBegin || x >= range.xEnd || y < range.yBegin || y >= range.yEnd) return false;
    for (int v = y - dilateY / 2; v <= y + dilateY / 2; ++v)
        for (int u = x - dilateX / 2; u <= x + dilateX / 2; ++u)
            if (is_textured(u, v)) return true;
    return false;
}

struct Candidate {
    double score;
    int position;
};

/// The candidates of one left pixel with their scores, in order.
inline std::vector<Candidate> candidates(const PixelMatchTask& task, int x, int y) {
    const int rx = task.windowWidth / 2, ry = task.windowHeight / 2, width = task.left.width();
    const double n = task.windowWidth * task.windowHeight;
    const auto sums = [&](const GreyImage& image, int centre) {
        double sum = 0, squares = 0;
        for (int dy = -ry; dy <= ry; ++dy)
            for (int dx = -rx; dx <= rx; ++dx) {
                const double v = image.at(centre + dx, y + dy);
                sum += v;
                squares += v * v;
            }
        return std::pair(sum / n, squares - sum * sum / n);
    };
    const auto [meanL, VL] = sums(task.left, x);
    std::vector<Candidate> list;
    for (int c = std::max(x + task.parallaxBegin, rx); c < std::min(x + task.parallaxEnd, width - rx); ++c) {
        if (task.rightMask.at(c, y) == 0) continue;
        const auto [meanR, VR] = sums(task.right, c);
        if (!(VR > 1e-6) || !(VL > 1e-6)) {
            list.push_back({0.0, c});
            continue;
        }
        double C = 0;
        for (int dy = -ry; dy <= ry; ++dy)
            for (int dx = -rx; dx <= rx; ++dx)
                C += double(task.left.at(x + dx, y + dy)) * task.right.at(c + dx, y + dy);
        list.push_back({(C - n * meanL * meanR) / std::sqrt(VR * VL), c});
    }
    return list;
}

struct Found {
    double position = NO_MATCH, score = 0.0;
};

/// Of scores that are equal but for rounding the first is the best.
inline Found search_row(const std::vector<Candidate>& list) {
    double best = 0.0;
    std::size_t k = 0;
    for (std::size_t i = 0; i < list.size(); ++i)
        if (list[i].score > best + 1e-12) {
            best = std::min(list[i].score, 1.0);
            k = i;
        }
    if (best <= 0 || k < 2 || k + 1 >= list.size()) return {};
    const double a = list[k - 1].score, b = list[k].score, c = list[k + 1].score;
    return {list[k].position + (a - c) / (2 * a - 4 * b + 2 * c), best};
}

struct Step {
    double step, score;
};

/// Second differences of the left image, sampled from their definition.
inline double second_difference(const GreyImage& image, int x, int y, bool alongX) {
    const double coarse[5] = {1 / 16.0, 4 / 16.0, 6 / 16.0, 4 / 16.0, 1 / 16.0}, fine[5] = {0, 0.25, 0.5, 0.25, 0};
    double sum = 0;
    for (int dy = -2; dy <= 2; ++dy)
        for (int dx = -2; dx <= 2; ++dx) {
            const double across = coarse[(alongX ? dy : dx) + 2];
            const double along = coarse[(alongX ? dx : dy) + 2] - fine[(alongX ? dx : dy) + 2];
            sum += across * along *
                   image.at(std::clamp(x + dx, 0, image.width() - 1), std::clamp(y + dy, 0, image.height() - 1));
        }
    return sum;
}

/// Of the cubic spline through a row, mirrored at its ends: the whole of its filter.
inline double spline_coefficient(const GreyImage& image, int x, int y) {
    const int last = image.width() - 1;
    double sum = 0;
    for (int k = -30; k <= 30; ++k) {
        const int mirrored = last - std::abs(last - std::abs(x + k));
        sum += std::sqrt(3.0) * std::pow(std::sqrt(3.0) - 2.0, std::abs(k)) * image.at(mirrored, y);
    }
    return sum;
}

struct Pair {
    double f, d, g;
};
/// Parallax and slopes of what a pixel lies on.
struct Seen {
    double parallax;
    double slope[2];  ///< along rows and along columns
};
/// `k` pixels behind one slot and `s - k` before the next, along axis 0 (row) or 1.
inline std::optional<Seen> between(const std::optional<Seen>& first, const std::optional<Seen>& second, int k, int s,
                                   double jump, int axis) {
    const bool isSecond = second && 2 * k >= s;
    if (!isSecond && (!first || (2 * k > s && !second))) return std::nullopt;
    Seen seen = isSecond ? *second : *first;
    if (first && second && std::abs(second->parallax - first->parallax) <= jump) {
        seen.parallax = first->parallax + (second->parallax - first->parallax) * k / s;
    } else {
        seen.parallax += seen.slope[axis] * (isSecond ? k - s : k);
    }
    return seen;
}
inline std::optional<Seen> seen_at(const SubPixelTask& task, const ParallaxField& field, int x, int y) {
    const int s = task.sample, slotX = x / s, slotY = std::min(y / s, field.parallax.height() - 1);
    const auto slot = [&](int u, int v) -> std::optional<Seen> {
        if (!field.parallax.contains(u, v) || !has_parallax(field.parallax.at(u, v))) return std::nullopt;
        return Seen{field.parallax.at(u, v), {field.slopeX.at(u, v), field.slopeY.at(u, v)}};
    };
    const auto column = [&](int u) {
        return between(slot(u, slotY), slot(u, slotY + 1), y - slotY * s, s, task.jump, 1);
    };
    return between(column(slotX), column(slotX + 1), x - slotX * s, s, task.jump, 0);
}

/// A left pixel, and the right image where the slots around it predict it: derivative and grey value.
inline std::optional<Pair> pair_at(const SubPixelTask& task, const ParallaxField& field, int x, int y) {
    if (!task.left.contains(x, y) || task.leftCover.at(x, y) == 0) return std::nullopt;
    const std::optional<Seen> seen = seen_at(task, field, x, y);
    if (!seen) return std::nullopt;
    const double position = x + seen->parallax;
    if (position < 1 || position >= task.left.width() - 2) return std::nullopt;
    const int column = static_cast<int>(position);
    const double t = position - column;
    const auto p = [&](int k) -> double { return task.right.at(column + k, y); };
    const double own = task.left.at(x, y);
    if (task.leftCover.at(x, y) == 2 && std::max({own, p(-1), p(0), p(1), p(2)}) >= task.clippedGrey)
        return std::nullopt;
    const auto c = [&](int k) { return spline_coefficient(task.right, column + k, y); };
    const double before = c(-1), here = c(0), next = c(1), after = c(2), u = 1 - t;
    return Pair{task.fine.left.at(x, y) / 16.0 + 128.0,
                (-before * u * u + here * (3 * t * t - 4 * t) + next * (1 + 2 * t - 3 * t * t) + after * t * t) / 2,
                (before * u * u * u + here * (4 - 6 * t * t + 3 * t * t * t) +
                 next * (1 + 3 * t + 3 * t * t - 3 * t * t * t) + after * t * t * t) /
                    6};
}

/// The least-squares step of one slot: g + step d = gain f + offset over the weighted window.
inline std::optional<Step> sub_pixel_step(const SubPixelTask& task, const ParallaxField& field, int slotX, int slotY) {
    const int s = task.sample;
    const SubPixelWeights shape = sub_pixel_weights(task);
    const auto weight_of = [&](int x, int y) {
        double weight = 0;
        for (int j = -1; j <= 1; ++j)
            for (int i = -1; i <= 1; ++i) {
                if (shape.spacing == 0 && (i != 0 || j != 0)) continue;
                const int sx = slotX + i * shape.spacing, sy = slotY + j * shape.spacing;
                if (!field.parallax.contains(sx, sy)) continue;
                if (std::abs(x - sx * s) <= shape.boxWidth / 2 && std::abs(y - sy * s) <= shape.boxHeight / 2)
                    weight += (2 - std::abs(i)) * (2 - std::abs(j)) / (shape.spacing == 0 ? 4.0 : 1.0);
            }
        return weight;
    };
    Eigen::Matrix4d normal = Eigen::Matrix4d::Zero();  // of 1, f, d, g
    for (int y = slotY * s - task.windowHeight / 2; y <= slotY * s + task.windowHeight / 2; ++y)
        for (int x = slotX * s - task.windowWidth / 2; x <= slotX * s + task.windowWidth / 2; ++x) {
            const std::optional<Pair> pair = pair_at(task, field, x, y);
            if (!pair) continue;
            const Eigen::Vector4d row(1.0, pair->f, pair->d, pair->g);
            normal += weight_of(x, y) * row * row.transpose();
        }
    if (normal(0, 0) < shape.fewest) return std::nullopt;
    const auto covariance = [&](int a, int b) { return normal(a, b) - normal(0, a) * normal(0, b) / normal(0, 0); };
    if (covariance(1, 1) < 1e-9 || covariance(3, 3) < 1e-9 || covariance(2, 2) < 1e-9) return std::nullopt;
    const Eigen::Vector3d solution = normal.topLeftCorner<3, 3>().ldlt().solve(normal.topRightCorner<3, 1>());
    return Step{-solution[2], covariance(1, 3) / std::sqrt(covariance(1, 1) * covariance(3, 3))};
}

/// The facet of one slot: a weighted quadric whose curvature is shrunk. Parallax and slopes.
inline std::optional<Vector3d> facet(const FacetFit& fit, int sample, const ParallaxField& field, int x, int y) {
    using Vector6d = Eigen::Matrix<double, 6, 1>;
    const double own = field.parallax.at(x, y), a = field.slopeX.at(x, y), b = field.slopeY.at(x, y);
    Eigen::Matrix<double, 6, 6> left = Eigen::Matrix<double, 6, 6>::Zero();
    Vector6d full = Vector6d::Zero(), right = Vector6d::Zero();
    int taps = 0;
    for (int j = -fit.radius; j <= fit.radius; ++j)
        for (int i = -fit.radius; i <= fit.radius; ++i) {
            const double dx = i * fit.spacing, dy = j * fit.spacing;
            const double weight = std::exp(-(i * i + j * j) / (2.0 * fit.sigma * fit.sigma));
            const Vector6d row = (Vector6d() << 1, dx, dy, dx * dx, dx * dy, dy * dy).finished();
            full += weight * row.cwiseAbs2();
            ++taps;
            const int u = x + i * fit.spacing, v = y + j * fit.spacing;
            if (!field.parallax.contains(u, v) || !has_parallax(field.parallax.at(u, v))) continue;
            const double p = field.parallax.at(u, v) - own;
            if (std::abs(p - sample * (a * dx + b * dy)) >
                fit.tolerance + fit.slopeTolerance * sample * row.segment<2>(1).norm())
                continue;
            left += weight * row * row.transpose();
            right += weight * row * p;
        }
    // The terms that count; of the curvature, how much its part beside the others explains.
    std::vector<int> used;
    double explained = 0.0;
    const auto solve = [&](const Vector6d& side) {
        const auto n = static_cast<Eigen::Index>(used.size());
        Eigen::MatrixXd m(n, n);
        Eigen::VectorXd r(n);
        for (Eigen::Index i = 0; i < n; ++i) {
            r[i] = side[used[static_cast<std::size_t>(i)]];
            for (Eigen::Index j = 0; j < n; ++j)
                m(i, j) = left(used[static_cast<std::size_t>(i)], used[static_cast<std::size_t>(j)]);
        }
        const Eigen::VectorXd found = m.ldlt().solve(r);
        Vector6d terms = Vector6d::Zero();
        for (Eigen::Index i = 0; i < n; ++i) terms[used[static_cast<std::size_t>(i)]] = found[i];
        return terms;
    };
    for (int k = 0; k < 6; ++k) {
        const Vector6d beside = used.empty() ? Vector6d(Vector6d::Zero()) : solve(left.col(k));
        const double rest = left(k, k) - beside.dot(left.col(k));
        if (!(rest > std::max(0.01 * left(k, k), 0.001 * full[k]))) continue;
        if (k >= 3) explained += std::pow(right[k] - beside.dot(right), 2) / rest;
        used.push_back(k);
    }
    if (std::count(used.begin(), used.end(), 1) + std::count(used.begin(), used.end(), 2) < 2) return std::nullopt;
    const Vector6d quadric = solve(right);
    used.erase(std::remove_if(used.begin(), used.end(), [](int k) { return k >= 3; }), used.end());
    const Vector6d plane = solve(right);
    const double share = std::max(0.0, 1.0 - fit.noise * fit.noise * taps / explained);
    const Vector3d terms = (plane + share * (quadric - plane)).head<3>();
    return Vector3d(own + terms[0], terms[1] / sample, terms[2] / sample);
}

/// Connected regions, by flooding each: which one every slot belongs to (-1 for none), and their sizes.
inline ParallaxRegions regions(float largestStep, const Raster<float>& parallax) {
    const int w = parallax.width();
    ParallaxRegions found{Raster<std::int32_t>(w, parallax.height(), -1), {}};
    for (int y = 0; y < parallax.height(); ++y)
        for (int x = 0; x < w; ++x) {
            if (found.label.at(x, y) >= 0 || !has_parallax(parallax.at(x, y))) continue;
            const auto label = static_cast<std::int32_t>(found.sizes.size());
            std::vector<std::pair<int, int>> region{{x, y}};
            found.label.at(x, y) = label;
            for (std::size_t k = 0; k < region.size(); ++k)
                for (const auto& [dx, dy] : {std::pair(1, 0), {-1, 0}, {0, 1}, {0, -1}}) {
                    const int u = region[k].first + dx, v = region[k].second + dy;
                    if (!parallax.contains(u, v) || found.label.at(u, v) >= 0 ||
                        !(std::abs(parallax.at(u, v) - parallax.at(u - dx, v - dy)) <= largestStep))
                        continue;
                    found.label.at(u, v) = label;
                    region.emplace_back(u, v);
                }
            found.sizes.push_back(region.size());
        }
    return found;
}

}  // namespace VexelAlgorithm::Plain
