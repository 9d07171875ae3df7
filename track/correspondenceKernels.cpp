#include "track/correspondenceKernels.h"

#include <cstring>

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "track/correspondenceKernels.cpp"
#include <hwy/foreach_target.h>
#include <hwy/highway.h>

HWY_BEFORE_NAMESPACE();
namespace VexelAlgorithm {
namespace Track {
namespace HWY_NAMESPACE {

#if HWY_TARGET == HWY_SCALAR || HWY_TARGET == HWY_EMU128

const CorrespondenceKernels* kernels_of_target() {
    return &plain_correspondence_kernels();
}

#else

namespace {

// One lane a point. Records of four floats are copied one by one and transposed in registers; gather instructions take
// longer on many processors. Every operation and its grouping is that of the plain form.

namespace hn = hwy::HWY_NAMESPACE;
using FloatTag = hn::CappedTag<float, CorrespondencePadding>;
using IntTag = hn::RebindToSigned<FloatTag>;
using RecordTag = hn::FixedTag<float, 4>;
using FloatVec = hn::Vec<FloatTag>;
using IntVec = hn::Vec<IntTag>;
using FloatMask = hn::Mask<FloatTag>;
constexpr std::size_t MaxLanes = CorrespondencePadding;

HWY_INLINE FloatVec set(float value) {
    return hn::Set(FloatTag(), value);
}

struct Records {
    FloatVec x, y, z, w;
};

HWY_INLINE Records transpose(const float* records) {
    Records r;
    hn::LoadInterleaved4(FloatTag(), records, r.x, r.y, r.z, r.w);
    return r;
}

struct PoseVecs {
    FloatVec r00, r01, r02, r10, r11, r12, r20, r21, r22, tx, ty, tz;

    explicit PoseVecs(const FloatPose& pose)
        : r00(set(pose.r00)),
          r01(set(pose.r01)),
          r02(set(pose.r02)),
          r10(set(pose.r10)),
          r11(set(pose.r11)),
          r12(set(pose.r12)),
          r20(set(pose.r20)),
          r21(set(pose.r21)),
          r22(set(pose.r22)),
          tx(set(pose.tx)),
          ty(set(pose.ty)),
          tz(set(pose.tz)) {}
};

struct ProjectedVecs {
    FloatVec x, y, z, rayX, rayY, u, v;
};

HWY_INLINE FloatVec transform_row(FloatVec r0, FloatVec r1, FloatVec r2, FloatVec t, const Records& m) {
    return hn::Add(hn::Add(hn::Mul(r0, m.x), hn::Mul(r1, m.y)), hn::Add(hn::Mul(r2, m.z), t));
}

HWY_INLINE ProjectedVecs project(const Records& m, const PoseVecs& pose, const SlotCamera& camera) {
    ProjectedVecs p;
    p.x = transform_row(pose.r00, pose.r01, pose.r02, pose.tx, m);
    p.y = transform_row(pose.r10, pose.r11, pose.r12, pose.ty, m);
    p.z = transform_row(pose.r20, pose.r21, pose.r22, pose.tz, m);
    const FloatVec inverse = hn::Div(set(1.0F), p.z);
    p.rayX = hn::Mul(p.x, inverse);
    p.rayY = hn::Mul(p.y, inverse);
    p.u = hn::Add(hn::Mul(set(camera.fx), p.rayX), set(camera.cx));
    p.v = hn::Add(hn::Mul(set(camera.fy), p.rayY), set(camera.cy));
    return p;
}

HWY_INLINE FloatMask is_between(FloatVec value, float low, float high) {
    return hn::And(hn::Ge(value, set(low)), hn::Lt(value, set(high)));
}

HWY_INLINE FloatMask is_in_view(const ProjectedVecs& p, const SlotCamera& camera) {
    constexpr float low = ImageBorder;
    const FloatMask inside = hn::And(is_between(p.u, low, static_cast<float>(camera.width - ImageBorder)),
                                     is_between(p.v, low, static_cast<float>(camera.height - ImageBorder)));
    return hn::And(inside, hn::Gt(p.z, hn::Zero(FloatTag())));
}

struct SlotVecs {
    FloatVec x, y;

