#include "fusiontrackoperation/LeafColors.h"

#include <hwy/base.h>

#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

using Volume = LeafColors::Volume;
using Tree = Volume::Octree;

constexpr float COLOR_STEPS = 65535.0F;
constexpr float WEIGHT_STEPS = 256.0F;
constexpr float MOST_WEIGHT = 65535.0F;  // steps
constexpr float MIN_WEIGHT = 1e-5F;
constexpr float MIN_CHANNEL = 1e-6F;
/// A voxel takes the colour of surface that is at most so many voxels away.
constexpr float REACH = 2.0F;
constexpr float MIN_SHARE = 1e-4F;  // of the neighbours in an interpolation
constexpr std::int32_t OCTET = 8;
constexpr std::size_t MIN_SLOTS_PER_TASK = std::size_t{1} << 13;  // a worker starts with an empty cache
constexpr std::size_t WORDS_PER_TASK = 16;

std::uint16_t in_steps(float value, float steps) {
    return static_cast<std::uint16_t>(std::min(value * steps + 0.5F, 65535.0F));
}

bool is_color(const Vector3f& color) {
    return color.allFinite() && color.maxCoeff() >= MIN_CHANNEL;
}

bool is_weight(float w) {
    return w >= MIN_WEIGHT && std::isfinite(w);
}

/// The frame that gives colours, as voxels see it.
class ColoredFrame {
public:
    ColoredFrame(const PointImage& frame, const RigidMatrix& pose, float reach)
        : _frame(frame),
          _toCamera(pose.inverse()),
          _turn(_toCamera.get_rotation().cast<float>()),
          _offset(_toCamera.get_translation().cast<float>()),
          _focal(static_cast<float>(frame.get_camPar().get_fx()), static_cast<float>(frame.get_camPar().get_fy())),
          _centre(static_cast<float>(frame.get_camPar().get_cx()) - frame.get_viewRadialX(),
                  static_cast<float>(frame.get_camPar().get_cy()) - frame.get_viewRadialY()),
          _reach(reach) {}

    bool has_color(std::size_t slot) const {
        return is_color(_frame.get_vColor(slot)) && _frame.has_point(slot) &&
               is_weight(std::abs(_frame.get_vNrv(slot).z()));
    }
    /// What the slots around the place where a voxel is seen say of it: the mean of those that see surface near it.
    void color(const Vector3f& centre_M, LeafColor& color) const {
        const Vector3f centre_C = _turn * centre_M + _offset;
        if (!(centre_C.z() > 0.0F)) return;
        const Vector2f pixel = centre_C.head<2>().cwiseProduct(_focal) / centre_C.z() + _centre;
        const bool isInside = pixel.x() > -1.0F && pixel.y() > -1.0F &&
                              pixel.x() < static_cast<float>(_frame.get_image_width()) &&
                              pixel.y() < static_cast<float>(_frame.get_image_height());
        if (!isInside) return;
        const int x = static_cast<int>(pixel.x() + 1.0F) - 1, y = static_cast<int>(pixel.y() + 1.0F) - 1;
        const float fx = pixel.x() - static_cast<float>(x), fy = pixel.y() - static_cast<float>(y);
        Vector3f sum = Vector3f::Zero();
        float shares = 0.0F, weights = 0.0F;
        for (int code = 0; code < 4; ++code) {
            const int column = x + (code & 1), row = y + (code >> 1);
            const float share = ((code & 1) != 0 ? fx : 1.0F - fx) * ((code >> 1) != 0 ? fy : 1.0F - fy);
            if (share < MIN_SHARE || !is_slot(column, row)) continue;
            const std::size_t slot = _frame.index_of(column, row);
            if (!has_color(slot) || !is_near(slot, centre_C)) continue;
            sum += share * _frame.get_vColor(slot);
            weights += share * std::abs(_frame.get_vNrv(slot).z());
            shares += share;
        }
        if (shares > 0.0F) color.blend(sum / shares, weights / shares);
    }

private:
    bool is_slot(int x, int y) const {
        return x >= 0 && y >= 0 && x < _frame.get_image_width() && y < _frame.get_image_height();
    }
    bool is_near(std::size_t slot, const Vector3f& centre_C) const {
        return std::abs((centre_C - _frame.get_vCoord(slot)).dot(_frame.get_vNrv(slot))) < _reach;
    }

    const PointImage& _frame;
    RigidMatrix _toCamera;
    Matrix3f _turn;
    Vector3f _offset;
    Vector2f _focal, _centre;
    float _reach;  // mm
};

