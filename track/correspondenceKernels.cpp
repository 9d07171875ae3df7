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

// One lane a point. Records of four floats are loaded lane by lane and transposed in registers, which costs a third of
// what gather instructions do. Every operation and its grouping is that of the plain form.

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

/// Loads record `index[lane]` for every lane; a record is four floats.
template <class Record>
HWY_INLINE Records load_records(const Record* records, const std::int32_t* index) {
    const RecordTag d;
    alignas(64) float buffer[4 * MaxLanes];
    for (std::size_t lane = 0; lane < hn::Lanes(FloatTag()); ++lane) {
        hn::Store(hn::Load(d, &records[index[lane]].x), d, buffer + 4 * lane);
    }
    return transpose(buffer);
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

/// The points of a range, one vector after the other.
class EntryReader {
public:
    EntryReader(const MovingPoint* points, const EntryRange& range) : _points(points), _range(range) {}

    /// Lanes at and behind `last` repeat the last point.
    HWY_INLINE Records load(std::size_t k, std::int32_t* entries) const {
        const std::size_t lanes = hn::Lanes(FloatTag());
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            const std::size_t step = HWY_MIN(k + lane, _range.count - 1);
            entries[lane] = static_cast<std::int32_t>(_range.first + step * _range.step);
        }
        if (_range.step == 1 && k + lanes <= _range.count) return transpose(&_points[_range.first + k].x);
        return load_records(_points, entries);
    }

private:
    const MovingPoint* _points;
    EntryRange _range;
};

/// Which lanes' blocks, given by their top left, are usable throughout.
HWY_INLINE FloatMask are_blocks_usable(const FixedImage& fixed, const std::int32_t* block) {
    const IntTag di;
    alignas(64) std::int32_t usable[MaxLanes];
    for (std::size_t lane = 0; lane < hn::Lanes(di); ++lane) usable[lane] = fixed.usable_blocks()[block[lane]];
    return hn::RebindMask(FloatTag(), hn::Ne(hn::Load(di, usable), hn::Zero(di)));
}

/// Stores the lanes of the mask one after the other, and anything behind them. Compressing in registers: some
/// processors take ten times as long to compress into memory.
template <class Vec, class Mask, class Value>
HWY_INLINE void store_kept(Vec values, Mask kept, Value* to) {
    hn::StoreU(hn::Compress(values, kept), hn::DFromV<Vec>(), to);
}

SearchResult find(const Alignment& alignment, const EntryRange& range, float gate, const CorrespondenceArrays& found) {
    const FloatTag d;
    const IntTag di;
    const std::size_t lanes = hn::Lanes(d);
    const FixedImage& fixed = alignment.fixed;
    const SlotCamera& camera = fixed.camera();
    const PoseVecs pose(alignment.movingToFixed);
    const EntryReader reader(alignment.moving, range);
    alignas(64) std::int32_t entries[MaxLanes], pixels[MaxLanes], blocks[MaxLanes];
    SearchResult result;

    for (std::size_t k = 0; k < range.count; k += lanes) {
        const ProjectedVecs p = project(reader.load(k, entries), pose, camera);
        const FloatMask inView = hn::And(is_in_view(p, camera), hn::FirstN(d, range.count - k));
        const SlotVecs nearest = nearest_slot(p, camera);
        const FloatMask inMap = hn::And(inView, nearest.is_inside(camera));
        const FloatMask outOfMap = hn::AndNot(inMap, inView);
        if (!hn::AllFalse(d, outOfMap)) {
            if (result.outOfMap == 0) result.firstOutOfMap = entries[hn::FindFirstTrue(d, outOfMap)];
            result.outOfMap += hn::CountTrue(d, outOfMap);
        }
        if (hn::AllFalse(d, inMap)) continue;

        const IntVec pixel = nearest.index(inMap, camera);
        hn::Store(pixel, di, pixels);
        const Records q = load_records(fixed.points(), pixels);
        const Records n = load_records(fixed.normals(), pixels);
        const FloatVec distance = hn::Abs(plane_offset(p, q, n));
        const FloatMask isUsable = hn::And(inMap, hn::Gt(q.w, hn::Zero(d)));
        const FloatMask isFound = hn::And(isUsable, hn::Le(distance, set(gate)));
        if (hn::AllFalse(d, isFound)) continue;

        const SlotVecs position = block_position(p, camera);
        const FloatMask hasBlock = hn::And(isFound, position.is_above_low_edge());
        const IntVec block = position.index(hasBlock, camera);
        hn::Store(block, di, blocks);
        const FloatMask inBlock = hn::And(hasBlock, are_blocks_usable(fixed, blocks));

        const auto isFoundInt = hn::RebindMask(di, isFound), inBlockInt = hn::RebindMask(di, inBlock);
        const CorrespondenceArrays out = found.from(result.found);
        store_kept(hn::IfThenElse(inBlockInt, block, pixel), isFoundInt, out.fixedIndex);
        store_kept(hn::Load(di, entries), isFoundInt, out.movingEntry);
        store_kept(hn::IfThenElseZero(inBlockInt, hn::Set(di, InBlock)), isFoundInt, out.mode);
        store_kept(pixel, isFoundInt, out.pixel);
        store_kept(distance, isFound, out.distance);
        result.found += hn::CountTrue(d, isFound);
    }
    return result;
}

