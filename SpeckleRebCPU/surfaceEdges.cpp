#include "SpeckleRebCPU/surfaceEdges.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <optional>
#include <vector>

#include "SpeckleRebCPU/parallelRows.h"
#include "SpeckleRebCPU/windowPairs.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t SLOT_GRAIN = 256;
constexpr std::size_t ROW_GRAIN = 16;
constexpr float JUMP = 1.0F;         // pixels between the facets of neighbours on different surfaces
constexpr float SAME = 0.4F;         // pixels between proposals that are one
constexpr float HYSTERESIS = 0.02F;  // of the score
constexpr int EVEN_RADIUS = 1;       // pixels
constexpr int EVEN_ROUNDS = 3;
constexpr int GAP = 3;             // slots
constexpr float EDGE_STEP = 1.0F;  // pixels, beside a pixel a pixel

struct Facet {
    float parallax, slopeX, slopeY;
};

struct Offset {
    int dx, dy;
};
constexpr std::array<Offset, 8> NEIGHBOURS{{{-1, 0}, {1, 0}, {0, -1}, {0, 1}, {-2, 0}, {2, 0}, {0, -2}, {0, 2}}};
constexpr std::array<Offset, 16> PROPOSERS{{{-1, 0},
                                            {1, 0},
                                            {0, -1},
                                            {0, 1},
                                            {-2, -2},
                                            {2, -2},
                                            {-2, 2},
                                            {2, 2},
                                            {-3, 0},
                                            {3, 0},
                                            {0, -3},
                                            {0, 3},
                                            {-5, 0},
                                            {5, 0},
                                            {0, -5},
                                            {0, 5}}};

class EdgeRound {
public:
    EdgeRound(const EdgeTask& task, const EdgeSearch& search, const ParallaxField& field)
        : _task(task),
          _search(search),
          _field(field),
          _window{task.left, task.right, &task.leftCover, &task.rightCover, search.window, search.window},
          _sample(static_cast<float>(task.sample)) {}

    /// The slots for which facets shall compete, in order.
    std::vector<std::size_t> open_slots(int threads) const {
        const auto width = static_cast<std::size_t>(_field.parallax.width());
        std::vector<std::vector<std::size_t>> open(static_cast<std::size_t>(_field.parallax.height()));
        parallel_ranges(threads, open.size(), ROW_GRAIN, [&](std::size_t begin, std::size_t end) {
            std::vector<std::uint8_t> differs(width);
            for (std::size_t y = begin; y < end; ++y) {
                compare_with_neighbours(static_cast<int>(y), differs);
                for (std::size_t x = 0; x < width; ++x)
                    if (differs[x] != 0 && is_beside_full(static_cast<int>(x), static_cast<int>(y)))
                        open[y].push_back(y * width + x);
            }
        });
        std::vector<std::size_t> all;
        for (const auto& row : open) all.insert(all.end(), row.begin(), row.end());
        return all;
    }

    /// The best facet for a slot; none when it is empty and nothing correlates well.
    std::optional<Facet> settled(int x, int y) const {
        std::array<Facet, PROPOSERS.size() + 1> proposals{};
        std::size_t count = 0;
        std::optional<Facet> best;
        float bestScore = _search.smallestScore;
        if (has_parallax(_field.parallax.at(x, y))) {
            best = proposals[count++] = seen_from(x, y, 0, 0);
            const std::optional<float> score = score_of(x, y, *best);
            if (!score) return best;
            bestScore = *score + HYSTERESIS;
        }
        for (const Offset& o : PROPOSERS) {
            if (!has_slot(x + o.dx, y + o.dy)) continue;
            const Facet proposal = seen_from(x + o.dx, y + o.dy, -o.dx, -o.dy);
            const auto is_same = [&](const Facet& known) {
                return std::abs(known.parallax - proposal.parallax) < SAME;
            };
            if (std::any_of(proposals.begin(), proposals.begin() + static_cast<std::ptrdiff_t>(count), is_same) ||
                !(proposal.parallax >= _search.parallaxBegin && proposal.parallax < _search.parallaxEnd))
                continue;
            proposals[count++] = proposal;
            const std::optional<float> score = score_of(x, y, proposal);
            if (!score || *score <= bestScore) continue;
            best = proposal;
            bestScore = *score;
        }
        return best;
    }

private:
    bool has_slot(int x, int y) const {
        return _field.parallax.contains(x, y) && has_parallax(_field.parallax.at(x, y));
    }

