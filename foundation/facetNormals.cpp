#include "foundation/facetNormals.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "foundation/parallel.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "foundation/facetNormals.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#ifndef VEXEL_FACET_GRID_DEFINED
#    define VEXEL_FACET_GRID_DEFINED
namespace VexelAlgorithm {

/// One call's input and output, xyz interleaved.
struct FacetGrid {
    const float* points;
    float* normals;
    std::size_t width;
    std::size_t height;
    std::size_t reachX;  ///< largest pixel offset that stays within the image
    std::size_t reachY;
    FacetWindow window;
    float camera[3];
};

}  // namespace VexelAlgorithm
#endif

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using FloatTag = hn::ScalableTag<float>;
using FloatVec = hn::Vec<FloatTag>;

struct PlanarRow {
    const float* x;
    const float* y;
    const float* z;
};

/// The last rows of the image as separate coordinate arrays, empty slots and the margins being NaN: whatever is
/// compared with them fails, so no other test of validity is needed.
class PlanarRowRing {
public:
    explicit PlanarRowRing(const FacetGrid& grid)
        : _grid(grid),
          _capacity(std::min(grid.height, 2 * grid.reachY + 1)),
          _stride(2 * grid.reachX + grid.width + 2 * hn::Lanes(FloatTag())),
          _data(_capacity * _stride * 3, std::numeric_limits<float>::quiet_NaN()) {}

    PlanarRow row(std::size_t y) const {
        const float* x = _data.data() + (y % _capacity) * _stride * 3 + _grid.reachX;
        return {x, x + _stride, x + 2 * _stride};
    }

    void load(std::size_t y) {
        const FloatTag d;
        const std::size_t lanes = hn::Lanes(d);
        const float* points = _grid.points + y * _grid.width * 3;
        float* x = _data.data() + (y % _capacity) * _stride * 3 + _grid.reachX;
        std::size_t i = 0;
        for (; i + lanes <= _grid.width; i += lanes) load_vector(points + i * 3, x + i);
        if (i < _grid.width) {
            float tail[3 * hn::MaxLanes(FloatTag())] = {};
            std::memcpy(tail, points + i * 3, (_grid.width - i) * 3 * sizeof(float));
            load_vector(tail, x + i);
        }
    }

private:
    void load_vector(const float* points, float* x) const {
        const FloatTag d;
        FloatVec px, py, pz;
        hn::LoadInterleaved3(d, points, px, py, pz);
        const FloatVec zero = hn::Zero(d);
        const FloatVec zeroIfFinite = hn::Add(hn::Add(hn::Sub(px, px), hn::Sub(py, py)), hn::Sub(pz, pz));
        const auto isZero = hn::And(hn::And(hn::Eq(px, zero), hn::Eq(py, zero)), hn::Eq(pz, zero));
        const auto keep = hn::AndNot(isZero, hn::Eq(zeroIfFinite, zero));
        const FloatVec nan = hn::Set(d, std::numeric_limits<float>::quiet_NaN());
        hn::StoreU(hn::IfThenElse(keep, px, nan), d, x);
        hn::StoreU(hn::IfThenElse(keep, py, nan), d, x + _stride);
        hn::StoreU(hn::IfThenElse(keep, pz, nan), d, x + 2 * _stride);
    }

    const FacetGrid& _grid;
    std::size_t _capacity;
    std::size_t _stride;
    std::vector<float> _data;
};

struct Vec3 {
    FloatVec x, y, z;
};