bool has_colors(const PointImage& frame) {
    if (!frame.is_enable_vColor()) return false;
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (is_color(frame.get_vColor(i))) return true;
    }
    return false;
}

}  // namespace

// ---- one colour -------------------------------------------------------------------------------------

void LeafColor::blend(const Vector3f& color, float w) {
    if (!is_weight(w) || !is_color(color)) return;
    // The least step, so that no colour that counts is lost.
    const float added = std::max(1.0F, std::min(std::round(w * WEIGHT_STEPS), MOST_WEIGHT));
    const float sum = static_cast<float>(weight) + added;
    for (int i = 0; i < 3; ++i) {
        const float old = static_cast<float>(rgb[i]);
        const float channel = COLOR_STEPS * std::min(std::max(color[i], 0.0F), 1.0F);
        rgb[i] = static_cast<std::uint16_t>(std::min(old + (channel - old) * (added / sum) + 0.5F, COLOR_STEPS));
    }
    weight = static_cast<std::uint16_t>(std::min(sum, MOST_WEIGHT));
}

Vector3f LeafColor::value() const {
    return Vector3f(static_cast<float>(rgb[0]), static_cast<float>(rgb[1]), static_cast<float>(rgb[2])) / COLOR_STEPS;
}

void LeafColor::put_into(Fusion::LeafRecord& record) const {
    if (weight == 0) return;
    const Vector3f color = value();
    for (int i = 0; i < 3; ++i) record.color[i] = color[i];
    record.colorWeight = static_cast<float>(weight) / WEIGHT_STEPS;
}

LeafColor LeafColor::from(const Fusion::LeafRecord& record) {
    LeafColor color;
    const Vector3f given(record.color[0], record.color[1], record.color[2]);
    if (!(record.colorWeight > 0.0F) || !std::isfinite(record.colorWeight) || !given.allFinite()) return color;
    color.weight = in_steps(record.colorWeight, WEIGHT_STEPS);
    if (color.weight == 0) return color;
    for (int i = 0; i < 3; ++i) color.rgb[i] = in_steps(std::min(std::max(given[i], 0.0F), 1.0F), COLOR_STEPS);
    return color;
}

// ---- those of a volume ------------------------------------------------------------------------------

void LeafColors::set(std::int32_t leaf, const LeafColor& color) {
    if (is_empty()) _colors = std::make_unique<Colors>();
    _colors->grow_to(leaf);
    (*_colors)[leaf] = color;
}

void LeafColors::move(std::int32_t from, std::int32_t to) {
    const LeafColor color = get(from);
    if (color.weight == 0) return;
    set(to, color);
    forget(from);
}

void LeafColors::take(std::int32_t leaf, const Fusion::LeafRecord& record) {
    const LeafColor color = LeafColor::from(record);
    if (color.weight != 0) set(leaf, color);
}

void LeafColors::clear() {
    _colors.reset();
    _marks.reset();
    _markWords = 0;
}

void LeafColors::make_room(const Volume& volume) {
    const std::int32_t leaves = volume.get_vaild_leaf_num();
    if (is_empty()) _colors = std::make_unique<Colors>();
    if (leaves > 0) _colors->grow_to(leaves - 1);
    const std::size_t words = static_cast<std::size_t>(leaves / (64 * OCTET)) + 1;
    if (words <= _markWords) return;
    const std::size_t room = words + words / 2;
    _marks.reset(new std::atomic<std::uint64_t>[room]);
    for (std::size_t i = 0; i < room; ++i) _marks[i].store(0, std::memory_order_relaxed);
    _markWords = room;
}

