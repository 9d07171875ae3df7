// The matching stages written straight from their definitions, in double precision and without any sliding.
#pragma once

#include <Eigen/Cholesky>
#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

#include "SpeckleRebCPU/growMatches.h"
#include "SpeckleRebCPU/parallaxFacets.h"
#include "SpeckleRebCPU/parallaxFilters.h"
#include "SpeckleRebCPU/pixelMatch.h"
#include "SpeckleRebCPU/subPixelStep.h"
#include "SpeckleRebCPU/surfaceEdges.h"
#include "SpeckleRebCPU/validMask.h"
#include "SpeckleRebCPU/verifyMatch.h"
#include "foundation/types.h"

namespace VexelAlgorithm::Plain {

inline std::uint8_t sampled_pixel(const GreyImage& image, int ratio, int x, int y) {
    double sum = 0, weights = 0;
    for (int dy = 1 - ratio; dy < ratio; ++dy) {
        for (int dx = 1 - ratio; dx < ratio; ++dx) {
            const double weight = (ratio - std::abs(dx)) * (ratio - std::abs(dy));
            sum += weight * image.at(std::clamp(x * ratio + dx, 0, image.width() - 1),
                                     std::clamp(y * ratio + dy, 0, image.height() - 1));
            weights += weight;
        }
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
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (list[i].score > best + 1e-12) {
            best = std::min(list[i].score, 1.0);
            k = i;
        }
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

/// The least-squares step of one slot: g + step d = gain f + blurX u + blurY v + offset over the weighted window.
inline std::optional<Step> sub_pixel_step(const SubPixelTask& task, const ParallaxField& field, int slotX, int slotY) {
    const int s = task.sample, width = task.left.width();
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
    Eigen::Matrix<double, 6, 6> normal = Eigen::Matrix<double, 6, 6>::Zero();  // of 1, f, u, v, d, g
    for (int y = slotY * s - task.windowHeight / 2; y <= slotY * s + task.windowHeight / 2; ++y) {
        for (int x = slotX * s - task.windowWidth / 2; x <= slotX * s + task.windowWidth / 2; ++x) {
            if (!task.left.contains(x, y) || task.leftCover.at(x, y) == 0) continue;
            const int sx = (x + s / 2) / s, sy = std::min((y + s / 2) / s, field.parallax.height() - 1);
            if (sx >= field.parallax.width() || !has_parallax(field.parallax.at(sx, sy))) continue;
            const double position = x + field.parallax.at(sx, sy) + field.slopeX.at(sx, sy) * (x - sx * s) +
                                    field.slopeY.at(sx, sy) * (y - sy * s);
            if (position < 1 || position >= width - 2) continue;
            const int column = static_cast<int>(position);
            const double t = position - column;
            const auto p = [&](int k) -> double { return task.right.at(column + k, y); };
            // Catmull and Rom's spline, from its basis functions.
            const double g = 0.5 * (p(-1) * (-t + 2 * t * t - t * t * t) + p(0) * (2 - 5 * t * t + 3 * t * t * t) +
                                    p(1) * (t + 4 * t * t - 3 * t * t * t) + p(2) * (-t * t + t * t * t));
            const double d = 0.5 * (p(-1) * (-1 + 4 * t - 3 * t * t) + p(0) * (-10 * t + 9 * t * t) +
                                    p(1) * (1 + 8 * t - 9 * t * t) + p(2) * (-2 * t + 3 * t * t));
            Eigen::Matrix<double, 6, 1> row;
            row << 1.0, task.left.at(x, y), second_difference(task.left, x, y, true),
                second_difference(task.left, x, y, false), d, g;
            normal += weight_of(x, y) * row * row.transpose();
        }
    }
    if (normal(0, 0) < shape.fewest) return std::nullopt;
    const auto covariance = [&](int a, int b) { return normal(a, b) - normal(0, a) * normal(0, b) / normal(0, 0); };
    if (covariance(1, 1) < 1e-9 || covariance(5, 5) < 1e-9 || covariance(4, 4) < 1e-9) return std::nullopt;
    const Eigen::Matrix<double, 5, 1> solution =
        normal.topLeftCorner<5, 5>().ldlt().solve(normal.topRightCorner<5, 1>());
    return Step{-solution[4], covariance(1, 5) / std::sqrt(covariance(1, 1) * covariance(5, 5))};
}

/// Growth, one pixel after the other: rings of unmatched pixels beside matched ones, at most three tries a pixel.
inline void grow(const GrowTask& task, Raster<float>& parallax) {
    const int w = parallax.width(), h = parallax.height(), rx = task.windowWidth / 2, ry = task.windowHeight / 2;
    const auto match = [&](int x, int y) -> float {
        // A plane through the matched pixels within four.
        Matrix3d normal = Matrix3d::Zero();
        Vector3d side = Vector3d::Zero();
        int count = 0;
        for (int dy = -4; dy <= 4; ++dy)
            for (int dx = -4; dx <= 4; ++dx) {
                if (!parallax.contains(x + dx, y + dy) || !has_parallax(parallax.at(x + dx, y + dy))) continue;
                const Vector3d row(1, dx, dy);
                normal += row * row.transpose();
                side += row * parallax.at(x + dx, y + dy);
                ++count;
            }
        if (count < 6) return NO_PARALLAX;
        const Eigen::Matrix2d spread =
            normal.bottomRightCorner<2, 2>() - normal.bottomLeftCorner<2, 1>() * normal.topRightCorner<1, 2>() / count;
        if (spread.determinant() < 0.1 * count * count) return NO_PARALLAX;
        const Vector3d plane = normal.inverse() * side;
        if (plane.tail<2>().cwiseAbs().maxCoeff() > 0.9) return NO_PARALLAX;
        double now = plane[0], best = NO_PARALLAX, bestScore = 0;
        for (int step = 0; step <= 3; ++step) {
            const double reach = rx * (1 + std::abs(plane[1])) + ry * std::abs(plane[2]);
            if (x < rx || y < ry || x >= w - rx || y >= h - ry || x + now - reach < 0 || x + now + reach >= w - 1)
                break;
            Matrix3d c = Matrix3d::Zero();  // of f, g and the slope of g
            Vector3d mean = Vector3d::Zero();
            const double n = task.windowWidth * task.windowHeight;
            for (int dy = -ry; dy <= ry; ++dy)
                for (int dx = -rx; dx <= rx; ++dx) {
                    const double position = x + now + plane[2] * dy + (1 + plane[1]) * dx;
                    const int column = static_cast<int>(position);
                    const double before = task.right.at(column, y + dy);
                    const double slope = task.right.at(column + 1, y + dy) - before;
                    const Vector3d row(task.left.at(x + dx, y + dy), before + slope * (position - column), slope);
                    c += row * row.transpose();
                    mean += row / n;
                }
            c -= n * mean * mean.transpose();
            if (c.diagonal().minCoeff() <= 1) break;
            const double score = c(0, 1) / std::sqrt(c(0, 0) * c(1, 1));
            const double move = (std::sqrt(c(1, 1) / c(0, 0)) * c(0, 2) - c(1, 2)) / c(2, 2);
            if (score > bestScore) best = now, bestScore = score;
            now += std::clamp(move, -1.0, 1.0);
            if (std::abs(move) < 0.02) break;
        }
        const bool isTaken = bestScore >= task.smallestScore && best >= task.parallaxBegin && best < task.parallaxEnd &&
                             std::abs(best - plane[0]) <= 1.5;
        return isTaken ? static_cast<float>(best) : NO_PARALLAX;
    };
    Raster<int> tries(w, h);
    Mask fresh(w, h);
    for (std::size_t i = 0; i < fresh.size(); ++i) fresh[i] = has_parallax(parallax[i]) ? 1 : 0;
    for (bool isGrowing = true; isGrowing;) {
        isGrowing = false;
        Mask next(w, h);
        Raster<float> found = parallax;
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                bool isBeside = false;
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx)
                        isBeside = isBeside || (fresh.contains(x + dx, y + dy) && fresh.at(x + dx, y + dy) != 0);
                if (!isBeside || has_parallax(parallax.at(x, y)) || task.leftMask.at(x, y) == 0 || ++tries.at(x, y) > 3)
                    continue;
                found.at(x, y) = match(x, y);
                next.at(x, y) = has_parallax(found.at(x, y)) ? 1 : 0;
                isGrowing = isGrowing || next.at(x, y) != 0;
            }
        parallax = found;
        fresh = next;
    }
}

/// The facet of weighted least squares of one slot: parallax and slopes.
inline std::optional<Vector3d> facet(const FacetFit& fit, int sample, const ParallaxField& field, int x, int y) {
    const double s = sample, own = field.parallax.at(x, y), a = field.slopeX.at(x, y), b = field.slopeY.at(x, y);
    Matrix3d normal = Matrix3d::Zero();
    Vector3d side = Vector3d::Zero();
    for (int j = -fit.radius; j <= fit.radius; ++j)
        for (int i = -fit.radius; i <= fit.radius; ++i) {
            const int dx = i * fit.spacing, dy = j * fit.spacing;
            if (!field.parallax.contains(x + dx, y + dy) || !has_parallax(field.parallax.at(x + dx, y + dy))) continue;
            const double p = field.parallax.at(x + dx, y + dy), distance = s * std::hypot(dx, dy);
            if (std::abs(p - own - s * (a * dx + b * dy)) > fit.tolerance + fit.slopeTolerance * distance) continue;
            const Vector3d row(1, s * dx, s * dy);
            const double weight = std::exp(-(i * i + j * j) / (2.0 * fit.sigma * fit.sigma));
            normal += weight * row * row.transpose();
            side += weight * row * p;
        }
    const double w = normal(0, 0);
    const Eigen::Matrix2d spread =
        normal.bottomRightCorner<2, 2>() - normal.bottomLeftCorner<2, 1>() * normal.topRightCorner<1, 2>() / w;
    if (spread.determinant() / (s * s * s * s) <= 0.01 * w * w) return std::nullopt;
    return Vector3d(normal.inverse() * side);
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

inline void clear(ParallaxField& field, const std::vector<std::pair<int, int>>& slots) {
    for (const auto& [x, y] : slots) field.parallax.at(x, y) = NO_PARALLAX;
}

template <class Action>
void for_slots(const ParallaxField& field, const Action& action) {
    for (int y = 0; y < field.parallax.height(); ++y)
        for (int x = 0; x < field.parallax.width(); ++x)
            if (has_parallax(field.parallax.at(x, y))) action(x, y);
}

/// The facet of slot (x, y) at the slot (dx, dy) further on.
inline double extended(const ParallaxField& field, int sample, int x, int y, int dx, int dy) {
    return field.parallax.at(x, y) + sample * (field.slopeX.at(x, y) * dx + field.slopeY.at(x, y) * dy);
}

inline void remove_inconsistent(int radius, double tolerance, double slopeTolerance, int sample, ParallaxField& field) {
    std::vector<std::pair<int, int>> wrong;
    for_slots(field, [&](int x, int y) {
        int present = 0, supporting = 0;
        for (int dy = -radius; dy <= radius; ++dy)
            for (int dx = -radius; dx <= radius; ++dx) {
                if (!field.parallax.contains(x + dx, y + dy) || !has_parallax(field.parallax.at(x + dx, y + dy)))
                    continue;
                ++present;
                supporting += std::abs(field.parallax.at(x + dx, y + dy) - extended(field, sample, x, y, dx, dy)) <=
                              tolerance + slopeTolerance * sample * std::hypot(dx, dy);
            }
        if (supporting < 0.5 * present || supporting < 0.2 * (2 * radius + 1) * (2 * radius + 1))
            wrong.emplace_back(x, y);
    });
    clear(field, wrong);
}

inline void remove_doubtful(const DoubtLimits& limits, int sample, ParallaxField& field) {
    std::vector<std::pair<int, int>> wrong;
    for_slots(field, [&](int x, int y) {
        double worst = 0;
        for (const auto& [dx, dy] : {std::pair(1, 0), {2, 0}, {-1, 0}, {-2, 0}, {0, 1}, {0, 2}, {0, -1}, {0, -2}})
            if (field.parallax.contains(x + dx, y + dy) && has_parallax(field.parallax.at(x + dx, y + dy)))
                worst = std::max(worst,
                                 std::abs(extended(field, sample, x + dx, y + dy, -dx, -dy) - field.parallax.at(x, y)) /
                                     std::abs(dx + dy));
        const float score = field.score.at(x, y);
        if (score < limits.smallestScore || (score < limits.doubtfulScore && worst > limits.largestDisagreement))
            wrong.emplace_back(x, y);
    });
    clear(field, wrong);
}

inline void remove_cell_outliers(int size, double factor, double tolerance, int fewest, ParallaxField& field) {
    for (int y0 = 0; y0 < field.parallax.height(); y0 += size)
        for (int x0 = 0; x0 < field.parallax.width(); x0 += size) {
            std::vector<std::pair<int, int>> slots;
            for_slots(field, [&](int x, int y) {
                if (x / size == x0 / size && y / size == y0 / size) slots.emplace_back(x, y);
            });
            if (slots.empty()) continue;
            Vector3d plane = Vector3d::Zero();
            const auto off = [&](const std::pair<int, int>& slot) {
                return std::abs(field.parallax.at(slot.first, slot.second) -
                                plane.dot(Vector3d(1, slot.first, slot.second)));
            };
            const auto fit = [&](double limit) {
                Matrix3d normal = Matrix3d::Zero();
                Vector3d side = Vector3d::Zero();
                for (const auto& slot : slots) {
                    if (off(slot) > limit) continue;
                    const Vector3d row(1, slot.first, slot.second);
                    normal += row * row.transpose();
                    side += row * field.parallax.at(slot.first, slot.second);
                }
                plane = normal.ldlt().solve(side);
            };
            const auto deviation = [&] {
                std::vector<double> all;
                for (const auto& slot : slots) all.push_back(off(slot));
                std::sort(all.begin(), all.end());
                return 1.4826 * all[all.size() / 2];
            };
            fit(INFINITY);
            fit(std::max(3 * deviation(), 0.05));
            const double limit = std::max(factor * deviation(), tolerance);
            const bool isSparse = static_cast<int>(slots.size()) < fewest;
            slots.erase(std::remove_if(slots.begin(), slots.end(),
                                       [&](const auto& slot) { return !isSparse && off(slot) <= limit; }),
                        slots.end());
            clear(field, slots);
        }
}

/// The way back in its four steps.
inline void return_match(const VerifyTask& task, int searchRadius, double tolerance, ParallaxField& field) {
    const int w = field.parallax.width(), h = field.parallax.height();
    const auto limit = [&](int x, int y) { return tolerance / std::clamp(1.0 + field.slopeX.at(x, y), 0.1, 1.0); };
    const auto position = [&](int x, int y) { return x + field.parallax.at(x, y) / task.sample; };
    /// Which slot of the row has the right pixel that (x, y) claims: the one with the largest value, the first of them.
    const auto owner = [&](int x, int y, const auto& value) {
        int best = x;
        for (int u = w - 1; u >= 0; --u)
            if (has_parallax(field.parallax.at(u, y)) &&
                std::floor(position(u, y) + 0.5) == std::floor(position(x, y) + 0.5) && value(u) >= value(best))
                best = u;
        return best;
    };
    const auto is_inside = [&](int x, int y) { return position(x, y) >= -0.5 && position(x, y) + 0.5 < w; };
    const auto clear_regions = [&](const ParallaxRegions& all, const auto& is_wrong) {
        std::vector<std::pair<int, int>> wrong;
        for_slots(field, [&](int x, int y) {
            if (is_wrong(static_cast<std::size_t>(all.label.at(x, y)))) wrong.emplace_back(x, y);
        });
        clear(field, wrong);
    };
    ParallaxRegions all = regions(task.regionStep, field.parallax);
    std::vector<double> contradicted(all.sizes.size(), 0);
    for_slots(field, [&](int x, int y) {
        const auto size = [&](int u) { return all.sizes[static_cast<std::size_t>(all.label.at(u, y))]; };
        const int other = owner(x, y, size);
        if (is_inside(x, y) && std::abs(other - x) > limit(x, y) && size(other) > size(x))
            ++contradicted[static_cast<std::size_t>(all.label.at(x, y))];
    });
    clear_regions(all, [&](std::size_t region) { return 3 * contradicted[region] > double(all.sizes[region]); });

    all = regions(task.regionStep, field.parallax);
    std::vector<double> cutOff(all.sizes.size(), 0);
    for_slots(field, [&](int x, int y) {
        int first = w, last = -1;
        for (int c = 0; c < w; ++c)
            if (task.rightCover.at(c, y) != 0) first = std::min(first, c), last = c;
        cutOff[static_cast<std::size_t>(all.label.at(x, y))] +=
            last < 0 || x + task.parallaxBegin < first || x + task.parallaxEnd > last + 1;
    });
    const auto largest = std::max_element(all.sizes.begin(), all.sizes.end()) - all.sizes.begin();
    clear_regions(all, [&](std::size_t region) {
        return static_cast<std::ptrdiff_t>(region) != largest && cutOff[region] >= 0.9 * double(all.sizes[region]);
    });

    std::vector<std::pair<int, int>> wrong;
    for_slots(field, [&](int x, int y) {
        const int other = owner(x, y, [&](int u) { return field.score.at(u, y); });
        if (is_inside(x, y) && std::abs(other - x) > limit(x, y)) wrong.emplace_back(x, y);
    });
    clear(field, wrong);

    GreyImage warped(w, h);
    Mask seen(w, h);
    const Mask everywhere(w, h, 1);
    for_slots(field, [&](int x, int y) {
        if (position(x, y) < 0 || position(x, y) >= w - 1) return;
        const int column = static_cast<int>(position(x, y));
        const double t = position(x, y) - column;
        warped.at(x, y) =
            static_cast<std::uint8_t>((1 - t) * task.right.at(column, y) + t * task.right.at(column + 1, y) + 0.5);
        seen.at(x, y) = 1;
    });
    const PixelMatchTask back{warped,        task.left,        seen,
                              everywhere,    task.windowWidth, task.windowHeight,
                              -searchRadius, searchRadius + 1, {0, w, 0, h}};
    wrong.clear();
    for_slots(field, [&](int x, int y) {
        const int rx = task.windowWidth / 2, ry = task.windowHeight / 2;
        if (seen.at(x, y) == 0 || x < rx || y < ry || x >= w - rx || y >= h - ry) return;
        const double found = search_row(candidates(back, x, y)).position;
        if (found != NO_MATCH && std::abs(found - x) > limit(x, y)) wrong.emplace_back(x, y);
    });
    clear(field, wrong);
}

inline void trim_edges(const EdgeTask& task, int width, double leastStep, ParallaxField& field) {
    const auto near = [&](int x, int y, int reach, const auto& holds) {
        for (int v = y - reach; v <= y + reach; ++v)
            for (int u = x - reach; u <= x + reach; ++u)
                if (field.parallax.contains(u, v) && holds(u, v)) return true;
        return false;
    };
    const auto is_empty = [&](int u, int v) { return !has_parallax(field.parallax.at(u, v)); };
    std::vector<std::pair<int, int>> wrong;
    for (int round = 0; round < 3; ++round) {
        wrong.clear();
        for_slots(field, [&](int x, int y) {
            double squares = 0, count = 0;
            for (int v = y * task.sample - 2; v <= y * task.sample + 2; ++v)
                for (int u = x * task.sample - 2; u <= x * task.sample + 2; ++u)
                    if (task.left.contains(u - 1, v) && task.left.contains(u + 1, v)) {
                        squares += std::pow(task.left.at(u + 1, v) - task.left.at(u - 1, v), 2);
                        ++count;
                    }
            if (squares < leastStep * leastStep * count && near(x, y, 1, is_empty)) wrong.emplace_back(x, y);
        });
        clear(field, wrong);
    }
    wrong.clear();
    const auto is_gap = [&](int u, int v) {  // part of an empty square
        for (int y = v - 2; y <= v; ++y)
            for (int x = u - 2; x <= u; ++x) {
                bool isSquare = true;
                for (int k = 0; k < 9; ++k)
                    isSquare =
                        isSquare && field.parallax.contains(x + k % 3, y + k / 3) && is_empty(x + k % 3, y + k / 3);
                if (isSquare) return true;
            }
        return false;
    };
    for_slots(field, [&](int x, int y) {
        const float own = field.parallax.at(x, y);
        const auto is_edge = [&](int u, int v) {
            if (!is_empty(u, v))
                return std::abs(field.parallax.at(u, v) - own) >
                       (1 + task.sample) * std::max(std::abs(u - x), std::abs(v - y));
            const int column = static_cast<int>(std::floor(u * task.sample + own + 0.5));
            return is_gap(u, v) && task.leftCover.at(u * task.sample, v * task.sample) != 0 &&
                   task.rightCover.contains(column, v * task.sample) &&
                   task.rightCover.at(column, v * task.sample) != 0;
        };
        if (near(x, y, width, is_edge)) wrong.emplace_back(x, y);
    });
    clear(field, wrong);
}

/// Correlation of a full-size window around a slot under a facet.
inline std::optional<double> window_score(const EdgeTask& task, int window, int slotX, int slotY,
                                          const Vector3d& facet) {
    const int x = slotX * task.sample, y = slotY * task.sample, r = window / 2;
    std::vector<double> f, g;
    for (int dy = -r; dy <= r; ++dy)
        for (int dx = -r; dx <= r; ++dx) {
            const double position = x + dx + facet[0] + facet[1] * dx + facet[2] * dy;
            const int column = static_cast<int>(std::floor(position));
            if (!task.left.contains(x + dx, y + dy) || column < 0 || column + 1 >= task.left.width()) continue;
            if (task.leftCover.at(x + dx, y + dy) == 0 || task.rightCover.at(column, y + dy) == 0 ||
                task.rightCover.at(column + 1, y + dy) == 0)
                continue;
            const double t = position - column;
            f.push_back(task.left.at(x + dx, y + dy));
            g.push_back((1 - t) * task.right.at(column, y + dy) + t * task.right.at(column + 1, y + dy));
        }
    if (2 * static_cast<int>(f.size()) < window * window) return std::nullopt;
    const auto centre = [](std::vector<double>& v) {
        double mean = 0, squares = 0;
        for (const double value : v) mean += value / static_cast<double>(v.size());
        for (double& value : v) {
            value -= mean;
            squares += value * value;
        }
        return squares;
    };
    const double ff = centre(f), gg = centre(g);
    if (!(ff > static_cast<double>(f.size())) || !(gg > static_cast<double>(f.size()))) return std::nullopt;
    double fg = 0;
    for (std::size_t i = 0; i < f.size(); ++i) fg += f[i] * g[i];
    return fg / std::sqrt(ff * gg);
}

}  // namespace VexelAlgorithm::Plain
