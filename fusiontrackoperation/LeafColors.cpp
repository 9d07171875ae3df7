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
/// A voxel that lies at most so many voxels off the model's surface takes the colour of points at most so far away.
/// Voxels farther off have next to no share in the interpolated colours of the surface.
constexpr float LEAF_REACH = 1.25F;
constexpr float REACH = 2.0F;
constexpr float FAR_AWAY = 1e30F;   // mm
constexpr float MIN_SHARE = 1e-4F;  // of the neighbours in an interpolation
constexpr std::int32_t OCTET = 8;
constexpr std::size_t MIN_SLOTS_PER_TASK = std::size_t{1} << 13;  // a worker starts with an empty cache
constexpr std::size_t WORDS_PER_TASK = 16;

using ColoredSlot = LeafColors::ColoredSlot;

Vector3i octet_corner(int code) {
    return {code & 1, code >> 1 & 1, code >> 2};
}

std::uint16_t in_steps(float value, float steps) {
    return static_cast<std::uint16_t>(std::min(value * steps + 0.5F, 65535.0F));
}

bool is_color(const Vector3f& color) {
    return color.allFinite() && color.maxCoeff() >= MIN_CHANNEL;
}

bool is_weight(float w) {
    return w >= MIN_WEIGHT && std::isfinite(w);
}

/// Weight and colour count.
inline void blend_into(LeafColor& mean, const Vector3f& color, float w) {
    // The least step, so that no colour that counts is lost.
    const float added = std::max(1.0F, std::floor(std::min(w * WEIGHT_STEPS + 0.5F, MOST_WEIGHT)));
    const float sum = static_cast<float>(mean.weight) + added;
    const float share = added / sum;
    for (int i = 0; i < 3; ++i) {
        const float old = static_cast<float>(mean.rgb[i]);
        const float channel = COLOR_STEPS * std::min(std::max(color[i], 0.0F), 1.0F);
        mean.rgb[i] = static_cast<std::uint16_t>(std::min(old + (channel - old) * share + 0.5F, COLOR_STEPS));
    }
    mean.weight = static_cast<std::uint16_t>(std::min(sum, MOST_WEIGHT));
}

/// The frame that gives colours, as voxels see it.
class ColoredFrame {
public:
    ColoredFrame(const PointImage& frame, const std::vector<ColoredSlot>& slots, const RigidMatrix& pose,
                 const Tree& tree)
        : _slots(slots.data()),
          _width(frame.get_image_width()),
          _lastColumn(static_cast<float>(frame.get_image_width() - 1)),
          _lastRow(static_cast<float>(frame.get_image_height() - 1)),
          _focal(static_cast<float>(frame.get_camPar().get_fx()), static_cast<float>(frame.get_camPar().get_fy())),
          _centre(static_cast<float>(frame.get_camPar().get_cx()) - frame.get_viewRadialX(),
                  static_cast<float>(frame.get_camPar().get_cy()) - frame.get_viewRadialY()),
          _reach(REACH * tree.get_pointDis()),
          _leafReach(LEAF_REACH * tree.get_pointDis()) {
        const RigidMatrix toCamera = pose.inverse();
        _turn = toCamera.get_rotation().cast<float>();
        _offset = toCamera.get_translation().cast<float>();
        for (int code = 0; code < OCTET; ++code) {
            _steps[code] = tree.get_pointDis() * (_turn * octet_corner(code).cast<float>());
        }
    }