HWY_INLINE Vec3 load3(const PlanarRow& row, std::ptrdiff_t i) {
    const FloatTag d;
    return {hn::LoadU(d, row.x + i), hn::LoadU(d, row.y + i), hn::LoadU(d, row.z + i)};
}
HWY_INLINE Vec3 add(const Vec3& a, const Vec3& b) {
    return {hn::Add(a.x, b.x), hn::Add(a.y, b.y), hn::Add(a.z, b.z)};
}
HWY_INLINE Vec3 subtract(const Vec3& a, const Vec3& b) {
    return {hn::Sub(a.x, b.x), hn::Sub(a.y, b.y), hn::Sub(a.z, b.z)};
}
HWY_INLINE Vec3 scale(FloatVec s, const Vec3& a) {
    return {hn::Mul(s, a.x), hn::Mul(s, a.y), hn::Mul(s, a.z)};
}
HWY_INLINE FloatVec dot(const Vec3& a, const Vec3& b) {
    return hn::Add(hn::Add(hn::Mul(a.x, b.x), hn::Mul(a.y, b.y)), hn::Mul(a.z, b.z));
}
HWY_INLINE Vec3 cross(const Vec3& a, const Vec3& b) {
    return {hn::Sub(hn::Mul(a.y, b.z), hn::Mul(a.z, b.y)), hn::Sub(hn::Mul(a.z, b.x), hn::Mul(a.x, b.z)),
            hn::Sub(hn::Mul(a.x, b.y), hn::Mul(a.y, b.x))};
}
HWY_INLINE Vec3 zero3() {
    const FloatVec zero = hn::Zero(FloatTag());
    return {zero, zero, zero};
}

/// Sums over the accepted neighbours of one pixel per lane: counts of the offsets (i, j), and the points
/// relative to the centre point, plain and weighted by i and j.
struct FacetSums {
    FloatVec n, i, j, ii, ij, jj;
    Vec3 p, ip, jp;
};

/// The same along one row of the window, where j is constant.
struct FacetRowSums {
    FloatVec n, i, ii;
    Vec3 p, ip;
};

/// Sets the lanes of `offset` (neighbour minus centre) beyond the limit to zero; returns 1 for the others.
HWY_INLINE FloatVec keep_near(FloatVec limitSquared, Vec3& offset) {
    const auto isNear = hn::Le(dot(offset, offset), limitSquared);
    offset.x = hn::IfThenElseZero(isNear, offset.x);
    offset.y = hn::IfThenElseZero(isNear, offset.y);
    offset.z = hn::IfThenElseZero(isNear, offset.z);
    return hn::IfThenElseZero(isNear, hn::Set(FloatTag(), 1.0f));
}

HWY_INLINE FacetRowSums sum_row(const FacetGrid& grid, const PlanarRow& row, std::size_t x, const Vec3& centre,
                                FloatVec limitSquared) {
    const FloatTag d;
    FacetRowSums sums;
    sums.p = subtract(load3(row, static_cast<std::ptrdiff_t>(x)), centre);
    sums.n = keep_near(limitSquared, sums.p);
    sums.i = sums.ii = hn::Zero(d);
    sums.ip = zero3();
    float i = 1.0f;
    for (std::size_t offset = grid.window.stepX; offset <= grid.reachX; offset += grid.window.stepX, i += 1.0f) {
        Vec3 right = subtract(load3(row, static_cast<std::ptrdiff_t>(x + offset)), centre);
        Vec3 left = subtract(load3(row, static_cast<std::ptrdiff_t>(x) - static_cast<std::ptrdiff_t>(offset)), centre);
        const FloatVec hasRight = keep_near(limitSquared, right);
        const FloatVec hasLeft = keep_near(limitSquared, left);
        const FloatVec both = hn::Add(hasRight, hasLeft);
        sums.n = hn::Add(sums.n, both);
        sums.i = hn::Add(sums.i, hn::Mul(hn::Set(d, i), hn::Sub(hasRight, hasLeft)));
        sums.ii = hn::Add(sums.ii, hn::Mul(hn::Set(d, i * i), both));
        sums.p = add(sums.p, add(right, left));
        sums.ip = add(sums.ip, scale(hn::Set(d, i), subtract(right, left)));
    }
    return sums;
}

