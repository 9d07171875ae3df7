#include "SpeckleRebCPU/parallaxFilters.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "SpeckleRebCPU/median.h"
#include "SpeckleRebCPU/parallelRows.h"
#include "foundation/parallel.h"
#include "foundation/types.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t ROW_GRAIN = 16;
constexpr std::size_t SLOT_GRAIN = 8192;
constexpr std::size_t FEWEST_OF_SURROUND = 64;

/// Labels of regions that turned out to be one point to each other; the smallest is the root.
class RegionLabels {
public:
    std::int32_t make() {
        _parents.push_back(static_cast<std::int32_t>(_parents.size()));
        _slots.push_back(0);
        return _parents.back();
    }
    void add_slot(std::int32_t label) { ++_slots[static_cast<std::size_t>(label)]; }
    std::int32_t root(std::int32_t label) {
        while (parent(label) != label) {
            parent(label) = parent(parent(label));
            label = parent(label);
        }
        return label;
    }
    void unite(std::int32_t one, std::int32_t other) {
        one = root(one);
        other = root(other);
        parent(std::max(one, other)) = std::min(one, other);
    }
    std::int32_t count() const { return static_cast<std::int32_t>(_parents.size()); }
    std::size_t slots(std::int32_t label) const { return _slots[static_cast<std::size_t>(label)]; }

    /// The other labels follow those that are here.
    void append(const RegionLabels& other) {
        const std::int32_t first = count();
        for (const std::int32_t parent : other._parents) _parents.push_back(first + parent);
        _slots.insert(_slots.end(), other._slots.begin(), other._slots.end());
    }

private:
    std::int32_t& parent(std::int32_t label) { return _parents[static_cast<std::size_t>(label)]; }

    std::vector<std::int32_t> _parents;
    std::vector<std::size_t> _slots;  ///< that carry the label
};

/// Rows that are labelled together.
struct RegionBand {
    int begin, end;
    RegionLabels labels;
    std::int32_t first = 0;  ///< of its labels, among those of all bands
};
constexpr int BAND_ROWS = 64;

void label_band(const Raster<float>& parallax, float largestStep, RegionBand& band, Raster<std::int32_t>& label) {
    for (int y = band.begin; y < band.end; ++y) {
        const float* row = parallax.row(y);
        const float* above = y > band.begin ? parallax.row(y - 1) : nullptr;
        for (int x = 0; x < parallax.width(); ++x) {
            if (!has_parallax(row[x])) continue;
            std::int32_t& own = label.at(x, y);
            if (x > 0 && std::abs(row[x] - row[x - 1]) <= largestStep) own = label.at(x - 1, y);
            if (above != nullptr && std::abs(row[x] - above[x]) <= largestStep) {
                const std::int32_t upper = label.at(x, y - 1);
                if (own >= 0 && own != upper) band.labels.unite(own, upper);
                if (own < 0) own = upper;
            }
            if (own < 0) own = band.labels.make();
            band.labels.add_slot(own);
        }
    }
}

/// The labels of all bands, where regions go on in the next band as well.
RegionLabels join_bands(const Raster<float>& parallax, float largestStep, const Raster<std::int32_t>& label,
                        std::vector<RegionBand>& bands) {
    RegionLabels labels;
    std::int32_t firstAbove = 0;
    for (RegionBand& band : bands) {
        band.first = labels.count();
        labels.append(band.labels);
        if (band.begin == 0) continue;
        const float *row = parallax.row(band.begin), *above = parallax.row(band.begin - 1);
        for (int x = 0; x < parallax.width(); ++x)
            if (std::abs(row[x] - above[x]) <= largestStep)  // not where either is NaN
                labels.unite(firstAbove + label.at(x, band.begin - 1), band.first + label.at(x, band.begin));
        firstAbove = band.first;
    }
    return labels;
}

/// Of the regions that the roots stand for.
std::vector<std::size_t> count_slots(const RegionLabels& labels, const std::vector<std::int32_t>& roots) {
    std::vector<std::size_t> sizes(roots.size(), 0);
    for (std::size_t label = 0; label < roots.size(); ++label)
        sizes[static_cast<std::size_t>(roots[label])] += labels.slots(static_cast<std::int32_t>(label));
    return sizes;
}

void write_roots(const RegionBand& band, const std::vector<std::int32_t>& roots, Raster<std::int32_t>& label) {
    for (int y = band.begin; y < band.end; ++y)
        for (int x = 0; x < label.width(); ++x) {
            std::int32_t& own = label.at(x, y);
            if (own >= 0) own = roots[static_cast<std::size_t>(band.first + own)];
        }
}