    /// Colours the leaves of an octet that hold something near the surface; `first_M` is the centre of its first voxel.
    void color_octet(const Vector3f& first_M, const Fusion::LeafTSDFSpeckle* leaves, LeafColor* colors) const {
        const Vector3f first_C = _turn * first_M + _offset;
        for (int code = 0; code < OCTET; ++code) {
            const Fusion::LeafTSDFSpeckle& leaf = leaves[code];
            if (leaf.is_used() && std::abs(leaf.tsdfSum) <= _leafReach * leaf.weightSum) {
                color(first_C + _steps[code], colors[code]);
            }
        }
    }

private:
    /// What the slots around the place where a voxel is seen say of it: the mean of those that see surface near it.
    void color(const Vector3f& centre_C, LeafColor& color) const {
        if (!(centre_C.z() > 0.0F)) return;
        const float perDepth = 1.0F / centre_C.z();
        const float u = centre_C.x() * perDepth * _focal.x() + _centre.x();
        const float v = centre_C.y() * perDepth * _focal.y() + _centre.y();
        if (!(u >= 0.0F && v >= 0.0F && u < _lastColumn && v < _lastRow)) return;
        const int x = static_cast<int>(u), y = static_cast<int>(v);
        const float fx = u - static_cast<float>(x), fy = v - static_cast<float>(y);
        const ColoredSlot* const slot = _slots + static_cast<std::ptrdiff_t>(y) * _width + x;
        const Vector4f place(centre_C.x(), centre_C.y(), centre_C.z(), 1.0F);
        Vector4f sum = Vector4f::Zero();
        float shares = 0.0F;
        const auto add = [&](const ColoredSlot& seen, float share) {
            // Slots without colour have weight 0 and count as far.
            const float counts = std::abs(seen.plane.dot(place)) < _reach ? share : 0.0F;
            sum += counts * seen.color;
            shares += counts;
        };
        add(slot[0], (1.0F - fx) * (1.0F - fy));
        add(slot[1], fx * (1.0F - fy));
        add(slot[_width], (1.0F - fx) * fy);
        add(slot[_width + 1], fx * fy);
        if (!(shares > MIN_SHARE)) return;
        sum *= 1.0F / shares;
        blend_into(color, sum.head<3>(), sum[3]);
    }

    const ColoredSlot* _slots;
    std::ptrdiff_t _width;
    float _lastColumn, _lastRow;
    Vector2f _focal, _centre;
    float _reach, _leafReach;  // mm
    Matrix3f _turn;
    Vector3f _offset;
    Vector3f _steps[OCTET];  // from the first voxel's centre
};

/// Asks the memory for all that `color_octet` needs of the volume.
void prefetch_octet(const Tree& tree, std::int32_t octet) {
    const auto* const leaves = reinterpret_cast<const char*>(&tree.leaf_at(OCTET * octet));
    for (std::size_t at = 0; at < OCTET * sizeof(Fusion::LeafTSDFSpeckle); at += 64) hwy::Prefetch(leaves + at);
    hwy::Prefetch(&tree.unit_coordinates()[octet]);
}

bool has_colors(const PointImage& frame) {
    if (!frame.is_enable_vColor()) return false;
    for (std::size_t i = 0; i < frame.get_vn(); ++i) {
        if (is_color(frame.get_vColor(i))) return true;
    }
    return false;
}

}  // namespace

// ---- one colour -------------------------------------------------------------------------------------

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
    _slots = {};
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

/// What voxels need of the slots, side by side.
void LeafColors::gather_slots(const PointImage& frame, int threads) {
    _slots.resize(frame.get_vn());
    parallel_ranges(threads, frame.get_vn(), MIN_SLOTS_PER_TASK, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Vector3f &color = frame.get_vColor(i), &normal = frame.get_vNrv(i);
            const float weight = std::abs(normal.z());
            if (is_color(color) && is_weight(weight) && frame.has_point(i)) {
                const float offset = normal.dot(frame.get_vCoord(i));
                _slots[i] = {{normal.x(), normal.y(), normal.z(), -offset}, {color.x(), color.y(), color.z(), weight}};
            } else {
                _slots[i] = {{0.0F, 0.0F, 0.0F, FAR_AWAY}, Vector4f::Zero()};
            }
        }
    });
}