    /// For the slots of a row: whether the facet of any neighbour, extended to the slot, is off by more than a jump, or
    /// either of the two is empty.
    void compare_with_neighbours(int y, std::vector<std::uint8_t>& differs) const {
        const int width = _field.parallax.width();
        const float* own = _field.parallax.row(y);
        std::fill(differs.begin(), differs.end(), std::uint8_t{0});
        for (const Offset& o : NEIGHBOURS) {
            if (y + o.dy < 0 || y + o.dy >= _field.parallax.height()) continue;
            const float* other = _field.parallax.row(y + o.dy) + o.dx;
            const float* slope = (o.dx != 0 ? _field.slopeX : _field.slopeY).row(y + o.dy) + o.dx;
            const float distance = _sample * static_cast<float>(o.dx + o.dy);
            std::uint8_t* off = differs.data();
            for (int x = std::max(0, -o.dx); x < width - std::max(0, o.dx); ++x)
                off[x] |= std::abs(other[x] - distance * slope[x] - own[x]) <= JUMP ? 0 : 1;  // 1 where either is NaN
        }
    }

    /// Full slots are beside themselves.
    bool is_beside_full(int x, int y) const {
        return has_slot(x, y) || std::any_of(NEIGHBOURS.begin(), NEIGHBOURS.end(),
                                             [&](const Offset& o) { return has_slot(x + o.dx, y + o.dy); });
    }

    /// The facet of slot (x, y), extended to the slot (dx, dy) further on.
    Facet seen_from(int x, int y, int dx, int dy) const {
        const float a = _field.slopeX.at(x, y), b = _field.slopeY.at(x, y);
        return {_field.parallax.at(x, y) + _sample * (a * static_cast<float>(dx) + b * static_cast<float>(dy)), a, b};
    }

    /// Correlation of the window around the slot under the facet; none when less than half of it can be compared or
    /// either side is even.
    std::optional<float> score_of(int slotX, int slotY, const Facet& facet) const {
        const PairSums sums = sum_pairs(
            _window, {slotX * _task.sample, slotY * _task.sample, facet.parallax, facet.slopeX, facet.slopeY}, false);
        if (2 * sums.count < _window.width * _window.height) return std::nullopt;
        const PairCovariances covariances(sums);
        if (!(covariances.ff > sums.count) || !(covariances.gg > sums.count)) return std::nullopt;
        return static_cast<float>(covariances.correlation());
    }

    const EdgeTask& _task;
    const EdgeSearch& _search;
    const ParallaxField& _field;
    const WindowTask _window;
    const float _sample;
};

/// Whether `holds(u, v)` for any slot within `reach` of (x, y).
template <class Holds>
bool any_around(const Raster<float>& parallax, int x, int y, int reach, const Holds& holds) {
    for (int v = std::max(0, y - reach); v <= std::min(parallax.height() - 1, y + reach); ++v)
        for (int u = std::max(0, x - reach); u <= std::min(parallax.width() - 1, x + reach); ++u)
            if (holds(u, v)) return true;
    return false;
}

bool is_even(const GreyImage& image, int x, int y, float leastStep) {
    std::int32_t squares = 0, count = 0;
    for (int v = std::max(0, y - EVEN_RADIUS); v <= std::min(image.height() - 1, y + EVEN_RADIUS); ++v) {
        const std::uint8_t* row = image.row(v);
        for (int u = std::max(1, x - EVEN_RADIUS); u <= std::min(image.width() - 2, x + EVEN_RADIUS); ++u) {
            const int step = row[u + 1] - row[u - 1];
            squares += step * step;
            ++count;
        }
    }
    return static_cast<float>(squares) < leastStep * leastStep * static_cast<float>(count);
}

/// For the slots of a row: whether they, or any of the eight around, are empty.
void find_beside_empty(const Raster<float>& parallax, int y, std::vector<std::uint8_t>& besideEmpty) {
    const int width = parallax.width();
    besideEmpty.assign(static_cast<std::size_t>(width), 0);
    std::uint8_t* beside = besideEmpty.data();
    for (int v = std::max(0, y - 1); v <= std::min(parallax.height() - 1, y + 1); ++v) {
        const float* other = parallax.row(v);
        for (int dx = -1; dx <= 1; ++dx)
            for (int x = std::max(0, -dx); x < width - std::max(0, dx); ++x)
                beside[x] |= other[x + dx] == other[x + dx] ? 0 : 1;  // not where it is NaN
    }
}

/// From the gaps inwards.
void peel_even_slots(const EdgeTask& task, float leastStep, int threads, Raster<float>& parallax) {
    std::atomic<bool> isDone = false;
    for (int round = 0; round < EVEN_ROUNDS && !isDone; ++round) {
        const Raster<float> before = parallax;
        isDone = true;
        for_each_row(before.height(), threads, [&](int y) {
            std::vector<std::uint8_t> besideEmpty;
            find_beside_empty(before, y, besideEmpty);
            for (int x = 0; x < before.width(); ++x) {
                if (besideEmpty[static_cast<std::size_t>(x)] == 0 || !has_parallax(before.at(x, y)) ||
                    !is_even(task.left, x * task.sample, y * task.sample, leastStep))
                    continue;
                parallax.at(x, y) = NO_PARALLAX;
                isDone = false;
            }
        });
    }
}