/// Bilinear interpolation of normal and inverse depth in the block at `index[lane]`.
HWY_INLINE Records interpolate_blocks(const FixedImage& fixed, const std::int32_t* index, const float* fx,
                                      const float* fy) {
    const RecordTag d;
    const std::ptrdiff_t width = fixed.camera().width;
    const auto between = [d](auto a, auto b, auto fraction)
                             HWY_ATTR { return hn::Add(a, hn::Mul(fraction, hn::Sub(b, a))); };
    alignas(64) float buffer[4 * MaxLanes];
    for (std::size_t lane = 0; lane < hn::Lanes(FloatTag()); ++lane) {
        const FixedImage::Normal* above = fixed.normals() + index[lane];
        const FixedImage::Normal* below = above + width;
        const auto fractionX = hn::Set(d, fx[lane]);
        const auto upper = between(hn::Load(d, &above[0].x), hn::Load(d, &above[1].x), fractionX);
        const auto lower = between(hn::Load(d, &below[0].x), hn::Load(d, &below[1].x), fractionX);
        hn::Store(between(upper, lower, hn::Set(d, fy[lane])), d, buffer + 4 * lane);
    }
    return transpose(buffer);
}

struct PlaneVecs {
    Records n;
    FloatVec offset;
};

/// A block of one pixel is that pixel: fractions of 0 give its normal as it is.
HWY_INLINE PlaneVecs tangent_planes(const ProjectedVecs& p, FloatMask active, FloatMask inBlock,
                                    const std::int32_t* index, const FixedImage& fixed) {
    const FloatTag d;
    const FloatMask interpolated = hn::And(active, inBlock);
    const SlotVecs block = block_position(p, fixed.camera());
    alignas(64) float fx[MaxLanes], fy[MaxLanes];
    hn::Store(hn::IfThenElseZero(interpolated, hn::Sub(block.x, hn::Trunc(block.x))), d, fx);
    hn::Store(hn::IfThenElseZero(interpolated, hn::Sub(block.y, hn::Trunc(block.y))), d, fy);

    PlaneVecs plane;
    plane.n = interpolate_blocks(fixed, index, fx, fy);
    const FloatVec depth = hn::Div(set(1.0F), plane.n.w);
    const FloatVec norm = hn::Sqrt(dot(plane.n.x, plane.n.y, plane.n.z, plane.n));
    const FloatVec inverse = hn::IfThenElseZero(hn::Gt(norm, hn::Zero(d)), hn::Div(set(1.0F), norm));
    const FloatVec scale = hn::IfThenElse(interpolated, inverse, set(1.0F));
    plane.n.x = hn::Mul(plane.n.x, scale);
    plane.n.y = hn::Mul(plane.n.y, scale);
    plane.n.z = hn::Mul(plane.n.z, scale);
    const FloatVec alongRay = hn::Add(hn::Add(hn::Mul(p.rayX, plane.n.x), hn::Mul(p.rayY, plane.n.y)), plane.n.z);
    plane.offset = hn::Mul(hn::Sub(depth, p.z), alongRay);

    const FloatMask atPixel = hn::AndNot(inBlock, active);
    if (!hn::AllFalse(d, atPixel)) {
        const Records q = load_records(fixed.points(), index);
        plane.offset = hn::IfThenElse(atPixel, plane_offset(p, q, plane.n), plane.offset);
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
    const IntTag di;
    const std::size_t lanes = hn::Lanes(d);
    const PoseVecs pose(alignment.movingToFixed);
    const Vector3f centre = alignment.fixed.centre().cast<float>();
    alignas(64) std::int32_t entries[MaxLanes], index[MaxLanes];
    SystemSums sums;

    for (std::size_t i = 0; i < count; i += lanes) {
        // Lanes behind the last correspondence read what happens to stand there, and none of it counts.
        const CorrespondenceArrays at = correspondences.from(i);
        const FloatVec distance = hn::LoadU(d, at.distance);
        const FloatMask active = hn::And(hn::FirstN(d, count - i), hn::And(hn::Le(distance, set(disCut)),
                                                                           hn::Ge(distance, set(CoincidentDistance))));
        if (hn::AllFalse(d, active)) continue;
        const auto activeInt = hn::RebindMask(di, active);
        hn::Store(hn::IfThenElseZero(activeInt, hn::LoadU(di, at.movingEntry)), di, entries);
        hn::Store(hn::IfThenElseZero(activeInt, hn::LoadU(di, at.fixedIndex)), di, index);
        const FloatMask inBlock = hn::RebindMask(d, hn::Eq(hn::LoadU(di, at.mode), hn::Set(di, InBlock)));

        const Records moving = load_records(alignment.moving, entries);
        const ProjectedVecs p = project(moving, pose, alignment.fixed.camera());
        const PlaneVecs plane = tangent_planes(p, active, inBlock, index, alignment.fixed);
        RowVecs row = system_rows(p, plane, moving.w, centre);
        const FloatMask counts = hn::And(active, hn::Le(hn::Abs(plane.offset), set(disCut)));
        for (FloatVec& a : row.a) a = hn::IfThenElseZero(counts, a);
        row.r = hn::IfThenElseZero(counts, row.r);
        sums.add(row);
    }
    sums.add_to(system);
}

ResidualSum residual(const Alignment& alignment, const EntryRange& range, const ResidualRule& rule, double saturation) {
    const FloatTag d;
    const IntTag di;
    const SystemSums::Tag dd;
    const SystemSums::HalfTag dh;
    const std::size_t lanes = hn::Lanes(d);
    const FixedImage& fixed = alignment.fixed;
    const SlotCamera& camera = fixed.camera();
    const PoseVecs pose(alignment.movingToFixed);
    const EntryReader reader(alignment.moving, range);
    const auto largest = hn::Set(dd, saturation), units = hn::Set(dd, _tbbfloattoint);
    const auto in_units = [&](auto distance) HWY_ATTR {
        return hn::Floor(hn::Mul(hn::Min(hn::PromoteTo(dd, distance), largest), units));
    };
    alignas(64) std::int32_t entries[MaxLanes], pixels[MaxLanes];
    auto sum = hn::Zero(dd);
    ResidualSum result;

    for (std::size_t k = 0; k < range.count; k += lanes) {
        const ProjectedVecs p = project(reader.load(k, entries), pose, camera);
        const SlotVecs nearest = nearest_slot(p, camera);
        const FloatMask inFront = hn::And(hn::Gt(p.z, hn::Zero(d)), hn::FirstN(d, range.count - k));
        const FloatMask inside = hn::And(inFront, nearest.is_inside(camera, rule.border));
        if (hn::AllFalse(d, inside)) continue;

        hn::Store(nearest.index(inside, camera), di, pixels);
        const Records q = load_records(fixed.points(), pixels);
        const Records n = load_records(fixed.normals(), pixels);
        const FloatVec dx = hn::Sub(q.x, p.x), dy = hn::Sub(q.y, p.y), dz = hn::Sub(q.z, p.z);
        const FloatVec far = hn::Sqrt(hn::Add(hn::Add(hn::Mul(dx, dx), hn::Mul(dy, dy)), hn::Mul(dz, dz)));
        const FloatVec distance = hn::Abs(plane_offset(p, q, n));
        const FloatMask isNear =
            hn::And(hn::Le(far, set(rule.largestDistance)), hn::Le(distance, set(rule.largestOffset)));
        const FloatMask counts = hn::And(hn::And(inside, hn::Gt(q.w, hn::Zero(d))), isNear);
        const FloatVec counted = hn::IfThenElseZero(counts, distance);
        result.count += static_cast<std::int64_t>(hn::CountTrue(d, counts));
        sum = hn::Add(sum, in_units(hn::LowerHalf(dh, counted)));
        sum = hn::Add(sum, in_units(hn::UpperHalf(dh, counted)));
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