/// Counts over the slots of a row, one distance after the other; `present` and `agreeing` are room for them.
void mark_unsupported(const ParallaxField& field, int y, int radius, float tolerance, float slopeTolerance, int sample,
                      std::vector<std::int32_t>& present, std::vector<std::int32_t>& supporting, std::uint8_t* wrong) {
    const int width = field.parallax.width(), window = (2 * radius + 1) * (2 * radius + 1);
    const auto spacing = static_cast<float>(sample);
    const float *own = field.parallax.row(y), *slopeX = field.slopeX.row(y), *slopeY = field.slopeY.row(y);
    present.assign(static_cast<std::size_t>(width), 0);
    supporting.assign(present.size(), 0);
    std::int32_t *count = present.data(), *agreeing = supporting.data();
    for (int dy = -radius; dy <= radius; ++dy) {
        if (y + dy < 0 || y + dy >= field.parallax.height()) continue;
        for (int dx = -radius; dx <= radius; ++dx) {
            const float* other = field.parallax.row(y + dy);
            const float limit = tolerance + slopeTolerance * std::sqrt(static_cast<float>(dx * dx + dy * dy)) * spacing;
            const float stepX = spacing * static_cast<float>(dx), stepY = spacing * static_cast<float>(dy);
            for (int x = std::max(0, -dx); x < width - std::max(0, dx); ++x) {
                const float neighbour = other[x + dx];  // comparisons with NaN, which stands for none, are false
                count[x] += neighbour == neighbour ? 1 : 0;
                agreeing[x] += std::abs(neighbour - own[x] - slopeX[x] * stepX - slopeY[x] * stepY) <= limit ? 1 : 0;
            }
        }
    }
    for (int x = 0; x < width; ++x)
        wrong[x] = has_parallax(own[x]) && (2 * agreeing[x] < count[x] || 5 * agreeing[x] < window) ? 1 : 0;
}

bool is_disputed(const ParallaxField& field, int x, int y, float limit, int sample) {
    const auto misses = [&](int dx, int dy) {
        if (!field.parallax.contains(x + dx, y + dy)) return false;
        const float slopes = field.slopeX.at(x + dx, y + dy) * static_cast<float>(dx) +
                             field.slopeY.at(x + dx, y + dy) * static_cast<float>(dy);
        const float seen = field.parallax.at(x + dx, y + dy) - static_cast<float>(sample) * slopes;
        return std::abs(seen - field.parallax.at(x, y)) > limit * static_cast<float>(std::abs(dx + dy));
    };
    for (const int distance : {-2, -1, 1, 2})
        if (misses(distance, 0) || misses(0, distance)) return true;
    return false;
}

bool is_at_gap(const ParallaxField& field, int x, int y) {
    const Raster<float>& parallax = field.parallax;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx)
            if (parallax.contains(x + dx, y + dy) && !has_parallax(parallax.at(x + dx, y + dy))) return true;
    return false;
}

/// `mark_row(y, wrong)` writes which slots of the row to clear; it sees the field as it was. Every range of rows has a
/// `mark_row` of its own.
template <class MarkRow>
void clear_marked(int threads, ParallaxField& field, const MarkRow& mark_row) {
    Mask wrong(field.parallax.width(), field.parallax.height());
    parallel_ranges(threads, static_cast<std::size_t>(wrong.height()), ROW_GRAIN,
                    [&](std::size_t begin, std::size_t end) {
                        MarkRow markRow = mark_row;
                        for (int y = static_cast<int>(begin); y < static_cast<int>(end); ++y) markRow(y, wrong.row(y));
                    });
    parallel_ranges(threads, wrong.size(), SLOT_GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i)
            if (wrong[i] != 0) field.clear_slot(i);
    });
}

/// Slots within `reach` of an empty one, in both directions.
Mask rim_of(const Raster<float>& parallax, int reach, int threads) {
    const int width = parallax.width(), height = parallax.height();
    Mask inRow(width, height), rim(width, height);
    for_each_row(height, threads, [&](int y) {
        for (int x = 0; x < width; ++x)
            if (!has_parallax(parallax.at(x, y)))
                std::fill(inRow.row(y) + std::max(0, x - reach), inRow.row(y) + std::min(width, x + reach + 1), 1);
    });
    for_each_row(height, threads, [&](int y) {
        for (int v = std::max(0, y - reach); v <= std::min(height - 1, y + reach); ++v)
            for (int x = 0; x < width; ++x) rim.at(x, y) |= inRow.at(x, v);
    });
    return rim;
}

struct CellSlot {
    std::size_t index;
    Vector3d row;  ///< 1, x, y
    double parallax;
};