    HWY_INLINE FloatMask is_above_low_edge() const { return hn::And(hn::Gt(x, set(-1.0F)), hn::Gt(y, set(-1.0F))); }
    HWY_INLINE FloatMask is_inside(const SlotCamera& camera) const {
        const FloatMask belowHigh = hn::And(hn::Lt(x, set(static_cast<float>(camera.width))),
                                            hn::Lt(y, set(static_cast<float>(camera.height))));
        return hn::And(is_above_low_edge(), belowHigh);
    }
    HWY_INLINE FloatMask is_inside(const SlotCamera& camera, int border) const {
        const float low = static_cast<float>(border);
        const FloatMask inside = hn::And(is_between(x, low, static_cast<float>(camera.width - border)),
                                         is_between(y, low, static_cast<float>(camera.height - border)));
        return border > 0 ? inside : is_inside(camera);
    }
    /// 0 for the lanes outside the mask.
    HWY_INLINE IntVec index(FloatMask wanted, const SlotCamera& camera) const {
        const IntTag di;
        const IntVec column = hn::ConvertTo(di, hn::IfThenElseZero(wanted, x));
        const IntVec row = hn::ConvertTo(di, hn::IfThenElseZero(wanted, y));
        return hn::Add(hn::Mul(row, hn::Set(di, camera.width)), column);
    }
};

HWY_INLINE SlotVecs nearest_slot(const ProjectedVecs& p, const SlotCamera& camera) {
    const FloatVec half = set(0.5F);
    return {hn::Sub(hn::Add(p.u, half), set(camera.radialX)), hn::Sub(hn::Add(p.v, half), set(camera.radialY))};
}
HWY_INLINE SlotVecs block_position(const ProjectedVecs& p, const SlotCamera& camera) {
    return {hn::Sub(p.u, set(camera.radialX)), hn::Sub(p.v, set(camera.radialY))};
}

HWY_INLINE FloatVec dot(FloatVec x, FloatVec y, FloatVec z, const Records& n) {
    return hn::Add(hn::Add(hn::Mul(x, n.x), hn::Mul(y, n.y)), hn::Mul(z, n.z));
}
HWY_INLINE FloatVec plane_offset(const ProjectedVecs& p, const Records& q, const Records& n) {
    return dot(hn::Sub(q.x, p.x), hn::Sub(q.y, p.y), hn::Sub(q.z, p.z), n);
}

// Points are taken in blocks, and each step runs over the whole block before the next one begins: what one step stores
// lane by lane has left the store buffer when the next one loads it as vectors.
constexpr std::size_t BlockSize = 128;

/// Where the points of a block fall, and the records that stand there.
struct AssociatedBlock {
    std::size_t count = 0;
    alignas(64) std::int32_t entries[BlockSize];
    alignas(64) std::int32_t pixels[BlockSize];  ///< the slot behind the last one where there is none
    alignas(64) std::int32_t blocks[BlockSize];  ///< top left of the 2 x 2 block, likewise
    alignas(64) float x[BlockSize], y[BlockSize], z[BlockSize];
    alignas(64) float points[4 * BlockSize], normals[4 * BlockSize];  ///< records of the fixed image at the pixels

    HWY_INLINE ProjectedVecs moved(std::size_t i) const {
        const FloatTag d;
        ProjectedVecs p;
        p.x = hn::Load(d, x + i);
        p.y = hn::Load(d, y + i);
        p.z = hn::Load(d, z + i);
        return p;
    }
};

/// Copies record `index[i]` for every i; a record is four floats.
template <class Record>
HWY_INLINE void copy_records(const Record* records, const std::int32_t* index, std::size_t count, float* to) {
    const RecordTag d;
    for (std::size_t i = 0; i < count; ++i) hn::Store(hn::Load(d, &records[index[i]].x), d, to + 4 * i);
}

HWY_INLINE std::size_t round_up_to_lanes(std::size_t count) {
    const std::size_t lanes = hn::Lanes(FloatTag());
    return (count + lanes - 1) / lanes * lanes;
}

/// Associates the points of a range with slots, block after block.
class Associator {
public:
    Associator(const Alignment& alignment, const EntryRange& range)
        : _alignment(alignment),
          _range(range),
          _pose(alignment.movingToFixed),
          _nowhere(static_cast<std::int32_t>(alignment.fixed.slot_count())) {}

