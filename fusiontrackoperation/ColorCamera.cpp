#include "fusiontrackoperation/ColorCamera.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "foundation/diagnostics.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t SLOTS_PER_TASK = std::size_t{1} << 14;
constexpr float NOTHING = std::numeric_limits<float>::infinity();
constexpr float CELL_IN_POINTS = 2.0F;
constexpr float MAX_CELL_SIZE = 64.0F;  // pixels
/// Surface may fall away so far, in distances of neighbouring points, within a cell.
constexpr float DEPTH_TOLERANCE_IN_POINTS = 10.0F;

void keep_least(std::atomic<float>& least, float value) {
    float old = least.load(std::memory_order_relaxed);
    while (value < old && !least.compare_exchange_weak(old, value, std::memory_order_relaxed)) {
    }
}

/// The image at a place at which all four pixels around it are usable, RGB in [0, 1].
Vector3f bilinear(const ColorImage& image, const Vector2i& last, float u, float v) {
    const int x = static_cast<int>(u), y = static_cast<int>(v);
    const float fx = u - static_cast<float>(x), fy = v - static_cast<float>(y);
    const std::size_t right = x < last.x() ? 3 : 0, below = y < last.y() ? image.row_stride() : 0;
    const std::uint8_t* const pixel =
        image.bytes.data() + static_cast<std::size_t>(y) * image.row_stride() + 3 * static_cast<std::size_t>(x);
    const auto channel = [&](std::size_t c) {
        const auto at = [&](std::size_t offset) { return static_cast<float>(pixel[offset + c]); };
        const float upper = at(0) + fx * (at(right) - at(0)), lower = at(below) + fx * (at(below + right) - at(below));
        return (upper + fy * (lower - upper)) / 255.0F;
    };
    return image.order == ColorOrder::Rgb ? Vector3f(channel(0), channel(1), channel(2))
                                          : Vector3f(channel(2), channel(1), channel(0));
}

}  // namespace

ColorCamera::ColorCamera(const FusionParameter& fusion)
    : _size(fusion.colorImageSize),
      _low(fusion.colorImageRange.head<2>().cwiseMax(0)),
      _high(fusion.colorImageRange.tail<2>().cwiseMin(_size).cwiseMax(0) - Vector2i::Ones()),
      _matrix(fusion.colorImagePar),
      _leftToColor(fusion.tranLeftToColor) {}

std::optional<std::string> ColorCamera::find_unusable(const ColorImage& image) const {
    if (!is_there()) return "the session has no colour camera";
    if (!image.is_legal()) return "width, height and bytes of the colour image do not fit";
    if (image.width != _size.x() || image.height != _size.y()) {
        return format_text("the colour image has %d x %d pixels and the session's colour camera %d x %d", image.width,
                           image.height, _size.x(), _size.y());
    }
    if (!_matrix.allFinite() || !(_matrix(0, 0) > 0.0) || !(_matrix(1, 1) > 0.0) || !_leftToColor.is_finite()) {
        return "the session's colour camera is not usable";
    }
    return std::nullopt;
}

// Also refuses what is not a number.
ColorCamera::Sight ColorCamera::see(const Vector3f& uvw) const {
    const float u = uvw.x() / uvw.z(), v = uvw.y() / uvw.z();
    const bool isSeen = uvw.z() > 0.0F && u >= static_cast<float>(_low.x()) && v >= static_cast<float>(_low.y()) &&
                        u <= static_cast<float>(_high.x()) && v <= static_cast<float>(_high.y());
    return isSeen ? Sight{u, v, uvw.z()} : Sight{0.0F, 0.0F, 0.0F};
}

void ColorCamera::find_sights(const PointImage& frame, int threads) {
    // Points that were moved by the frame's pose go back on the way.
    const RigidMatrix toColor = _leftToColor * frame.get_rt().inverse();
    Matrix3d matrix = _matrix;
    matrix.row(2) = Vector3d(0.0, 0.0, 1.0);  // u and v times the depth, and the depth
    const Matrix3f turn = (matrix * toColor.get_rotation()).cast<float>();
    const Vector3f offset = (matrix * toColor.get_translation()).cast<float>();
    _sights.resize(frame.get_vn());
    parallel_ranges(threads, frame.get_vn(), SLOTS_PER_TASK, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            _sights[i] = frame.has_point(i) ? see(turn * frame.get_vCoord(i) + offset) : Sight{0.0F, 0.0F, 0.0F};
        }
    });
}

std::size_t ColorCamera::cell_of(const Sight& sight) const {
    const int x = static_cast<int>(sight.u / _cellSize), y = static_cast<int>(sight.v / _cellSize);
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(_cellsInRow) + static_cast<std::size_t>(x);
}

void ColorCamera::find_front(int threads) {
    const Vector2f last = _high.cwiseMax(0).cast<float>();
    _cellsInRow = static_cast<int>(last.x() / _cellSize) + 1;
    _cellCount = cell_of({last.x(), last.y(), 0.0F}) + 1;
    if (_cellCount > _cellCapacity) {
        _front.reset(new std::atomic<float>[_cellCount]);
        _cellCapacity = _cellCount;
    }
    for (std::size_t i = 0; i < _cellCount; ++i) _front[i].store(NOTHING, std::memory_order_relaxed);
    parallel_ranges(threads, _sights.size(), SLOTS_PER_TASK, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            if (_sights[i].depth > 0.0F) keep_least(_front[cell_of(_sights[i])], _sights[i].depth);
        }
    });
}

bool ColorCamera::is_hidden(const Sight& sight, float tolerance) const {
    return sight.depth > (1.0F + tolerance) * _front[cell_of(sight)].load(std::memory_order_relaxed);
}

void ColorCamera::color_frame(const ColorImage& image, PointImage& frame, int threads) {
    frame.enable_vColor();
    find_sights(frame, threads);
    // Neighbouring points stand so many mm apart for each mm of depth.
    const auto spacing = static_cast<float>(1.0 / frame.get_camPar().get_fx());
    _cellSize = std::ceil(CELL_IN_POINTS * static_cast<float>(_matrix(0, 0)) * spacing);
    if (!(_cellSize <= MAX_CELL_SIZE)) _cellSize = MAX_CELL_SIZE;
    _cellSize = std::max(_cellSize, 1.0F);
    find_front(threads);
    const float tolerance = DEPTH_TOLERANCE_IN_POINTS * spacing;
    parallel_ranges(threads, frame.get_vn(), SLOTS_PER_TASK, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const Sight& sight = _sights[i];
            const bool hasColor = sight.depth > 0.0F && !is_hidden(sight, tolerance);
            frame.set_vColor(i, hasColor ? bilinear(image, _high, sight.u, sight.v) : Vector3f::Zero().eval());
        }
    });
}

}  // namespace VexelAlgorithm