HWY_INLINE void add_row(FacetSums& sums, const FacetRowSums& row, float rowOffset) {
    const FloatVec j = hn::Set(FloatTag(), rowOffset);
    sums.n = hn::Add(sums.n, row.n);
    sums.i = hn::Add(sums.i, row.i);
    sums.ii = hn::Add(sums.ii, row.ii);
    const FloatVec rowJ = hn::Mul(j, row.n);
    sums.j = hn::Add(sums.j, rowJ);
    sums.jj = hn::Add(sums.jj, hn::Mul(j, rowJ));
    sums.ij = hn::Add(sums.ij, hn::Mul(j, row.i));
    sums.p = add(sums.p, row.p);
    sums.ip = add(sums.ip, row.ip);
    sums.jp = add(sums.jp, scale(j, row.p));
}

HWY_INLINE Vec3 facet_normal(const FacetSums& s, const Vec3& toCamera) {
    const FloatTag d;
    // Counts stay below 2^24 where they decide whether the pixels lie on one line, so these products are exact.
    const FloatVec varI = hn::Sub(hn::Mul(s.n, s.ii), hn::Mul(s.i, s.i));
    const FloatVec varJ = hn::Sub(hn::Mul(s.n, s.jj), hn::Mul(s.j, s.j));
    const FloatVec covIJ = hn::Sub(hn::Mul(s.n, s.ij), hn::Mul(s.i, s.j));
    const FloatVec varProduct = hn::Mul(varI, varJ);
    const auto spansPixels = hn::Gt(hn::Sub(varProduct, hn::Mul(covIJ, covIJ)), hn::Mul(hn::Set(d, 1e-4f), varProduct));

    const FloatVec perPoint = hn::Div(hn::Set(d, 1.0f), s.n);
    const FloatVec meanI = hn::Mul(s.i, perPoint);
    const FloatVec meanJ = hn::Mul(s.j, perPoint);
    const Vec3 mean = scale(perPoint, s.p);
    const Vec3 u = subtract(scale(perPoint, s.ip), scale(meanI, mean));
    const Vec3 v = subtract(scale(perPoint, s.jp), scale(meanJ, mean));
    const Vec3 normal = cross(u, v);
    const FloatVec squaredLength = dot(normal, normal);
    const auto spansSpace = hn::Gt(squaredLength, hn::Mul(hn::Set(d, 1e-10f), hn::Mul(dot(u, u), dot(v, v))));
    const auto isFinite = hn::Lt(squaredLength, hn::Set(d, std::numeric_limits<float>::infinity()));

    const FloatVec toUnit = hn::Div(hn::Set(d, 1.0f), hn::Sqrt(squaredLength));
    const auto facesAway = hn::Lt(dot(normal, toCamera), hn::Zero(d));
    const FloatVec factor = hn::IfThenElse(facesAway, hn::Neg(toUnit), toUnit);
    const auto isValid = hn::And(hn::And(spansPixels, spansSpace), isFinite);
    const Vec3 unit = scale(factor, normal);
    return {hn::IfThenElseZero(isValid, unit.x), hn::IfThenElseZero(isValid, unit.y),
            hn::IfThenElseZero(isValid, unit.z)};
}

/// The rows of the window around image row y that lie in the image, and their j.
struct WindowRows {
    PlanarRow centre;
    int count = 0;
    PlanarRow rows[2 * MaxFacetSteps + 1];
    float j[2 * MaxFacetSteps + 1];
};

WindowRows window_rows(const FacetGrid& grid, const PlanarRowRing& ring, std::size_t y) {
    WindowRows result;
    result.centre = ring.row(y);
    const std::int64_t step = grid.window.stepY;
    for (int j = -grid.window.countY; j <= grid.window.countY; ++j) {
        const std::int64_t rowY = static_cast<std::int64_t>(y) + j * step;
        if (rowY < 0 || rowY >= static_cast<std::int64_t>(grid.height)) continue;
        result.rows[result.count] = ring.row(static_cast<std::size_t>(rowY));
        result.j[result.count++] = static_cast<float>(j);
    }
    return result;
}