    /// The block from the k-th point of the range on. `slots_of(p, valid)` gives the mask of the lanes that look for a
    /// partner; `valid` are those of the range.
    template <class SlotsOf>
    HWY_INLINE void associate(std::size_t k, AssociatedBlock& block, const SlotsOf& slots_of) const {
        block.count = HWY_MIN(BlockSize, _range.count - k);
        const std::size_t padded = round_up_to_lanes(block.count);
        const float* moving = moving_records(k, padded, block);
        for (std::size_t i = 0; i < padded; i += hn::Lanes(FloatTag())) project_vector(i, moving, block, slots_of);
        copy_records(_alignment.fixed.points(), block.pixels, padded, block.points);
        copy_records(_alignment.fixed.normals(), block.pixels, padded, block.normals);
    }

private:
    /// Points behind the last one repeat it. Points that follow each other are read where they are; the others are
    /// collected in the block's records, which are not needed yet.
    HWY_INLINE const float* moving_records(std::size_t k, std::size_t padded, AssociatedBlock& block) const {
        for (std::size_t i = 0; i < padded; ++i) {
            block.entries[i] = static_cast<std::int32_t>(_range.first + HWY_MIN(k + i, _range.count - 1) * _range.step);
        }
        if (_range.step == 1 && padded == block.count) return &_alignment.moving[_range.first + k].x;
        copy_records(_alignment.moving, block.entries, padded, block.points);
        return block.points;
    }

    template <class SlotsOf>
    HWY_INLINE void project_vector(std::size_t i, const float* moving, AssociatedBlock& block,
                                   const SlotsOf& slots_of) const {
        const FloatTag d;
        const IntTag di;
        const SlotCamera& camera = _alignment.fixed.camera();
        const ProjectedVecs p = project(transpose(moving + 4 * i), _pose, camera);
        const SlotVecs nearest = nearest_slot(p, camera), position = block_position(p, camera);
        const FloatMask looking = slots_of(i, p, nearest, hn::FirstN(d, block.count - HWY_MIN(i, block.count)));
        const FloatMask hasBlock = hn::And(looking, position.is_above_low_edge());
        const IntVec nowhere = hn::Set(di, _nowhere);
        hn::Store(hn::IfThenElse(hn::RebindMask(di, looking), nearest.index(looking, camera), nowhere), di,
                  block.pixels + i);
        hn::Store(hn::IfThenElse(hn::RebindMask(di, hasBlock), position.index(hasBlock, camera), nowhere), di,
                  block.blocks + i);
        hn::Store(p.x, d, block.x + i);
        hn::Store(p.y, d, block.y + i);
        hn::Store(p.z, d, block.z + i);
    }

