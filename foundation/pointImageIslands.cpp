#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/SlotRegions.h"
#include "foundation/parallel.h"
#include "foundation/slotDepths.h"

namespace VexelAlgorithm {
namespace {

constexpr int MaxRadius = 16;
constexpr int BlockSide = 8;

struct NearInSpace {
    const PointImage& image;
    float squaredLimit;

    bool exists(std::size_t slot) const { return image.has_point(slot); }
    bool operator()(std::size_t a, std::size_t b) const {
        return (image.get_vCoord(a) - image.get_vCoord(b)).squaredNorm() <= squaredLimit;
    }
};

struct NearInDepth {
    const float* depths;
    float limit;

    bool exists(std::size_t slot) const { return !std::isnan(depths[slot]); }
    bool operator()(std::size_t a, std::size_t b) const { return std::fabs(depths[a] - depths[b]) <= limit; }
};

/// Links of direct neighbours.
template <class Near>
struct AdjacentLinks {
    const Near& near;
    std::size_t width;

    bool exists(std::size_t slot) const { return near.exists(slot); }
    std::int32_t left(std::size_t slot, int x) const { return x > 0 ? link(slot, slot - 1) : SlotRegions::None; }
    std::int32_t above(std::size_t slot, int y) const { return y > 0 ? link(slot, slot - width) : SlotRegions::None; }

private:
    std::int32_t link(std::size_t slot, std::size_t before) const {
        return near.exists(before) && near(before, slot) ? static_cast<std::int32_t>(before) : SlotRegions::None;
    }
};

/// The connected regions of an image. Direct neighbours are joined first, which leaves few slots whose wider
/// neighbourhood has to be looked at.
template <class Near>
class IslandFinder {
public:
    IslandFinder(int width, int height, int radius, const Near& near, int threads)
        : _width(width), _height(height), _radius(radius), _near(near), _regions(width, height, threads) {}

    const SlotRegions& find() {
        _regions.label(AdjacentLinks<Near>{_near, static_cast<std::size_t>(_width)});
        _regions.flatten();
        _regions.for_bands([this](const SlotRegions::Band& band) { join_wide_neighbours(band); });
        for (const SlotRegions::Band& band : _regions.bands()) join_seam(band.top);
        _regions.merge();
        return _regions;
    }

private:
    std::size_t slot_at(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(_width) + static_cast<std::size_t>(x);
    }

    /// Of two slots with different labels, the one whose label is the smaller region looks for the other.
    void join_wide_neighbours(const SlotRegions::Band& band) {
        const int columns = (_width + BlockSide - 1) / BlockSide;
        const std::vector<std::int32_t> largest = largest_around_blocks(band, columns);
        for (int y = band.top; y < band.bottom; ++y) {
            const std::int32_t* rowLargest =
                largest.data() + static_cast<std::ptrdiff_t>((y - band.top) / BlockSide) * columns;
            for (int x = 0; x < _width; ++x) {
                const std::int32_t label = _regions.label_of(slot_at(x, y));
                if (label != SlotRegions::None && label != rowLargest[x / BlockSide])
                    join_neighbours(x, y, label, band);
            }
        }
    }

    void join_neighbours(int x, int y, std::int32_t label, const SlotRegions::Band& band) {
        const std::size_t slot = slot_at(x, y);
        const int right = std::min(x + _radius, _width - 1);
        const int bottom = std::min(y + _radius, band.bottom - 1);
        std::int32_t joined = label;
        for (int ny = std::max(y - _radius, band.top); ny <= bottom; ++ny) {
            for (int nx = std::max(x - _radius, 0); nx <= right; ++nx) {
                const std::size_t neighbour = slot_at(nx, ny);
                const std::int32_t other = _regions.label_of(neighbour);
                if (other == label || other == joined || other == SlotRegions::None || !_near(slot, neighbour))
                    continue;
                _regions.unite(label, other);
                joined = other;
            }
        }
    }