HWY_INLINE Vec3 normals_at(const FacetGrid& grid, const WindowRows& window, std::size_t x, FloatVec limitSquared) {
    const FloatTag d;
    const Vec3 centre = load3(window.centre, static_cast<std::ptrdiff_t>(x));
    const FloatVec zero = hn::Zero(d);
    FacetSums sums{zero, zero, zero, zero, zero, zero, zero3(), zero3(), zero3()};
    for (int r = 0; r < window.count; ++r)
        add_row(sums, sum_row(grid, window.rows[r], x, centre, limitSquared), window.j[r]);
    const Vec3 camera{hn::Set(d, grid.camera[0]), hn::Set(d, grid.camera[1]), hn::Set(d, grid.camera[2])};
    return facet_normal(sums, subtract(camera, centre));
}

void write_row_normals(const FacetGrid& grid, const WindowRows& window, float* out) {
    const FloatTag d;
    const std::size_t lanes = hn::Lanes(d);
    const float limit = grid.window.distanceLimit;
    const FloatVec limitSquared = hn::Set(d, limit >= 0.0f ? limit * limit : -1.0f);
    std::size_t x = 0;
    for (; x + lanes <= grid.width; x += lanes) {
        const Vec3 normals = normals_at(grid, window, x, limitSquared);
        hn::StoreInterleaved3(normals.x, normals.y, normals.z, d, out + x * 3);
    }
    if (x < grid.width) {
        float tail[3 * hn::MaxLanes(FloatTag())];
        const Vec3 normals = normals_at(grid, window, x, limitSquared);
        hn::StoreInterleaved3(normals.x, normals.y, normals.z, d, tail);
        std::memcpy(out + x * 3, tail, (grid.width - x) * 3 * sizeof(float));
    }
}

}  // namespace

void write_band_normals(const FacetGrid& grid, std::size_t rowBegin, std::size_t rowEnd) {
    PlanarRowRing ring(grid);
    std::size_t loaded = rowBegin - std::min(rowBegin, grid.reachY);
    for (std::size_t y = rowBegin; y < rowEnd; ++y) {
        for (const std::size_t end = std::min(grid.height, y + grid.reachY + 1); loaded < end; ++loaded)
            ring.load(loaded);
        write_row_normals(grid, window_rows(grid, ring, y), grid.normals + y * grid.width * 3);
    }
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {

HWY_EXPORT(write_band_normals);

namespace {

/// The largest multiple of `step`, at most `count` of them, that connects two pixels of a line of `length`.
std::size_t reach_within(int step, int count, int length) {
    const std::int64_t steps = std::min<std::int64_t>(count, (length - 1) / step);
    return static_cast<std::size_t>(steps * step);
}

}  // namespace

void compute_facet_normals(const Vector3f* points, int width, int height, const FacetWindow& window,
                           const Vector3f& camera, int threads, Vector3f* normals) {
    if (width <= 0 || height <= 0) return;
    FacetGrid grid;
    grid.points = points->data();
    grid.normals = normals->data();
    grid.width = static_cast<std::size_t>(width);
    grid.height = static_cast<std::size_t>(height);
    grid.reachX = reach_within(window.stepX, window.countX, width);
    grid.reachY = reach_within(window.stepY, window.countY, height);
    grid.window = window;
    std::copy_n(camera.data(), 3, grid.camera);
    const std::size_t bandRows = std::max<std::size_t>(32, 4 * grid.reachY);
    parallel_ranges(threads, grid.height, bandRows, [&](std::size_t begin, std::size_t end) {
        HWY_DYNAMIC_DISPATCH(write_band_normals)(grid, begin, end);
    });
}

}  // namespace VexelAlgorithm
#endif