    const Alignment& _alignment;
    EntryRange _range;
    PoseVecs _pose;
    std::int32_t _nowhere;
};

/// Stores the lanes of the mask one after the other, and anything behind them. Compressing in registers: some
/// processors take ten times as long to compress into memory.
template <class Vec, class Mask, class Value>
HWY_INLINE void store_kept(Vec values, Mask kept, Value* to) {
    hn::StoreU(hn::Compress(values, kept), hn::DFromV<Vec>(), to);
}

/// Keeps the points of a block whose pixel is usable and near enough.
HWY_INLINE std::size_t keep_found(const AssociatedBlock& block, const FixedImage& fixed, float gate,
                                  const CorrespondenceArrays& found) {
    const FloatTag d;
    const IntTag di;
    alignas(64) std::int32_t usable[BlockSize];
    const std::size_t padded = round_up_to_lanes(block.count);
    for (std::size_t i = 0; i < padded; ++i) usable[i] = fixed.usable_blocks()[block.blocks[i]];

    std::size_t kept = 0;
    for (std::size_t i = 0; i < padded; i += hn::Lanes(d)) {
        const Records q = transpose(block.points + 4 * i), n = transpose(block.normals + 4 * i);
        const FloatVec distance = hn::Abs(plane_offset(block.moved(i), q, n));
        const FloatMask isFound = hn::And(hn::Gt(q.w, hn::Zero(d)), hn::Le(distance, set(gate)));
        const auto isFoundInt = hn::RebindMask(di, isFound);
        const auto inBlock = hn::Ne(hn::Load(di, usable + i), hn::Zero(di));
        const IntVec pixel = hn::Load(di, block.pixels + i);
        const CorrespondenceArrays out = found.from(kept);
        store_kept(hn::IfThenElse(inBlock, hn::Load(di, block.blocks + i), pixel), isFoundInt, out.fixedIndex);
        store_kept(hn::Load(di, block.entries + i), isFoundInt, out.movingEntry);
        store_kept(hn::IfThenElseZero(inBlock, hn::Set(di, InBlock)), isFoundInt, out.mode);
        store_kept(pixel, isFoundInt, out.pixel);
        store_kept(distance, isFound, out.distance);
        kept += hn::CountTrue(d, isFound);
    }
    return kept;
}

SearchResult find(const Alignment& alignment, const EntryRange& range, float gate, const CorrespondenceArrays& found) {
    const FloatTag d;
    const SlotCamera& camera = alignment.fixed.camera();
    const Associator associator(alignment, range);
    AssociatedBlock block;
    SearchResult result;
    const auto slots_in_view = [&](std::size_t i, const ProjectedVecs& p, const SlotVecs& nearest, FloatMask valid)
                                   HWY_ATTR {
                                       const FloatMask inView = hn::And(is_in_view(p, camera), valid);
                                       const FloatMask inMap = hn::And(inView, nearest.is_inside(camera));
                                       const FloatMask outOfMap = hn::AndNot(inMap, inView);
                                       if (!hn::AllFalse(d, outOfMap)) {
                                           if (result.outOfMap == 0)
                                               result.firstOutOfMap = block.entries[i + hn::FindFirstTrue(d, outOfMap)];
                                           result.outOfMap += hn::CountTrue(d, outOfMap);
                                       }
                                       return inMap;
                                   };
    for (std::size_t k = 0; k < range.count; k += BlockSize) {
        associator.associate(k, block, slots_in_view);
        result.found += keep_found(block, alignment.fixed, gate, found.from(result.found));
    }
    return result;
}

/// Correspondences of a block that take part, made ready to be interpolated.
struct CorrespondenceBlock {
    alignas(64) std::int32_t entries[BlockSize], index[BlockSize];  ///< any that exist where a lane is not active
    alignas(64) float active[BlockSize], interpolated[BlockSize];   ///< 1 or 0
    alignas(64) float moving[4 * BlockSize];
    alignas(64) float fx[BlockSize], fy[BlockSize];  ///< 0 where the pixel is used as it is
    alignas(64) float normals[4 * BlockSize];        ///< interpolated normal and inverse depth
};

/// Returns whether any takes part. Lanes behind the last correspondence read what happens to stand there, and none of
/// it counts.
HWY_INLINE bool choose_active(const CorrespondenceArrays& from, std::size_t count, float disCut,
                              CorrespondenceBlock& block) {
    const FloatTag d;
    const IntTag di;
    bool isAnyActive = false;
    for (std::size_t i = 0; i < count; i += hn::Lanes(d)) {
        const FloatVec distance = hn::LoadU(d, from.distance + i);
        const FloatMask active = hn::And(hn::FirstN(d, count - i), hn::And(hn::Le(distance, set(disCut)),
                                                                           hn::Ge(distance, set(CoincidentDistance))));
        const auto activeInt = hn::RebindMask(di, active);
        const auto inBlock = hn::Eq(hn::LoadU(di, from.mode + i), hn::Set(di, InBlock));
        const FloatMask interpolated = hn::And(active, hn::RebindMask(d, inBlock));
        hn::Store(hn::IfThenElseZero(activeInt, hn::LoadU(di, from.movingEntry + i)), di, block.entries + i);
        hn::Store(hn::IfThenElseZero(activeInt, hn::LoadU(di, from.fixedIndex + i)), di, block.index + i);
        hn::Store(hn::IfThenElseZero(active, set(1.0F)), d, block.active + i);
        hn::Store(hn::IfThenElseZero(interpolated, set(1.0F)), d, block.interpolated + i);
        isAnyActive = isAnyActive || !hn::AllFalse(d, active);
    }
    return isAnyActive;
}

HWY_INLINE void find_fractions(const PoseVecs& pose, const SlotCamera& camera, std::size_t padded,
                               CorrespondenceBlock& block) {
    const FloatTag d;
    for (std::size_t i = 0; i < padded; i += hn::Lanes(d)) {
        const SlotVecs position = block_position(project(transpose(block.moving + 4 * i), pose, camera), camera);
        const FloatMask interpolated = hn::Gt(hn::Load(d, block.interpolated + i), hn::Zero(d));
        hn::Store(hn::IfThenElseZero(interpolated, hn::Sub(position.x, hn::Trunc(position.x))), d, block.fx + i);
        hn::Store(hn::IfThenElseZero(interpolated, hn::Sub(position.y, hn::Trunc(position.y))), d, block.fy + i);
    }
}

/// Bilinear interpolation of normal and inverse depth. A block of one pixel is that pixel: fractions of 0 give its
/// normal as it is.
HWY_INLINE void interpolate_normals(const FixedImage& fixed, std::size_t padded, CorrespondenceBlock& block) {
    const RecordTag d;
    const std::ptrdiff_t width = fixed.camera().width;
    const auto between = [d](auto a, auto b, auto fraction)
                             HWY_ATTR { return hn::Add(a, hn::Mul(fraction, hn::Sub(b, a))); };
    for (std::size_t i = 0; i < padded; ++i) {
        const FixedImage::Normal* above = fixed.normals() + block.index[i];
        const FixedImage::Normal* below = above + width;
        const auto fractionX = hn::Set(d, block.fx[i]);
        const auto upper = between(hn::Load(d, &above[0].x), hn::Load(d, &above[1].x), fractionX);
        const auto lower = between(hn::Load(d, &below[0].x), hn::Load(d, &below[1].x), fractionX);
        hn::Store(between(upper, lower, hn::Set(d, block.fy[i])), d, block.normals + 4 * i);
    }
}

struct PlaneVecs {
    Records n;
    FloatVec offset;
};

HWY_INLINE PlaneVecs tangent_planes(const ProjectedVecs& p, const CorrespondenceBlock& block, std::size_t i,
                                    const FixedImage& fixed) {
    const FloatTag d;
    const FloatVec zero = hn::Zero(d);
    const FloatMask interpolated = hn::Gt(hn::Load(d, block.interpolated + i), zero);
    PlaneVecs plane;
    plane.n = transpose(block.normals + 4 * i);
    const FloatVec depth = hn::Div(set(1.0F), plane.n.w);
    const FloatVec norm = hn::Sqrt(dot(plane.n.x, plane.n.y, plane.n.z, plane.n));
    const FloatVec inverse = hn::IfThenElseZero(hn::Gt(norm, zero), hn::Div(set(1.0F), norm));
    const FloatVec scale = hn::IfThenElse(interpolated, inverse, set(1.0F));
    plane.n.x = hn::Mul(plane.n.x, scale);
    plane.n.y = hn::Mul(plane.n.y, scale);
    plane.n.z = hn::Mul(plane.n.z, scale);
    const FloatVec alongRay = hn::Add(hn::Add(hn::Mul(p.rayX, plane.n.x), hn::Mul(p.rayY, plane.n.y)), plane.n.z);
    plane.offset = hn::Mul(hn::Sub(depth, p.z), alongRay);

    const FloatMask atPixel = hn::AndNot(interpolated, hn::Gt(hn::Load(d, block.active + i), zero));
    if (!hn::AllFalse(d, atPixel)) {
        alignas(64) float points[4 * MaxLanes];
        copy_records(fixed.points(), block.index + i, hn::Lanes(d), points);
        plane.offset = hn::IfThenElse(atPixel, plane_offset(p, transpose(points), plane.n), plane.offset);
    }
    return plane;
}

struct RowVecs {
    FloatVec a[6];
    FloatVec r;
};

HWY_INLINE RowVecs system_rows(const ProjectedVecs& p, const PlaneVecs& plane, FloatVec weight,
                               const Vector3f& centre) {
    const FloatVec mx = hn::Sub(p.x, set(centre.x())), my = hn::Sub(p.y, set(centre.y()));
    const FloatVec mz = hn::Sub(p.z, set(centre.z()));
    const Records& n = plane.n;
    RowVecs row;
    row.a[0] = hn::Mul(weight, hn::Sub(hn::Mul(my, n.z), hn::Mul(mz, n.y)));
    row.a[1] = hn::Mul(weight, hn::Sub(hn::Mul(mz, n.x), hn::Mul(mx, n.z)));
    row.a[2] = hn::Mul(weight, hn::Sub(hn::Mul(mx, n.y), hn::Mul(my, n.x)));
    row.a[3] = hn::Mul(weight, n.x);
    row.a[4] = hn::Mul(weight, n.y);
    row.a[5] = hn::Mul(weight, n.z);
    row.r = hn::Mul(weight, plane.offset);
    return row;
}

/// The sums of `NormalEquations`, one of each lane.
class SystemSums {
public:
    using Tag = hn::Repartition<double, FloatTag>;
    using Vec = hn::Vec<Tag>;
    using HalfTag = hn::Half<FloatTag>;