/// Those of a square that `counts`; coordinates from its corner.
template <class Counts>
std::vector<CellSlot> slots_of_cell(const Raster<float>& parallax, int x0, int y0, int cellSize, const Counts& counts) {
    std::vector<CellSlot> slots;
    slots.reserve(static_cast<std::size_t>(cellSize * cellSize));
    for (int y = std::max(0, y0); y < std::min(y0 + cellSize, parallax.height()); ++y) {
        for (int x = std::max(0, x0); x < std::min(x0 + cellSize, parallax.width()); ++x) {
            const float* slot = &parallax.at(x, y);
            if (has_parallax(*slot) && counts(x, y))
                slots.push_back(
                    {static_cast<std::size_t>(slot - parallax.data()), Vector3d(1.0, x - x0, y - y0), *slot});
        }
    }
    return slots;
}

/// Least squares over the slots within `limit` of the plane.
Vector3d refit(const std::vector<CellSlot>& slots, const Vector3d& plane, double limit) {
    Matrix3d normal = 1e-6 * Matrix3d::Identity();
    Vector3d right = Vector3d::Zero();
    for (const CellSlot& slot : slots) {
        if (std::abs(slot.row.dot(plane) - slot.parallax) > limit) continue;
        normal += slot.row * slot.row.transpose();
        right += slot.row * slot.parallax;
    }
    return normal.inverse() * right;
}

double farthest(const std::vector<CellSlot>& slots, const Vector3d& plane) {
    double largest = 0.0;
    for (const CellSlot& slot : slots) largest = std::max(largest, std::abs(slot.row.dot(plane) - slot.parallax));
    return largest;
}

double robust_deviation(const std::vector<CellSlot>& slots, const Vector3d& plane) {
    std::vector<double> residuals;
    residuals.reserve(slots.size());
    for (const CellSlot& slot : slots) residuals.push_back(std::abs(slot.row.dot(plane) - slot.parallax));
    return 1.4826 * take_median(residuals);
}

struct CellPlane {
    Vector3d plane;
    double deviation;

    double distance(const CellSlot& slot) const { return std::abs(slot.row.dot(plane) - slot.parallax); }
};

Vector3d plane_of_all(const std::vector<CellSlot>& slots) {
    return refit(slots, Vector3d::Zero(), std::numeric_limits<double>::infinity());
}

/// From the plane of all slots.
CellPlane robust_plane(const std::vector<CellSlot>& slots, const Vector3d& first) {
    const Vector3d plane = refit(slots, first, std::max(3.0 * robust_deviation(slots, first), 0.05));
    return {plane, robust_deviation(slots, plane)};
}

void clean_cell(ParallaxField& field, int x0, int y0, int cellSize, float factor, float tolerance, int fewest) {
    const std::vector<CellSlot> slots = slots_of_cell(field.parallax, x0, y0, cellSize, [](int, int) { return true; });
    if (slots.empty()) return;
    if (slots.size() < static_cast<std::size_t>(fewest)) {
        for (const CellSlot& slot : slots) field.clear_slot(slot.index);
        return;
    }
    const Vector3d first = plane_of_all(slots);
    if (farthest(slots, first) <= 0.125 * static_cast<double>(tolerance)) return;  // nothing is near an outlier
    const CellPlane plane = robust_plane(slots, first);
    const double limit = std::max(static_cast<double>(factor) * plane.deviation, static_cast<double>(tolerance));
    for (const CellSlot& slot : slots)
        if (plane.distance(slot) > limit) field.clear_slot(slot.index);
}

void clean_rim(const Raster<float>& before, const Mask& rim, const RimLimits& limits, int x0, int y0, int cellSize,
               ParallaxField& field) {
    const auto is_rim = [&](int x, int y) { return rim.at(x, y) != 0; };
    const auto is_inside = [&](int x, int y) { return rim.at(x, y) == 0; };
    std::vector<CellSlot> judged = slots_of_cell(before, x0, y0, cellSize, is_rim);
    if (judged.empty()) return;
    const int margin = limits.margin;
    const std::vector<CellSlot> surround =
        slots_of_cell(before, x0 - margin, y0 - margin, cellSize + 2 * margin, is_inside);
    if (surround.size() < FEWEST_OF_SURROUND) return;
    const CellPlane plane = robust_plane(surround, plane_of_all(surround));
    if (plane.deviation > static_cast<double>(limits.flatness)) return;
    const double limit =
        std::max(static_cast<double>(limits.factor) * plane.deviation, static_cast<double>(limits.tolerance));
    for (CellSlot& slot : judged) {
        slot.row += Vector3d(0.0, margin, margin);
        if (plane.distance(slot) > limit) field.clear_slot(slot.index);
    }
}

template <class Clean>
void for_each_cell(const Raster<float>& parallax, int cellSize, int threads, const Clean& clean) {
    const auto rows = static_cast<std::size_t>((parallax.height() + cellSize - 1) / cellSize);
    parallel_ranges(threads, rows, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t row = begin; row < end; ++row)
            for (int x0 = 0; x0 < parallax.width(); x0 += cellSize) clean(x0, static_cast<int>(row) * cellSize);
    });
}

}  // namespace