/// Marks the octets of the eight voxels around each coloured point.
void LeafColors::mark_octets(const Volume& volume, const PointImage& frame, const RigidMatrix& pose) {
    const Tree& tree = volume.get_fusion_tree();
    const double perMillimetre = 1.0 / static_cast<double>(tree.get_pointDis());
    const Matrix3f turn = (perMillimetre * pose.get_rotation()).cast<float>();
    const Vector3f offset =
        (perMillimetre * (pose.get_translation() - tree.get_shift().cast<double>()) - Vector3d::Constant(0.5))
            .cast<float>();
    const float end = static_cast<float>(tree.get_size() - 1);
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
            if (_slots[i].color[3] == 0.0F) continue;
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
    gather_slots(frame, volume.get_code_Num());
    mark_octets(volume, frame, pose);
    const Tree& tree = volume.get_fusion_tree();
    const ColoredFrame colored(frame, _slots, pose, tree);
    parallel_ranges(volume.get_code_Num(), _markWords, WORDS_PER_TASK, [&](std::size_t begin, std::size_t end) {
        for (std::size_t word = begin; word < end; ++word) {
            const std::uint64_t marked = _marks[word].load(std::memory_order_relaxed);
            _marks[word].store(0, std::memory_order_relaxed);
            const auto for_each_octet = [&](const auto& visit) {
                for (std::uint64_t bits = marked; bits != 0; bits &= bits - 1) {
                    visit(static_cast<std::int32_t>(64 * word + hwy::Num0BitsBelowLS1Bit_Nonzero64(bits)));
                }
            };
            for_each_octet([&](std::int32_t octet) {
                prefetch_octet(tree, octet);
                prefetch(octet);
            });
            for_each_octet([&](std::int32_t octet) {
                const std::int32_t first = OCTET * octet;
                colored.color_octet(tree.voxel_to_world(tree.leaf_coordinates(first)), &tree.leaf_at(first),
                                    &(*_colors)[first]);
            });
        }
    });
}

// ---- reading ----------------------------------------------------------------------------------------

void LeafColorSampler::find_around(int neighbour) {
    static constexpr LeafColor NO_COLORS[OCTET] = {};
    const Vector3i voxel = 2 * (_unit + octet_corner(neighbour));
    const std::int32_t leaf = _octets.find(_tree, voxel.x(), voxel.y(), voxel.z());
    const LeafColor* const colors = leaf < 0 ? nullptr : _colors.octet(leaf / OCTET);
    _around[neighbour] = colors != nullptr ? colors : NO_COLORS;
}

Vector3f LeafColorSampler::at(const Vector3f& point) {
    const Vector3f q = (point - _tree.get_shift()) / _tree.get_pointDis() - Vector3f::Constant(0.5F);
    if (!(q.minCoeff() >= 0.0F) || !(q.maxCoeff() < static_cast<float>(_tree.get_size() - 1))) return _without;
    const Vector3i low = q.cast<int>();
    const Vector3f f = q - low.cast<float>();
    if (low / 2 != _unit) {
        _unit = low / 2;
        for (const LeafColor*& around : _around) around = nullptr;
    }
    // Where the lower voxel is an odd one, its neighbour lies in the next octet.
    const int odd = (low.x() & 1) + 2 * (low.y() & 1) + 4 * (low.z() & 1);
    const float share[3][2] = {{1.0F - f.x(), f.x()}, {1.0F - f.y(), f.y()}, {1.0F - f.z(), f.z()}};
    Vector3f sum = Vector3f::Zero();
    float shares = 0.0F;
    for (int code = 0; code < OCTET; ++code) {
        const int neighbour = code & odd;
        if (_around[neighbour] == nullptr) find_around(neighbour);
        const LeafColor& color = _around[neighbour][code ^ odd];
        const float all = share[0][code & 1] * share[1][code >> 1 & 1] * share[2][code >> 2];
        const float counts = color.weight != 0 ? all : 0.0F;
        for (int i = 0; i < 3; ++i) sum[i] += counts * static_cast<float>(color.rgb[i]);
        shares += counts;
    }
    return shares > MIN_SHARE ? Vector3f(sum / (shares * COLOR_STEPS)) : _without;
}

}  // namespace VexelAlgorithm