    SystemSums() {
        for (Vec& term : _terms) term = hn::Zero(Tag());
    }

    HWY_INLINE void add(const RowVecs& row) {
        add_half(row, [](FloatVec v) HWY_ATTR { return hn::PromoteTo(Tag(), hn::LowerHalf(HalfTag(), v)); });
        add_half(row, [](FloatVec v) HWY_ATTR { return hn::PromoteTo(Tag(), hn::UpperHalf(HalfTag(), v)); });
    }

    void add_to(NormalEquations& system) const {
        for (int term = 0; term < NormalEquations::Terms; ++term) {
            system.terms[term] += hn::GetLane(hn::SumOfLanes(Tag(), _terms[term]));
        }
    }

private:
    // Products of two floats are exact in double: fused or not, the sum is the same.
    template <class Widen>
    HWY_INLINE void add_half(const RowVecs& row, const Widen& widen) {
        const Vec a0 = widen(row.a[0]), a1 = widen(row.a[1]), a2 = widen(row.a[2]), a3 = widen(row.a[3]);
        const Vec a4 = widen(row.a[4]), a5 = widen(row.a[5]), r = widen(row.r);
        Vec* t = _terms;
        t[0] = hn::MulAdd(a0, a0, t[0]), t[1] = hn::MulAdd(a0, a1, t[1]), t[2] = hn::MulAdd(a0, a2, t[2]);
        t[3] = hn::MulAdd(a0, a3, t[3]), t[4] = hn::MulAdd(a0, a4, t[4]), t[5] = hn::MulAdd(a0, a5, t[5]);
        t[6] = hn::MulAdd(a1, a1, t[6]), t[7] = hn::MulAdd(a1, a2, t[7]), t[8] = hn::MulAdd(a1, a3, t[8]);
        t[9] = hn::MulAdd(a1, a4, t[9]), t[10] = hn::MulAdd(a1, a5, t[10]), t[11] = hn::MulAdd(a2, a2, t[11]);
        t[12] = hn::MulAdd(a2, a3, t[12]), t[13] = hn::MulAdd(a2, a4, t[13]), t[14] = hn::MulAdd(a2, a5, t[14]);
        t[15] = hn::MulAdd(a3, a3, t[15]), t[16] = hn::MulAdd(a3, a4, t[16]), t[17] = hn::MulAdd(a3, a5, t[17]);
        t[18] = hn::MulAdd(a4, a4, t[18]), t[19] = hn::MulAdd(a4, a5, t[19]), t[20] = hn::MulAdd(a5, a5, t[20]);
        t[21] = hn::MulAdd(a0, r, t[21]), t[22] = hn::MulAdd(a1, r, t[22]), t[23] = hn::MulAdd(a2, r, t[23]);
        t[24] = hn::MulAdd(a3, r, t[24]), t[25] = hn::MulAdd(a4, r, t[25]), t[26] = hn::MulAdd(a5, r, t[26]);
    }

