// The matching stages written straight from their definitions, in double precision and without any sliding.
#pragma once

#include <algorithm>
#include <cmath>
#include <optional>
#include <vector>

#include "SpeckleRebCPU/parallaxFacets.h"
#include "SpeckleRebCPU/pixelMatch.h"
#include "SpeckleRebCPU/subPixelStep.h"
#include "SpeckleRebCPU/validMask.h"

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
        if (!(VR > 1e-9) || !(VL > 1e-9)) continue;
        double C = 0;
        for (int dy = -ry; dy <= ry; ++dy)
            for (int dx = -rx; dx <= rx; ++dx)
                C += double(task.left.at(x + dx, y + dy)) * task.right.at(c + dx, y + dy);
        list.push_back({(C - n * meanL * meanR) / std::sqrt(VR * VL), c});
    }
    return list;
}

inline double search_row(const std::vector<Candidate>& list) {
    double best = -1.0;
    std::size_t k = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (list[i].score > 0 && list[i].score <= 1.0 + 1e-12 && list[i].score > best) {
            best = list[i].score;
            k = i;
        }
    }
    if (best < 0 || k < 2 || k + 1 >= list.size()) return NO_MATCH;
    const double a = list[k - 1].score, b = list[k].score, c = list[k + 1].score;
    return list[k].position + (a - c) / (2 * a - 4 * b + 2 * c);
}

struct Step {
    double step, score;
};

/// The Gauss-Newton step of one slot.
inline std::optional<Step> sub_pixel_step(const SubPixelTask& task, const ParallaxField& field, int slotX, int slotY) {
    const int s = task.sample, width = task.left.width();
    std::vector<double> f, g, d;
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
            g.push_back(0.5 * (p(-1) * (-t + 2 * t * t - t * t * t) + p(0) * (2 - 5 * t * t + 3 * t * t * t) +
                               p(1) * (t + 4 * t * t - 3 * t * t * t) + p(2) * (-t * t + t * t * t)));
            d.push_back(0.5 * (p(-1) * (-1 + 4 * t - 3 * t * t) + p(0) * (-10 * t + 9 * t * t) +
                               p(1) * (1 + 8 * t - 9 * t * t) + p(2) * (-2 * t + 3 * t * t)));
            f.push_back(task.left.at(x, y));
        }
    }
    if (2 * static_cast<int>(f.size()) < task.windowWidth * task.windowHeight) return std::nullopt;
    const auto centre = [](std::vector<double>& v) {
        double mean = 0;
        for (const double value : v) mean += value / static_cast<double>(v.size());
        for (double& value : v) value -= mean;
    };
    centre(f), centre(g), centre(d);
    double ff = 0, gg = 0, fg = 0, dd = 0;
    for (std::size_t i = 0; i < f.size(); ++i)
        ff += f[i] * f[i], gg += g[i] * g[i], fg += f[i] * g[i], dd += d[i] * d[i];
    if (ff < 1e-9 || gg < 1e-9 || dd < 1e-9) return std::nullopt;
    double dr = 0;
    for (std::size_t i = 0; i < f.size(); ++i) dr += d[i] * (std::sqrt(gg / ff) * f[i] - g[i]);
    return Step{dr / dd, fg / std::sqrt(ff * gg)};
}

}  // namespace VexelAlgorithm::Plain
