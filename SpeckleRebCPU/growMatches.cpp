#include "SpeckleRebCPU/growMatches.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <vector>

#include "SpeckleRebCPU/ParallaxField.h"
#include "SpeckleRebCPU/windowPairs.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t PIXEL_GRAIN = 64;
constexpr std::size_t ROW_GRAIN = 16;
constexpr int PLANE_RADIUS = 4;        // pixels
constexpr int FEWEST_NEIGHBOURS = 6;   // of a plane
constexpr float LARGEST_SLOPE = 0.9F;  // pixel per pixel; a surface seen nearly edge-on
constexpr float LARGEST_STEP = 1.0F;   // pixels
constexpr float LARGEST_SHIFT = 1.5F;  // pixels between prediction and match
constexpr int STEPS = 3;
constexpr std::uint8_t MOST_TRIES = 3;  // later ones have more neighbours to go by

struct Plane {
    float parallax, slopeX, slopeY;
};

std::optional<Plane> plane_of_neighbours(const Raster<float>& parallax, int x, int y) {
    double n = 0, sx = 0, sy = 0, sp = 0, sxx = 0, sxy = 0, syy = 0, sxp = 0, syp = 0;
    for (int dy = -PLANE_RADIUS; dy <= PLANE_RADIUS; ++dy) {
        if (y + dy < 0 || y + dy >= parallax.height()) continue;
        const float* row = parallax.row(y + dy);
        for (int dx = std::max(-PLANE_RADIUS, -x); dx <= std::min(PLANE_RADIUS, parallax.width() - 1 - x); ++dx) {
            const float p = row[x + dx];
            if (!has_parallax(p)) continue;
            n += 1, sx += dx, sy += dy, sp += p;
            sxx += dx * dx, sxy += dx * dy, syy += dy * dy, sxp += dx * p, syp += dy * p;
        }
    }
    if (n < FEWEST_NEIGHBOURS) return std::nullopt;
    const double cxx = sxx - sx * sx / n, cxy = sxy - sx * sy / n, cyy = syy - sy * sy / n;
    const double cxp = sxp - sx * sp / n, cyp = syp - sy * sp / n;
    const double determinant = cxx * cyy - cxy * cxy;
    if (determinant < 0.1 * n * n) return std::nullopt;
    const double a = (cxp * cyy - cyp * cxy) / determinant, b = (cyp * cxx - cxp * cxy) / determinant;
    if (std::abs(a) > LARGEST_SLOPE || std::abs(b) > LARGEST_SLOPE) return std::nullopt;
    return Plane{static_cast<float>((sp - a * sx - b * sy) / n), static_cast<float>(a), static_cast<float>(b)};
}

struct Comparison {
    float score, step;
};

/// The window around (x, y) against the right image along the plane, interpolated linearly.
std::optional<Comparison> compare(const GrowTask& task, int x, int y, const Plane& plane) {
    const int rx = task.windowWidth / 2, ry = task.windowHeight / 2;
    const float reach =
        static_cast<float>(rx) * (1.0F + std::abs(plane.slopeX)) + static_cast<float>(ry) * std::abs(plane.slopeY);
    const float centre = static_cast<float>(x) + plane.parallax;
    if (x < rx || y < ry || x >= task.left.width() - rx || y >= task.left.height() - ry) return std::nullopt;
    if (!(centre - reach >= 0.0F) || !(centre + reach < static_cast<float>(task.left.width() - 1))) return std::nullopt;
    const WindowTask window{task.left, task.right, nullptr, nullptr, task.windowWidth, task.windowHeight};
    const PairCovariances c(sum_pairs(window, {x, y, plane.parallax, plane.slopeX, plane.slopeY}, true));
    if (!(c.ff > 1.0) || !(c.gg > 1.0) || !(c.dd > 1.0)) return std::nullopt;
    return Comparison{static_cast<float>(c.correlation()),
                      static_cast<float>((std::sqrt(c.gg / c.ff) * c.fd - c.gd) / c.dd)};
}

struct Match {
    float parallax = NO_PARALLAX;
    float score = 0.0F;
};