ParallaxRegions find_regions(float largestStep, int threads, const Raster<float>& parallax) {
    const int height = parallax.height();
    std::vector<RegionBand> bands;
    for (int y = 0; y < height; y += BAND_ROWS) bands.push_back({y, std::min(height, y + BAND_ROWS), {}});
    ParallaxRegions regions{Raster<std::int32_t>(parallax.width(), height, -1), {}};
    const auto for_bands = [&](const auto& body) {
        parallel_ranges(threads, bands.size(), 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t k = begin; k < end; ++k) body(bands[k]);
        });
    };
    for_bands([&](RegionBand& band) { label_band(parallax, largestStep, band, regions.label); });
    RegionLabels labels = join_bands(parallax, largestStep, regions.label, bands);
    std::vector<std::int32_t> roots;
    for (std::int32_t label = 0; label < labels.count(); ++label) roots.push_back(labels.root(label));
    regions.sizes = count_slots(labels, roots);
    for_bands([&](const RegionBand& band) { write_roots(band, roots, regions.label); });
    return regions;
}

void remove_small_regions(std::size_t smallest, float largestStep, int threads, Raster<float>& parallax) {
    const ParallaxRegions regions = find_regions(largestStep, threads, parallax);
    parallel_ranges(threads, parallax.size(), SLOT_GRAIN, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::int32_t label = regions.label[i];
            if (label >= 0 && regions.sizes[static_cast<std::size_t>(label)] < smallest) parallax[i] = NO_PARALLAX;
        }
    });
}

void remove_inconsistent(int radius, float tolerance, float slopeTolerance, int sample, int threads,
                         ParallaxField& field) {
    clear_marked(threads, field,
                 [&, present = std::vector<std::int32_t>(), supporting = std::vector<std::int32_t>()](
                     int y, std::uint8_t* wrong) mutable {
                     mark_unsupported(field, y, radius, tolerance, slopeTolerance, sample, present, supporting, wrong);
                 });
}

void remove_steep_rims(float slope, int rimWidth, int sample, int threads, ParallaxField& field) {
    const Raster<float>& parallax = field.parallax;
    const int width = parallax.width(), height = parallax.height();
    const float limit = slope * static_cast<float>(sample);
    const Mask rim = rim_of(parallax, rimWidth, threads);
    clear_marked(threads, field, [&](int y, std::uint8_t* wrong) {
        const float* own = parallax.row(y);
        const std::uint8_t* atRim = rim.row(y);
        const auto mark = [&](const float* other, int dx) {
            for (int x = std::max(0, -dx); x < width - std::max(0, dx); ++x)
                wrong[x] |= std::abs(other[x + dx] - own[x]) > limit ? atRim[x] : 0;  // not for NaN
        };
        std::fill_n(wrong, width, std::uint8_t{0});
        mark(own, -1);
        mark(own, 1);
        if (y > 0) mark(parallax.row(y - 1), 0);
        if (y + 1 < height) mark(parallax.row(y + 1), 0);
    });
}

void remove_doubtful(const DoubtLimits& limits, int sample, int threads, ParallaxField& field) {
    clear_marked(threads, field, [&](int y, std::uint8_t* wrong) {
        for (int x = 0; x < field.parallax.width(); ++x) {
            const float score = field.score.at(x, y);
            const bool isWrong =
                score < limits.smallestScore ||
                (score < limits.doubtfulScore && is_disputed(field, x, y, limits.largestDisagreement, sample));
            wrong[x] = isWrong && has_parallax(field.parallax.at(x, y)) ? 1 : 0;
        }
    });
    clear_marked(threads, field, [&](int y, std::uint8_t* wrong) {
        for (int x = 0; x < field.parallax.width(); ++x)
            wrong[x] = has_parallax(field.parallax.at(x, y)) && field.score.at(x, y) < limits.smallestEdgeScore &&
                               is_at_gap(field, x, y) && is_disputed(field, x, y, limits.edgeDisagreement, sample)
                           ? 1
                           : 0;
    });
}

void remove_cell_outliers(int cellSize, float factor, float tolerance, int fewest, int threads, ParallaxField& field) {
    for_each_cell(field.parallax, cellSize, threads,
                  [&](int x0, int y0) { clean_cell(field, x0, y0, cellSize, factor, tolerance, fewest); });
}

void remove_rim_outliers(const RimLimits& limits, int cellSize, int threads, ParallaxField& field) {
    const Raster<float> before = field.parallax;
    const Mask rim = rim_of(before, limits.width, threads);
    for_each_cell(before, cellSize, threads,
                  [&](int x0, int y0) { clean_rim(before, rim, limits, x0, y0, cellSize, field); });
}

}  // namespace VexelAlgorithm