/// Marks the octets of the eight voxels around each coloured point.
void LeafColors::mark_octets(const Volume& volume, const PointImage& frame, const RigidMatrix& pose) {
    const Tree& tree = volume.get_fusion_tree();
    const float perMillimetre = 1.0F / tree.get_pointDis(), end = static_cast<float>(tree.get_size() - 1);
    const Matrix3f turn = (pose.get_rotation() * static_cast<double>(perMillimetre)).cast<float>();
    const Vector3f offset =
        ((pose.get_translation() - tree.get_shift().cast<double>()) * static_cast<double>(perMillimetre))
            .cast<float>() -
        Vector3f::Constant(0.5F);
    const ColoredFrame colored(frame, pose, 0.0F);
    const auto mark = [&](std::int32_t octet) {
        std::atomic<std::uint64_t>& word = _marks[static_cast<std::size_t>(octet / 64)];
        const std::uint64_t bit = std::uint64_t{1} << (octet % 64);
        if ((word.load(std::memory_order_relaxed) & bit) == 0) word.fetch_or(bit, std::memory_order_relaxed);
    };
    const int threads = volume.get_code_Num();
    const std::size_t grain =
        std::max(MIN_SLOTS_PER_TASK, frame.get_vn() / (4 * static_cast<std::size_t>(usable_threads(threads))));
    parallel_ranges(threads, frame.get_vn(), grain, [&](std::size_t begin, std::size_t stop) {
        Fusion::OctetCache octets;
        Vector3i lowDone = Vector3i::Constant(-1), highDone = lowDone;
        for (std::size_t i = begin; i < stop; ++i) {
            if (!colored.has_color(i)) continue;
            const Vector3f q = turn * frame.get_vCoord(i) + offset;
            if (!(q.minCoeff() >= 0.0F) || !(q.maxCoeff() < end)) continue;
            const Vector3i voxel = q.cast<int>();
            const Vector3i low = voxel / 2, high = (voxel + Vector3i::Ones()) / 2;
            if (low == lowDone && high == highDone) continue;
            lowDone = low, highDone = high;
            for (int z = low.z(); z <= high.z(); ++z) {
                for (int y = low.y(); y <= high.y(); ++y) {
                    for (int x = low.x(); x <= high.x(); ++x) {
                        const std::int32_t leaf = octets.find(tree, 2 * x, 2 * y, 2 * z);
                        if (leaf >= 0) mark(leaf / OCTET);
                    }
                }
            }
        }
    });
}

void LeafColors::blend_frame(const Volume& volume, const PointImage& frame, const RigidMatrix& pose) {
    if (!has_colors(frame)) return;
    make_room(volume);
    mark_octets(volume, frame, pose);
    const Tree& tree = volume.get_fusion_tree();
    const ColoredFrame colored(frame, pose, REACH * tree.get_pointDis());
    const auto color_octet = [&](std::int32_t octet) {
        const std::int32_t first = OCTET * octet;
        const Vector3i low = tree.leaf_coordinates(first);
        for (std::int32_t code = 0; code < OCTET; ++code) {
            if (!tree.leaf_at(first + code).is_used()) continue;
            const Vector3i voxel = low + Vector3i(code & 1, code >> 1 & 1, code >> 2);
            colored.color(tree.voxel_to_world(voxel), (*_colors)[first + code]);
        }
    };
    parallel_ranges(volume.get_code_Num(), _markWords, WORDS_PER_TASK, [&](std::size_t begin, std::size_t end) {
        for (std::size_t word = begin; word < end; ++word) {
            std::uint64_t bits = _marks[word].load(std::memory_order_relaxed);
            _marks[word].store(0, std::memory_order_relaxed);
            for (; bits != 0; bits &= bits - 1) {
                color_octet(static_cast<std::int32_t>(64 * word + hwy::Num0BitsBelowLS1Bit_Nonzero64(bits)));
            }
        }
    });
}

// ---- reading ----------------------------------------------------------------------------------------

Vector3f LeafColorSampler::at(const Vector3f& point) {
    const Vector3f q = (point - _tree.get_shift()) / _tree.get_pointDis() - Vector3f::Constant(0.5F);
    if (!(q.minCoeff() >= 0.0F) || !(q.maxCoeff() < static_cast<float>(_tree.get_size() - 1))) return _without;
    const Vector3i low = q.cast<int>();
    const Vector3f f = q - low.cast<float>();
    Vector3f sum = Vector3f::Zero();
    float shares = 0.0F;
    for (int code = 0; code < 8; ++code) {
        const Vector3i corner(code & 1, code >> 1 & 1, code >> 2);
        float share = 1.0F;
        for (int axis = 0; axis < 3; ++axis) share *= corner[axis] != 0 ? f[axis] : 1.0F - f[axis];
        if (share < MIN_SHARE) continue;
        const Vector3i voxel = low + corner;
        const std::int32_t leaf = _octets.find(_tree, voxel.x(), voxel.y(), voxel.z());
        if (leaf < 0) continue;
        const LeafColor color = _colors.get(leaf);
        if (color.weight == 0) continue;
        sum += share * color.value();
        shares += share;
    }
    return shares > 0.0F ? Vector3f(sum / shares) : _without;
}

}  // namespace VexelAlgorithm