    /// For each block of the band the largest label that stands in it or in the blocks within the radius.
    std::vector<std::int32_t> largest_around_blocks(const SlotRegions::Band& band, int columns) const {
        const int rows = (band.bottom - band.top + BlockSide - 1) / BlockSide;
        std::vector<std::int32_t> inBlock(static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows),
                                          SlotRegions::None);
        for (int y = band.top; y < band.bottom; ++y) {
            std::int32_t* rowBlocks =
                inBlock.data() + static_cast<std::ptrdiff_t>((y - band.top) / BlockSide) * columns;
            for (int x = 0; x < _width; ++x) keep_larger(rowBlocks[x / BlockSide], _regions.label_of(slot_at(x, y)));
        }
        const int reach = (_radius + BlockSide - 1) / BlockSide;
        std::vector<std::int32_t> alongRows(inBlock);
        std::vector<std::int32_t> around(inBlock);
        for (int row = 0; row < rows; ++row) {
            for (int c = 0; c < columns; ++c) {
                const std::size_t begin = static_cast<std::size_t>(row) * static_cast<std::size_t>(columns);
                for (int n = std::max(c - reach, 0); n <= std::min(c + reach, columns - 1); ++n)
                    keep_larger(alongRows[begin + static_cast<std::size_t>(c)],
                                inBlock[begin + static_cast<std::size_t>(n)]);
            }
        }
        for (int row = 0; row < rows; ++row) {
            for (int n = std::max(row - reach, 0); n <= std::min(row + reach, rows - 1); ++n)
                for (int c = 0; c < columns; ++c)
                    keep_larger(around[static_cast<std::size_t>(row) * columns + c],
                                alongRows[static_cast<std::size_t>(n) * columns + c]);
        }
        return around;
    }

    void keep_larger(std::int32_t& kept, std::int32_t label) const {
        if (label == kept || label == SlotRegions::None) return;
        if (kept == SlotRegions::None || _regions.is_larger(label, kept)) kept = label;
    }

    /// Joins the rows above `seam` to those from it on; bands are higher than the radius.
    void join_seam(int seam) {
        for (int y = std::max(seam - _radius, 0); y < seam; ++y) {
            for (int ny = seam; ny <= std::min(y + _radius, _height - 1); ++ny) join_rows(y, ny);
        }
    }

    void join_rows(int y, int otherY) {
        std::int32_t joined = SlotRegions::None;
        std::int32_t joinedOther = SlotRegions::None;
        for (int x = 0; x < _width; ++x) {
            const std::size_t slot = slot_at(x, y);
            const std::int32_t label = _regions.label_of(slot);
            if (label == SlotRegions::None) continue;
            for (int nx = std::max(x - _radius, 0); nx <= std::min(x + _radius, _width - 1); ++nx) {
                const std::size_t neighbour = slot_at(nx, otherY);
                const std::int32_t other = _regions.label_of(neighbour);
                if (other == SlotRegions::None || (label == joined && other == joinedOther)) continue;
                if (!_near(slot, neighbour)) continue;
                _regions.unite(label, other);
                joined = label;
                joinedOther = other;
            }
        }
    }

    int _width;
    int _height;
    int _radius;
    Near _near;
    SlotRegions _regions;
};

template <class Near>
void empty_small_islands(PointImage& image, int radius, int countLimit, const Near& near, const Vector3f& emptyPoint) {
    if (image.get_vn() == 0) return;  // but maybe with 2^31 - 1 rows
    const int threads = default_thread_number();
    IslandFinder<Near> finder(image.get_image_width(), image.get_image_height(), std::clamp(radius, 1, MaxRadius), near,
                              threads);
    const SlotRegions& regions = finder.find();
    parallel_ranges(threads, image.get_vn(), 1 << 15, [&](std::size_t begin, std::size_t end) {
        for (std::size_t slot = begin; slot < end; ++slot) {
            if (regions.label_of(slot) == SlotRegions::None || regions.size_of(slot) >= countLimit) continue;
            image.set_slot_empty(slot);
            image.set_vCoord(slot, emptyPoint);
        }
    });
}

}  // namespace

void PointImage::delete_island(int radius, float distanceJump, int countLimit) {
    if (!is_legal() || !(distanceJump >= 0.0f) || countLimit <= 1) return;
    empty_small_islands(*this, radius, countLimit, NearInSpace{*this, distanceJump * distanceJump}, Vector3f::Zero());
}

void PointImage::delete_island_through_depth(int radius, float depthJump, int countLimit, const Vector3f& emptyPoint) {
    if (!is_legal() || !(depthJump >= 0.0f) || countLimit <= 1) return;
    const Vector3f written = emptyPoint;  // it may refer to a slot of this image
    const std::unique_ptr<float[]> depths = slot_depths(*this, default_thread_number());
    empty_small_islands(*this, radius, countLimit, NearInDepth{depths.get(), depthJump}, written);
}

}  // namespace VexelAlgorithm