    Vec _terms[NormalEquations::Terms];
};

void accumulate(const Alignment& alignment, const CorrespondenceArrays& correspondences, std::size_t count,
                float disCut, NormalEquations& system) {
    const FloatTag d;
    const FixedImage& fixed = alignment.fixed;
    const PoseVecs pose(alignment.movingToFixed);
    const Vector3f centre = fixed.centre().cast<float>();
    CorrespondenceBlock block;
    SystemSums sums;
    for (std::size_t first = 0; first < count; first += BlockSize) {
        const std::size_t blockCount = HWY_MIN(BlockSize, count - first), padded = round_up_to_lanes(blockCount);
        if (!choose_active(correspondences.from(first), blockCount, disCut, block)) continue;
        copy_records(alignment.moving, block.entries, padded, block.moving);
        find_fractions(pose, fixed.camera(), padded, block);
        interpolate_normals(fixed, padded, block);
        for (std::size_t i = 0; i < padded; i += hn::Lanes(d)) {
            const Records moving = transpose(block.moving + 4 * i);
            const ProjectedVecs p = project(moving, pose, fixed.camera());
            const PlaneVecs plane = tangent_planes(p, block, i, fixed);
            const FloatMask active = hn::Gt(hn::Load(d, block.active + i), hn::Zero(d));
            const FloatMask counts = hn::And(active, hn::Le(hn::Abs(plane.offset), set(disCut)));
            RowVecs row = system_rows(p, plane, moving.w, centre);
            for (FloatVec& a : row.a) a = hn::IfThenElseZero(counts, a);
            row.r = hn::IfThenElseZero(counts, row.r);
            sums.add(row);
        }
    }
    sums.add_to(system);
}

ResidualSum residual(const Alignment& alignment, const EntryRange& range, const ResidualRule& rule, double saturation) {
    const FloatTag d;
    const SystemSums::Tag dd;
    const SystemSums::HalfTag dh;
    const SlotCamera& camera = alignment.fixed.camera();
    const Associator associator(alignment, range);
    const auto largest = hn::Set(dd, saturation), units = hn::Set(dd, _tbbfloattoint);
    const auto in_units = [&](auto distance) HWY_ATTR {
        return hn::Floor(hn::Mul(hn::Min(hn::PromoteTo(dd, distance), largest), units));
    };
    const auto slots_inside = [&](std::size_t, const ProjectedVecs& p, const SlotVecs& nearest, FloatMask valid)
                                  HWY_ATTR {
                                      const FloatMask inFront = hn::And(hn::Gt(p.z, hn::Zero(d)), valid);
                                      return hn::And(inFront, nearest.is_inside(camera, rule.border));
                                  };
    AssociatedBlock block;
    auto sum = hn::Zero(dd);
    ResidualSum result;
    for (std::size_t k = 0; k < range.count; k += BlockSize) {
        associator.associate(k, block, slots_inside);
        for (std::size_t i = 0; i < block.count; i += hn::Lanes(d)) {
            const ProjectedVecs p = block.moved(i);
            const Records q = transpose(block.points + 4 * i), n = transpose(block.normals + 4 * i);
            const FloatVec dx = hn::Sub(q.x, p.x), dy = hn::Sub(q.y, p.y), dz = hn::Sub(q.z, p.z);
            const FloatVec far = hn::Sqrt(hn::Add(hn::Add(hn::Mul(dx, dx), hn::Mul(dy, dy)), hn::Mul(dz, dz)));
            const FloatVec distance = hn::Abs(plane_offset(p, q, n));
            const FloatMask isNear =
                hn::And(hn::Le(far, set(rule.largestDistance)), hn::Le(distance, set(rule.largestOffset)));
            const FloatMask counts = hn::And(hn::Gt(q.w, hn::Zero(d)), isNear);
            const FloatVec counted = hn::IfThenElseZero(counts, distance);
            result.count += static_cast<std::int64_t>(hn::CountTrue(d, counts));
            sum = hn::Add(sum, in_units(hn::LowerHalf(dh, counted)));
            sum = hn::Add(sum, in_units(hn::UpperHalf(dh, counted)));
        }
    }
    result.sum = static_cast<std::int64_t>(hn::GetLane(hn::SumOfLanes(dd, sum)));
    return result;
}

const CorrespondenceKernels kernels{&find, &accumulate, &residual};

}  // namespace

const CorrespondenceKernels* kernels_of_target() {
    return &kernels;
}

#endif

}  // namespace HWY_NAMESPACE
}  // namespace Track
}  // namespace VexelAlgorithm
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace VexelAlgorithm {
namespace Track {

HWY_EXPORT(kernels_of_target);

const CorrespondenceKernels& best_correspondence_kernels() {
    return *HWY_DYNAMIC_DISPATCH(kernels_of_target)();
}

}  // namespace Track
}  // namespace VexelAlgorithm
#endif
