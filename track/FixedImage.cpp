#include "track/FixedImage.h"

#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"
#include "track/usableSlots.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

constexpr int LargestSide = 1 << 24;  // a float counts no farther

bool is_focal_length(double f) {
    const float narrow = static_cast<float>(f);
    return std::isfinite(narrow) && narrow != 0.0F;
}

bool is_usable_slot(const Vector3f& point, const Vector3f& normal) {
    return point.z() >= SmallestDepth && normal_length(normal) >= SmallestNormalLength && are_finite(point, normal);
}

SlotCamera slot_camera(const PointImage& image) {
    const CameraInParam& camera = image.get_camPar();
    SlotCamera slots;
    slots.fx = static_cast<float>(camera.get_fx());
    slots.fy = static_cast<float>(camera.get_fy());
    slots.cx = static_cast<float>(camera.get_cx());
    slots.cy = static_cast<float>(camera.get_cy());
    slots.radialX = image.get_viewRadialX();
    slots.radialY = image.get_viewRadialY();
    slots.width = image.get_image_width();
    slots.height = image.get_image_height();
    return slots;
}

}  // namespace

std::string FixedImage::fault(const PointImage& image) {
    if (!image.is_legal()) return "the fixed image's arrays do not agree with its size";
    const CameraInParam& camera = image.get_camPar();
    const bool isCentreFinite = std::isfinite(camera.get_cx()) && std::isfinite(camera.get_cy());
    if (!is_focal_length(camera.get_fx()) || !is_focal_length(camera.get_fy()) || !isCentreFinite) {
        return "the fixed image's camera is not usable";
    }
    if (!std::isfinite(image.get_viewRadialX()) || !std::isfinite(image.get_viewRadialY())) {
        return "the fixed image's view radial is not finite";
    }
    if (std::max(image.get_image_width(), image.get_image_height()) > LargestSide) {
        return "the fixed image is wider or higher than 16777216 pixels";
    }
    return {};
}

FixedImage::ChunkSum FixedImage::fill_slots(const PointImage& image, std::size_t begin, std::size_t end) {
    ChunkSum sum;
    for (std::size_t slot = begin; slot < end; ++slot) {
        const Vector3f& point = image.get_vCoord(slot);
        const Vector3f& normal = image.get_vNrv(slot);
        if (!is_usable_slot(point, normal)) {
            _fixCloudVaildMap[slot] = 0;
            _points[slot] = {};
            _normals[slot] = {};
            continue;
        }
        _fixCloudVaildMap[slot] = 1;
        _points[slot] = {point.x(), point.y(), point.z(), 1.0F};
        _normals[slot] = {normal.x(), normal.y(), normal.z(), 1.0F / point.z()};
        sum.points += point.cast<double>();
        ++sum.count;
    }
    return sum;
}

void FixedImage::mark_usable_blocks(int threads) {
    constexpr std::size_t RowGrain = 32;
    const std::size_t width = static_cast<std::size_t>(_camera.width);
    const std::size_t height = static_cast<std::size_t>(_camera.height);
    parallel_ranges(threads, height, RowGrain, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y) {
            const std::uint8_t* above = _fixCloudVaildMap.data() + y * width;
            const std::uint8_t* below = above + width;
            std::uint8_t* block = _usableBlocks.data() + y * width;
            for (std::size_t x = 0; x < width; ++x) {
                block[x] = static_cast<std::uint8_t>(above[x] & above[x + 1] & below[x] & below[x + 1]);
            }
            block[width - 1] = 0;
        }
    });
}

void FixedImage::prepare(const PointImage& image, int threads) {
    _camera = slot_camera(image);
    // A row and more of zeros behind the last slot lets blocks be read at any slot.
    const std::size_t slots = image.get_vn(), padded = slots + static_cast<std::size_t>(_camera.width) + 2;
    _slotCount = slots;
    _fixCloudVaildMap.resize(padded);
    _usableBlocks.resize(padded);
    _points.resize(padded);
    _normals.resize(padded);
    std::fill(_fixCloudVaildMap.begin() + static_cast<std::ptrdiff_t>(slots), _fixCloudVaildMap.end(), std::uint8_t{0});
    std::fill(_usableBlocks.begin() + static_cast<std::ptrdiff_t>(slots), _usableBlocks.end(), std::uint8_t{0});
    std::fill(_points.begin() + static_cast<std::ptrdiff_t>(slots), _points.end(), Point{});
    std::fill(_normals.begin() + static_cast<std::ptrdiff_t>(slots), _normals.end(), Normal{});

    const std::size_t chunks = chunk_count(slots, SlotChunk);
    _chunkSums.assign(chunks, {});
    parallel_ranges(threads, chunks, 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t chunk = begin; chunk < end; ++chunk) {
            _chunkSums[chunk] = fill_slots(image, chunk * SlotChunk, std::min(slots, (chunk + 1) * SlotChunk));
        }
    });
    mark_usable_blocks(threads);

    ChunkSum total;
    for (const ChunkSum& sum : _chunkSums) {
        total.points += sum.points;
        total.count += sum.count;
    }
    _usableCount = total.count;
    _centre.setZero();
    if (total.count > 0) _centre = (total.points / total.count).cast<float>().cast<double>();
}

}  // namespace Track
}  // namespace VexelAlgorithm
