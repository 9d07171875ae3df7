#include "SpeckleRebCPU/surfaceSolver.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "SpeckleRebCPU/surfaceSolver.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

#include "foundation/parallel.h"

#ifndef VEXEL_SURFACE_TILES_DEFINED
#    define VEXEL_SURFACE_TILES_DEFINED
namespace VexelAlgorithm {

struct SurfaceTask {
    const SlotEvidence& evidence;
    const SurfacePrior& prior;
    const Raster<float>& parallax;
    const Raster<float>& gain;
    Raster<float>& step;
    Raster<float>& newGain;
};

struct Tile {
    int x, y;  ///< its first slot
};
// With what belongs to it, a tile takes some 1.2 MB; the gradients go over some 850 KB.
constexpr int TILE_WIDTH = 116, TILE_HEIGHT = 48;  // slots
constexpr int TILE_OVERLAP = 6;                    // to each side
constexpr float FARTHEST = 1e6F;                   // pixels; what lies beyond is no parallax

}  // namespace VexelAlgorithm
#endif

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace HWY_NAMESPACE {
namespace {

namespace hn = hwy::HWY_NAMESPACE;
using FloatTag = hn::ScalableTag<float>;
using FloatVec = hn::Vec<FloatTag>;

FloatVec load(const float* values) {
    return hn::LoadU(FloatTag(), values);
}
void store(FloatVec value, float* values) {
    hn::StoreU(value, FloatTag(), values);
}
FloatVec second_difference(const float* values, std::ptrdiff_t stride) {
    const auto middle = load(values);
    return hn::Sub(hn::Add(load(values - stride), load(values + stride)), hn::Add(middle, middle));
}

/// Values of the tile's slots with empty ones around, so that neighbours need no bounds.
class TileRows {
public:
    void assign(std::size_t stride, std::size_t rows, float value) {
        _stride = stride;
        _values.assign(stride * rows, value);
    }
    float* row(int y) { return _values.data() + static_cast<std::size_t>(y + 1) * _stride + MARGIN; }
    const float* row(int y) const { return _values.data() + static_cast<std::size_t>(y + 1) * _stride + MARGIN; }

    static constexpr std::size_t MARGIN = 16;

private:
    std::size_t _stride = 0;
    std::vector<float> _values;
};

/// A parallax and a gain, or what belongs to them, for every slot of a tile.
struct Unknowns {
    TileRows step, gain;
};

class TileSolver {
public:
    explicit TileSolver(const SurfaceTask& task) : _task(task) {
        const std::size_t lanes = hn::Lanes(FloatTag()), width = TILE_WIDTH + 2 * TILE_OVERLAP;
        _stride = static_cast<std::ptrdiff_t>((width + lanes - 1) / lanes * lanes + 2 * TileRows::MARGIN);
    }

    /// Leaves the result for the slots of the tile, from the tile and what it overlaps with.
    void solve(int tileX, int tileY) {
        const Raster<float>& parallax = _task.parallax;
        _left = std::max(0, tileX - TILE_OVERLAP), _top = std::max(0, tileY - TILE_OVERLAP);
        resize(std::min(parallax.width(), tileX + TILE_WIDTH + TILE_OVERLAP) - _left,
               std::min(parallax.height(), tileY + TILE_HEIGHT + TILE_OVERLAP) - _top);
        if (!load_slots()) return;
        join_slots();
        weigh_bends();
        start();
        for (int i = 0; i < _task.prior.iterations; ++i) advance();
        const int right = std::min(tileX + TILE_WIDTH, parallax.width());
        for (int y = tileY; y < std::min(tileY + TILE_HEIGHT, parallax.height()); ++y) {
            std::copy_n(_found.step.row(y - _top) + tileX - _left, right - tileX, _task.step.row(y) + tileX);
            std::copy_n(_found.gain.row(y - _top) + tileX - _left, right - tileX, _task.newGain.row(y) + tileX);
        }
    }

private:
    /// All rows are zero or empty beyond the slots.
    void resize(int width, int height) {
        if (width == _width && height == _height) return;
        _width = width, _height = height;
        const auto assign = [&](TileRows& rows, float value) {
            rows.assign(static_cast<std::size_t>(_stride), TILE_HEIGHT + 2 * TILE_OVERLAP + 2, value);
        };
        for (TileRows* rows :
             {&_base, &_stepStep, &_stepGain, &_gainGain, &_alongX, &_alongY, &_mixed, &_weightX, &_weightY,
              &_weightMixed, &_gainX, &_gainY, &_bendX, &_bendY, &_bendMixed, &_riseX, &_riseY})
            assign(*rows, 0.0F);
        for (Unknowns* unknowns : {&_evidence, &_found, &_rest, &_direction, &_product, &_inverse})
            assign(unknowns->step, 0.0F), assign(unknowns->gain, 0.0F);
        assign(_parallax, NO_PARALLAX);
    }

    template <class Body>
    void for_each_vector(const Body& body) const {
        for (int y = 0; y < _height; ++y) for_each_vector_of_row([&](int x) { body(y, x); });
    }
    template <class Body>
    void for_each_vector_of_row(const Body& body) const {
        for (int x = 0; x < _width; x += static_cast<int>(hn::Lanes(FloatTag()))) body(x);
    }

    /// What the tile's slots bring with them; false when it is empty.
    bool load_slots() {
        const SlotEvidence& evidence = _task.evidence;
        const std::pair<const Raster<float>*, TileRows*> loaded[] = {
            {&_task.parallax, &_parallax},    {&evidence.stepStep, &_stepStep},  {&evidence.stepGain, &_stepGain},
            {&evidence.gainGain, &_gainGain}, {&evidence.step, &_evidence.step}, {&evidence.gain, &_evidence.gain},
            {&_task.gain, &_found.gain}};
        for (const auto& [source, rows] : loaded)
            for (int y = 0; y < _height; ++y) std::copy_n(source->row(_top + y) + _left, _width, rows->row(y));
        for (int y = 0; y < _height; ++y)
            if (std::any_of(_parallax.row(y), _parallax.row(y) + _width, has_parallax)) return true;
        return false;
    }

    /// Empty slots take no part; neighbours on one surface bend together. NaN is near nothing.
    void join_slots() {
        const SurfacePrior& prior = _task.prior;
        const FloatTag d;
        const auto jump = hn::Set(d, prior.jump), kink = hn::Set(d, prior.kink), zero = hn::Zero(d);
        const auto one = hn::Set(d, 1.0F), two = hn::Set(d, 2.0F);
        const auto evenness = hn::Set(d, prior.noise * prior.noise / (prior.gainStep * prior.gainStep));
        const auto is_within = [](FloatVec difference, FloatVec limit) { return hn::Le(hn::Abs(difference), limit); };
        for_each_vector([&](int y, int x) {
            const float* at = _parallax.row(y) + x;
            const auto own = load(at), behind = load(at + 1), below = load(at + _stride);
            const auto corner = load(at + _stride + 1);
            const auto isFull = hn::Lt(hn::Abs(own), hn::Set(d, FARTHEST));
            const auto keep = [&](TileRows& rows) {
                store(hn::IfThenElseZero(isFull, load(rows.row(y) + x)), rows.row(y) + x);
            };
            for (TileRows* rows : {&_stepStep, &_stepGain, &_gainGain, &_evidence.step, &_evidence.gain}) keep(*rows);
            store(zero, _found.step.row(y) + x);
            store(hn::IfThenElseZero(isFull, own), _base.row(y) + x);
            const auto isRightNear = is_within(hn::Sub(behind, own), jump);
            const auto isLowerNear = is_within(hn::Sub(below, own), jump);
            const auto bends = [&](const float* before, hn::Mask<FloatTag> isBehindNear, FloatVec bend) {
                const auto isNear = hn::And(is_within(hn::Sub(load(before), own), jump), isBehindNear);
                return hn::IfThenElseZero(hn::And(isNear, is_within(bend, kink)), one);
            };
            store(bends(at - 1, isRightNear, bend_along_x(at)), _alongX.row(y) + x);
            store(bends(at - _stride, isLowerNear, bend_along_y(at)), _alongY.row(y) + x);
            const auto isCornerNear =
                hn::And(is_within(hn::Sub(corner, behind), jump), is_within(hn::Sub(corner, below), jump));
            const auto isWhole = hn::And(hn::And(isRightNear, isLowerNear), isCornerNear);
            store(hn::IfThenElseZero(hn::And(isWhole, is_within(mixed_bend(at), kink)), two), _mixed.row(y) + x);
            store(hn::IfThenElseZero(isRightNear, evenness), _gainX.row(y) + x);
            store(hn::IfThenElseZero(isLowerNear, evenness), _gainY.row(y) + x);
        });
    }

    // ---- bends ---------------------------------------------------------------------------------------------

    FloatVec bend_along_x(const float* at) const { return second_difference(at, 1); }
    FloatVec bend_along_y(const float* at) const { return second_difference(at, _stride); }
    FloatVec mixed_bend(const float* at) const {
        return hn::Sub(hn::Add(load(at), load(at + _stride + 1)), hn::Add(load(at + 1), load(at + _stride)));
    }

    /// Large bends weigh less.
    void weigh_bends() {
        const SurfacePrior& prior = _task.prior;
        const FloatTag d;
        const auto stiffness = hn::Set(d, prior.noise * prior.noise / (prior.bend * prior.bend)),
                   one = hn::Set(d, 1.0F);
        const auto crease = hn::Set(d, 1.0F / (prior.crease * prior.crease));
        const auto weigh = [&](const float* share, FloatVec bend, float* weight) {
            const auto creased = hn::Sqrt(hn::Add(one, hn::Mul(crease, hn::Mul(bend, bend))));
            store(hn::Div(hn::Mul(load(share), stiffness), creased), weight);
        };
        for_each_vector([&](int y, int x) {
            const float* at = _base.row(y) + x;
            weigh(_alongX.row(y) + x, bend_along_x(at), _weightX.row(y) + x);
            weigh(_alongY.row(y) + x, bend_along_y(at), _weightY.row(y) + x);
            weigh(_mixed.row(y) + x, mixed_bend(at), _weightMixed.row(y) + x);
        });
    }

    // ---- conjugate gradients -------------------------------------------------------------------------------

    /// The system times the unknowns, where `bent` is what bends: the steps, or the surface. Returns the product of
    /// both. `prepare` makes a row of the unknowns; what a row of the product needs of them is then still in the cache.
    template <class Prepare>
    float multiply(const Prepare& prepare, const Unknowns& unknowns, const TileRows& bent, Unknowns& product) {
        auto curvature = hn::Zero(FloatTag());
        for (int y = 0; y < _height + 2; ++y) {
            if (y < _height) prepare(y);
            if (y >= 1 && y <= _height) bend_row(unknowns, bent, y - 1);
            if (y >= 2) curvature = hn::Add(curvature, multiply_row(unknowns, y - 2, product));
        }
        return sum_of(curvature);
    }

    void bend_row(const Unknowns& unknowns, const TileRows& bent, int y) {
        for_each_vector_of_row([&](int x) {
            const float *at = bent.row(y) + x, *gain = unknowns.gain.row(y) + x;
            store(hn::Mul(load(_weightX.row(y) + x), bend_along_x(at)), _bendX.row(y) + x);
            store(hn::Mul(load(_weightY.row(y) + x), bend_along_y(at)), _bendY.row(y) + x);
            store(hn::Mul(load(_weightMixed.row(y) + x), mixed_bend(at)), _bendMixed.row(y) + x);
            const auto own = load(gain);
            store(hn::Mul(load(_gainX.row(y) + x), hn::Sub(load(gain + 1), own)), _riseX.row(y) + x);
            store(hn::Mul(load(_gainY.row(y) + x), hn::Sub(load(gain + _stride), own)), _riseY.row(y) + x);
        });
    }

    FloatVec multiply_row(const Unknowns& unknowns, int y, Unknowns& product) {
        auto curvature = hn::Zero(FloatTag());
        for_each_vector_of_row([&](int x) {
            const float* mixed = _bendMixed.row(y) + x;
            const auto bends = hn::Add(bend_along_x(_bendX.row(y) + x), bend_along_y(_bendY.row(y) + x));
            const auto twists = hn::Sub(hn::Add(load(mixed), load(mixed - _stride - 1)),
                                        hn::Add(load(mixed - 1), load(mixed - _stride)));
            const float *riseX = _riseX.row(y) + x, *riseY = _riseY.row(y) + x;
            const auto rises =
                hn::Add(hn::Sub(load(riseX - 1), load(riseX)), hn::Sub(load(riseY - _stride), load(riseY)));
            const auto step = load(unknowns.step.row(y) + x), gain = load(unknowns.gain.row(y) + x);
            const auto coupling = load(_stepGain.row(y) + x);
            const auto stepProduct = hn::Add(
                hn::Add(bends, twists), hn::Add(hn::Mul(load(_stepStep.row(y) + x), step), hn::Mul(coupling, gain)));
            const auto gainProduct =
                hn::Add(rises, hn::Add(hn::Mul(coupling, step), hn::Mul(load(_gainGain.row(y) + x), gain)));
            store(stepProduct, product.step.row(y) + x);
            store(gainProduct, product.gain.row(y) + x);
            curvature = hn::Add(curvature, hn::Add(hn::Mul(step, stepProduct), hn::Mul(gain, gainProduct)));
        });
        return curvature;
    }

    void start() {
        const FloatTag d;
        const auto one = hn::Set(d, 1.0F), zero = hn::Zero(d);
        multiply([](int) {}, _found, _base, _product);
        const auto inverse = [&](FloatVec diagonal, float* inverted) {
            const auto isKnown = hn::Gt(diagonal, zero);
            store(hn::IfThenElseZero(isKnown, hn::Div(one, hn::IfThenElse(isKnown, diagonal, one))), inverted);
        };
        const auto around = [&](const float* weights, std::ptrdiff_t stride) {
            const auto four = hn::Set(d, 4.0F);
            return hn::Add(hn::Add(load(weights - stride), load(weights + stride)), hn::Mul(four, load(weights)));
        };
        auto squares = zero;
        for_each_vector([&](int y, int x) {
            const float *mixed = _weightMixed.row(y) + x, *gainX = _gainX.row(y) + x, *gainY = _gainY.row(y) + x;
            const auto twists = hn::Add(hn::Add(load(mixed), load(mixed - 1)),
                                        hn::Add(load(mixed - _stride), load(mixed - _stride - 1)));
            const auto bends = hn::Add(around(_weightX.row(y) + x, 1), around(_weightY.row(y) + x, _stride));
            inverse(hn::Add(load(_stepStep.row(y) + x), hn::Add(bends, twists)), _inverse.step.row(y) + x);
            const auto rises =
                hn::Add(hn::Add(load(gainX), load(gainX - 1)), hn::Add(load(gainY), load(gainY - _stride)));
            inverse(hn::Add(load(_gainGain.row(y) + x), rises), _inverse.gain.row(y) + x);
            const auto begin = [&](const TileRows& evidence, const TileRows& product, const TileRows& inverted,
                                   TileRows& rest, TileRows& direction) {
                const auto left = hn::Sub(load(evidence.row(y) + x), load(product.row(y) + x));
                store(left, rest.row(y) + x);
                store(zero, direction.row(y) + x);
                squares = hn::Add(squares, hn::Mul(load(inverted.row(y) + x), hn::Mul(left, left)));
            };
            begin(_evidence.step, _product.step, _inverse.step, _rest.step, _direction.step);
            begin(_evidence.gain, _product.gain, _inverse.gain, _rest.gain, _direction.gain);
        });
        _share = 0.0F;
        _squares = sum_of(squares);
    }

    void advance() {
        const FloatTag d;
        if (!(_squares > 0.0F)) return;
        const float curved = multiply([&](int y) { turn_row(y); }, _direction, _direction.step, _product);
        if (!(curved > 0.0F)) return;
        const auto length = hn::Set(d, _squares / curved);
        auto squares = hn::Zero(d);
        for_each_vector([&](int y, int x) {
            const auto move = [&](const TileRows& direction, const TileRows& product, const TileRows& inverse,
                                  TileRows& rest, TileRows& found) {
                store(hn::Add(load(found.row(y) + x), hn::Mul(length, load(direction.row(y) + x))), found.row(y) + x);
                const auto left = hn::Sub(load(rest.row(y) + x), hn::Mul(length, load(product.row(y) + x)));
                store(left, rest.row(y) + x);
                squares = hn::Add(squares, hn::Mul(load(inverse.row(y) + x), hn::Mul(left, left)));
            };
            move(_direction.step, _product.step, _inverse.step, _rest.step, _found.step);
            move(_direction.gain, _product.gain, _inverse.gain, _rest.gain, _found.gain);
        });
        const float before = std::exchange(_squares, sum_of(squares));
        _share = _squares / before;
    }

    /// The direction: where the rest points, and a share of the one before.
    void turn_row(int y) {
        const auto share = hn::Set(FloatTag(), _share);
        for_each_vector_of_row([&](int x) {
            const auto turn = [&](const TileRows& rest, const TileRows& inverse, TileRows& direction) {
                store(hn::Add(hn::Mul(load(inverse.row(y) + x), load(rest.row(y) + x)),
                              hn::Mul(share, load(direction.row(y) + x))),
                      direction.row(y) + x);
            };
            turn(_rest.step, _inverse.step, _direction.step);
            turn(_rest.gain, _inverse.gain, _direction.gain);
        });
    }

    static float sum_of(FloatVec values) { return hn::GetLane(hn::SumOfLanes(FloatTag(), values)); }

    const SurfaceTask& _task;
    int _left = 0, _top = 0, _width = 0, _height = 0;
    std::ptrdiff_t _stride = 0;
    TileRows _parallax;  ///< NaN for empty slots
    TileRows _base;      ///< the same with 0 for them
    TileRows _stepStep, _stepGain, _gainGain;
    TileRows _alongX, _alongY, _mixed;          ///< 1 or 2 where the slots of a bend lie on one surface, else 0
    TileRows _weightX, _weightY, _weightMixed;  ///< of the bends
    TileRows _gainX, _gainY;                    ///< of the differences of the gain
    TileRows _bendX, _bendY, _bendMixed, _riseX, _riseY;  ///< weighted, of what was multiplied last
    Unknowns _evidence, _found, _rest, _direction, _product, _inverse;
    float _squares = 0.0F;  ///< of the rest, by the preconditioner
    float _share = 0.0F;    ///< of the direction before, in the next one
};

}  // namespace

void solve_tiles(const SurfaceTask& task, const Tile* begin, const Tile* end) {
    TileSolver solver(task);
    for (const Tile* tile = begin; tile != end; ++tile) solver.solve(tile->x, tile->y);
}

}  // namespace HWY_NAMESPACE
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace {

constexpr std::size_t TILE_GRAIN = 4;

HWY_EXPORT(solve_tiles);

}  // namespace

void solve_surface(const SlotEvidence& evidence, const SurfacePrior& prior, const Raster<float>& parallax, int threads,
                   Raster<float>& step, Raster<float>& gain) {
    step.assign(parallax.width(), parallax.height());
    Raster<float> newGain = gain;
    std::vector<Tile> tiles;
    for (int x = 0; x < parallax.width(); x += TILE_WIDTH)
        for (int y = 0; y < parallax.height(); y += TILE_HEIGHT) tiles.push_back({x, y});
    const SurfaceTask task{evidence, prior, parallax, gain, step, newGain};
    parallel_ranges(threads, tiles.size(), TILE_GRAIN, [&](std::size_t begin, std::size_t end) {
        HWY_DYNAMIC_DISPATCH(solve_tiles)(task, tiles.data() + begin, tiles.data() + end);
    });
    gain = std::move(newGain);
}

}  // namespace VexelAlgorithm
#endif
