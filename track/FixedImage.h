// The fixed image of a registration, prepared for many look-ups.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/PointImage.h"
#include "track/projection.h"

namespace VexelAlgorithm {
namespace Track {

/// Usable pixels of a point image as compact arrays, one entry a slot. A pixel is usable when its z is at least 1e-5,
/// the length of its normal at least 1e-5, and both are finite. Unusable pixels are zero in every array. Memory is kept
/// from one image to the next. Reading is safe from several threads.
class FixedImage {
public:
    struct alignas(16) Point {
        float x, y, z;  ///< mm
        float usable;   ///< 1, or 0 for a pixel that is not usable
    };
    struct alignas(16) Normal {
        float x, y, z;       ///< as given, not normalised
        float inverseDepth;  ///< 1 / z of the point, 1/mm
    };

    /// Empty when the image can be taken, otherwise one line that says why not: arrays that do not agree with its size,
    /// a camera without finite focal lengths other than 0, a view radial that is not finite, a side above 2^24 slots.
    static std::string fault(const PointImage& image);

    /// The image must be without fault and have normals. Throws std::bad_alloc.
    void prepare(const PointImage& image, int threads);

    const SlotCamera& camera() const { return _camera; }
    std::size_t slot_count() const { return _slotCount; }
    int usable_count() const { return _usableCount; }
    /// Mean of the usable points (mm), rounded to floats so that kernels and pose updates mean the same point; zero
    /// when there is none.
    const Vector3d& centre() const { return _centre; }

    bool is_usable(std::size_t slot) const { return _fixCloudVaildMap[slot] != 0; }
    /// Whether all of the 2 x 2 block of which this slot is the top left are usable.
    bool is_block_usable(std::size_t slot) const { return _usableBlocks[slot] != 0; }
    // All arrays may be read up to a row and two slots behind the last slot; those entries are zero.
    const std::uint8_t* usable_blocks() const { return _usableBlocks.data(); }
    const Point* points() const { return _points.data(); }
    const Normal* normals() const { return _normals.data(); }

private:
    struct ChunkSum {
        Vector3d points = Vector3d::Zero();
        int count = 0;
    };
    ChunkSum fill_slots(const PointImage& image, std::size_t begin, std::size_t end);
    void mark_usable_blocks(int threads);

    SlotCamera _camera;
    std::size_t _slotCount = 0;
    std::vector<std::uint8_t> _fixCloudVaildMap;  ///< 1 for usable pixels
    std::vector<std::uint8_t> _usableBlocks;
    std::vector<Point> _points;
    std::vector<Normal> _normals;
    std::vector<ChunkSum> _chunkSums;
    int _usableCount = 0;
    Vector3d _centre = Vector3d::Zero();
};

}  // namespace Track
}  // namespace VexelAlgorithm