/// Slots of empty squares.
Mask find_gaps(const Raster<float>& parallax) {
    Mask gaps(parallax.width(), parallax.height());
    Raster<std::uint8_t> run(parallax.width(), parallax.height());  // empty slots from here to the left, three at most
    for (int y = 0; y < parallax.height(); ++y) {
        for (int x = 0; x < parallax.width(); ++x) {
            const int before = x > 0 ? run.at(x - 1, y) : 0;
            run.at(x, y) = static_cast<std::uint8_t>(has_parallax(parallax.at(x, y)) ? 0 : std::min(before + 1, GAP));
            bool isGap = y + 1 >= GAP;
            for (int v = y; isGap && v > y - GAP; --v) isGap = run.at(x, v) == GAP;
            for (int v = y; isGap && v > y - GAP; --v) std::fill_n(gaps.row(v) + x - GAP + 1, GAP, std::uint8_t{1});
        }
    }
    return gaps;
}

/// For the slots of a row: whether a slot within `reach` is off by more than `slotStep` for every slot of distance, and
/// whether one belongs to a gap.
void find_steps_and_gaps(const Raster<float>& parallax, const Mask& gaps, int y, int reach, float slotStep,
                         std::uint8_t* atStep, std::uint8_t* atGap) {
    const int width = parallax.width();
    const float* own = parallax.row(y);
    std::fill_n(atStep, width, std::uint8_t{0});
    std::fill_n(atGap, width, std::uint8_t{0});
    for (int v = std::max(0, y - reach); v <= std::min(parallax.height() - 1, y + reach); ++v) {
        const std::uint8_t* gap = gaps.row(v);
        const float* other = parallax.row(v);
        for (int dx = -reach; dx <= reach; ++dx) {
            const float limit = slotStep * static_cast<float>(std::max(std::abs(dx), std::abs(v - y)));
            for (int x = std::max(0, -dx); x < width - std::max(0, dx); ++x) {
                atStep[x] |= std::abs(other[x + dx] - own[x]) > limit ? 1 : 0;  // never where either is NaN
                atGap[x] |= gap[x + dx];
            }
        }
    }
}

}  // namespace

void settle_edges(const EdgeTask& task, const EdgeSearch& search, int threads, ParallaxField& field) {
    const auto width = static_cast<std::size_t>(field.parallax.width());
    for (int round = 0; round < search.rounds; ++round) {
        const EdgeRound edges(task, search, field);
        const std::vector<std::size_t> open = edges.open_slots(threads);
        std::vector<std::optional<Facet>> found(open.size());
        parallel_ranges(threads, open.size(), SLOT_GRAIN, [&](std::size_t begin, std::size_t end) {
            for (std::size_t k = begin; k < end; ++k)
                found[k] = edges.settled(static_cast<int>(open[k] % width), static_cast<int>(open[k] / width));
        });
        for (std::size_t k = 0; k < open.size(); ++k) {
            if (!found[k]) continue;
            field.parallax[open[k]] = found[k]->parallax;
            field.slopeX[open[k]] = found[k]->slopeX;
            field.slopeY[open[k]] = found[k]->slopeY;
        }
    }
}

void trim_edges(const EdgeTask& task, int width, float leastStep, int threads, ParallaxField& field) {
    peel_even_slots(task, leastStep, threads, field.parallax);
    const Raster<float> before = field.parallax;
    const Mask gaps = find_gaps(before);
    const auto is_visible = [&](int slotX, int slotY, float parallax) {
        const int x = slotX * task.sample, y = slotY * task.sample;
        const int column = static_cast<int>(std::floor(static_cast<float>(x) + parallax + 0.5F));
        return task.leftCover.at(x, y) != 0 && task.rightCover.contains(column, y) &&
               task.rightCover.at(column, y) != 0;
    };
    const float slotStep = EDGE_STEP + static_cast<float>(task.sample);
    parallel_ranges(
        threads, static_cast<std::size_t>(before.height()), ROW_GRAIN, [&](std::size_t begin, std::size_t end) {
            std::vector<std::uint8_t> atStep(static_cast<std::size_t>(before.width())), atGap(atStep.size());
            for (int y = static_cast<int>(begin); y < static_cast<int>(end); ++y) {
                find_steps_and_gaps(before, gaps, y, width, slotStep, atStep.data(), atGap.data());
                float* parallax = field.parallax.row(y);
                for (int x = 0; x < before.width(); ++x) {
                    const float own = parallax[x];
                    const auto is_visible_gap = [&](int u, int v) {
                        return gaps.at(u, v) != 0 && is_visible(u, v, own);
                    };
                    const auto slot = static_cast<std::size_t>(x);
                    if (atStep[slot] != 0 ||
                        (atGap[slot] != 0 && has_parallax(own) && any_around(before, x, y, width, is_visible_gap)))
                        parallax[x] = NO_PARALLAX;
                }
            }
        });
}

}  // namespace VexelAlgorithm