Match match_by_neighbours(const GrowTask& task, const Raster<float>& parallax, int x, int y) {
    const std::optional<Plane> predicted = plane_of_neighbours(parallax, x, y);
    if (!predicted) return {};
    Plane plane = *predicted;
    Match best;
    for (int step = 0; step <= STEPS; ++step) {
        const std::optional<Comparison> comparison = compare(task, x, y, plane);
        if (!comparison) break;
        if (comparison->score > best.score) best = {plane.parallax, comparison->score};
        plane.parallax += std::clamp(comparison->step, -LARGEST_STEP, LARGEST_STEP);
        if (std::abs(comparison->step) < 0.02F) break;
    }
    const bool isTaken = best.score >= task.smallestScore && best.parallax >= task.parallaxBegin &&
                         best.parallax < task.parallaxEnd &&
                         std::abs(best.parallax - predicted->parallax) <= LARGEST_SHIFT;
    return isTaken ? best : Match{};
}

/// The unmatched pixels beside the given ones, each once.
std::vector<std::size_t> ring_around(const std::vector<std::size_t>& matched, const GrowTask& task,
                                     const Raster<float>& parallax, Raster<std::uint8_t>& tries) {
    const int width = parallax.width();
    std::vector<std::size_t> ring;
    std::vector<std::uint8_t*> listed;
    constexpr std::uint8_t LISTED = 0x80;
    for (const std::size_t i : matched) {
        const int x = static_cast<int>(i % static_cast<std::size_t>(width));
        const int y = static_cast<int>(i / static_cast<std::size_t>(width));
        for (int ny = std::max(0, y - 1); ny <= std::min(parallax.height() - 1, y + 1); ++ny) {
            for (int nx = std::max(0, x - 1); nx <= std::min(width - 1, x + 1); ++nx) {
                std::uint8_t& tried = tries.at(nx, ny);
                if (has_parallax(parallax.at(nx, ny)) || task.leftMask.at(nx, ny) == 0 || tried >= MOST_TRIES) continue;
                tried = static_cast<std::uint8_t>((tried + 1) | LISTED);
                listed.push_back(&tried);
                ring.push_back(static_cast<std::size_t>(ny) * static_cast<std::size_t>(width) +
                               static_cast<std::size_t>(nx));
            }
        }
    }
    for (std::uint8_t* tried : listed) *tried &= static_cast<std::uint8_t>(~LISTED);
    return ring;
}

/// The same of all matched pixels.
std::vector<std::size_t> first_ring(const GrowTask& task, const Raster<float>& parallax, int threads,
                                    Raster<std::uint8_t>& tries) {
    const auto width = static_cast<std::size_t>(parallax.width());
    const auto is_beside_match = [&](int x, int y) {
        for (int v = std::max(0, y - 1); v <= std::min(parallax.height() - 1, y + 1); ++v)
            for (int u = std::max(0, x - 1); u <= std::min(parallax.width() - 1, x + 1); ++u)
                if (has_parallax(parallax.at(u, v))) return true;
        return false;
    };
    std::vector<std::vector<std::size_t>> rows(static_cast<std::size_t>(parallax.height()));
    parallel_ranges(threads, rows.size(), ROW_GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y)
            for (std::size_t x = 0; x < width; ++x) {
                const std::size_t i = y * width + x;
                if (has_parallax(parallax[i]) || task.leftMask[i] == 0 ||
                    !is_beside_match(static_cast<int>(x), static_cast<int>(y)))
                    continue;
                tries[i] = 1;
                rows[y].push_back(i);
            }
    });
    std::vector<std::size_t> ring;
    for (const auto& row : rows) ring.insert(ring.end(), row.begin(), row.end());
    return ring;
}

}  // namespace

void grow_matches(const GrowTask& task, int threads, Raster<float>& parallax, Raster<float>& score) {
    const auto width = static_cast<std::size_t>(parallax.width());
    Raster<std::uint8_t> tries(parallax.width(), parallax.height());
    std::vector<std::size_t> ring = first_ring(task, parallax, threads, tries), matched;
    while (!ring.empty()) {
        std::vector<Match> found(ring.size());
        parallel_ranges(threads, ring.size(), PIXEL_GRAIN, [&](std::size_t begin, std::size_t end) {
            for (std::size_t k = begin; k < end; ++k)
                found[k] = match_by_neighbours(task, parallax, static_cast<int>(ring[k] % width),
                                               static_cast<int>(ring[k] / width));
        });
        matched.clear();
        for (std::size_t k = 0; k < ring.size(); ++k) {
            if (!has_parallax(found[k].parallax)) continue;
            parallax[ring[k]] = found[k].parallax;
            score[ring[k]] = found[k].score;
            matched.push_back(ring[k]);
        }
        ring = ring_around(matched, task, parallax, tries);
    }
}

}  // namespace VexelAlgorithm
