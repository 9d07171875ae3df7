// The voxel values that a worker has read lately.
#pragma once

#include <hwy/base.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace VexelAlgorithm {
namespace Fusion {

/// A brick, the voxels 4 b to 4 b + 3 along each axis, and where its 64 values are wanted, x fastest.
struct BrickRequest {
    int bx, by, bz;
    float* values;
};

/// Where the values of voxels come from.
class BrickSource {
public:
    virtual ~BrickSource() = default;
    /// Writes the values of bricks of the volume. Several together are read faster than one after the other.
    virtual void read_bricks(const BrickRequest* requests, std::size_t count) const = 0;
    /// The edge length, as a power of two of voxels, of the largest node around a voxel of the volume that is sure to
    /// read 0; 0 when it may read something.
    virtual int empty_node_bits(int x, int y, int z) const = 0;
};

/// A direct-mapped cache of bricks of 4 x 4 x 4 values, 2^AxisBits bricks along each axis, owned by one worker.
/// Samples come in neighbourhoods: a hit is one comparison and one load, where the way through the octree and the
/// leaf record takes four dependent ones and a division. Whole bricks are read at once because their leaves are
/// scattered over the memory: together they arrive in little more than the time of one.
///
/// A voxel's place is `index`: the brick's slot, then the voxel within the brick. Which brick has the slot is told by
/// two tags made of the remaining bits of the coordinates; the second one only matters in volumes of more than 2^15
/// voxels an axis. Indices are sums of one number an axis, tags exclusive ors of one number an axis.
class BrickCache {
public:
    static constexpr int BrickBits = 2;
    static constexpr int AxisBits = 3;
    static constexpr int VoxelsPerBrick = 1 << (3 * BrickBits);
    static constexpr std::size_t Size = std::size_t{1} << (3 * AxisBits);
    static constexpr int LowBits = BrickBits + AxisBits;  // of a coordinate, which the index holds
    static constexpr int TagBits = 10;                    // of a coordinate above them, in the first tag

    /// For volumes of `size` voxels an axis.
    BrickCache(const BrickSource& source, int size)
        : _source(source), _isDeep(size > (1 << (LowBits + TagBits))), _values(new float[Size * VoxelsPerBrick]) {
        for (std::size_t slot = 0; slot < Size; ++slot) _tags[slot] = _deepTags[slot] = NoBrick;
    }

    template <int Axis>
    static std::int32_t axis_index(int coordinate) {
        const int inBrick = coordinate & ((1 << BrickBits) - 1);
        const int slot = (coordinate >> BrickBits) & ((1 << AxisBits) - 1);
        return (inBrick << (Axis * BrickBits)) + (slot << (3 * BrickBits + Axis * AxisBits));
    }
    template <int Axis>
    static std::int32_t axis_tag(int coordinate) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(coordinate >> LowBits) << (Axis * TagBits));
    }
    template <int Axis>
    static std::int32_t axis_deep_tag(int coordinate) {
        return (coordinate >> (LowBits + TagBits)) << (Axis * TagBits);
    }

    /// The value of a voxel of the volume.
    HWY_INLINE float value(int x, int y, int z) {
        const std::int32_t index = axis_index<0>(x) + axis_index<1>(y) + axis_index<2>(z);
        const std::int32_t slot = index / VoxelsPerBrick;
        const std::int32_t tag = axis_tag<0>(x) ^ axis_tag<1>(y) ^ axis_tag<2>(z);
        if (!has_brick(slot, tag, x, y, z)) load(slot, x, y, z);
        return _values[index];
    }

    /// Asks for the brick of a voxel of the volume. Nothing else may be asked before `read_requested`.
    void request(int x, int y, int z) {
        const std::int32_t slot = (axis_index<0>(x) + axis_index<1>(y) + axis_index<2>(z)) / VoxelsPerBrick;
        if (has_brick(slot, axis_tag<0>(x) ^ axis_tag<1>(y) ^ axis_tag<2>(z), x, y, z)) return;
        if (_requestCount == MaxRequests) read_requested();
        // Of two requests for one slot, the later one is read later and wins.
        _requests[_requestCount++] = take_slot(slot, x, y, z);
    }
    void read_requested() {
        _source.read_bricks(_requests, _requestCount);
        _requestCount = 0;
    }

    // What vector code gathers from: tags by slot, values by index.
    bool is_deep() const { return _isDeep; }
    const std::int32_t* tags() const { return _tags; }
    const std::int32_t* deep_tags() const { return _deepTags; }
    const float* values() const { return _values.get(); }
    const BrickSource& source() const { return _source; }

private:
    // Not a tag of any brick: in shallow volumes first tags have no bit above 30, in deep ones second tags.
    static constexpr std::int32_t NoBrick = -1;

    static std::int32_t deep_tag(int x, int y, int z) {
        return axis_deep_tag<0>(x) ^ axis_deep_tag<1>(y) ^ axis_deep_tag<2>(z);
    }

    HWY_INLINE bool has_brick(std::int32_t slot, std::int32_t tag, int x, int y, int z) const {
        return _tags[slot] == tag && (!_isDeep || _deepTags[slot] == deep_tag(x, y, z));
    }

    BrickRequest take_slot(std::int32_t slot, int x, int y, int z) {
        _tags[slot] = axis_tag<0>(x) ^ axis_tag<1>(y) ^ axis_tag<2>(z);
        _deepTags[slot] = deep_tag(x, y, z);
        return {x >> BrickBits, y >> BrickBits, z >> BrickBits,
                _values.get() + static_cast<std::size_t>(slot) * VoxelsPerBrick};
    }

    // Out of line, so that hits inline.
    HWY_NOINLINE void load(std::int32_t slot, int x, int y, int z) {
        const BrickRequest request = take_slot(slot, x, y, z);
        _source.read_bricks(&request, 1);
    }

    static constexpr std::size_t MaxRequests = 64;

    const BrickSource& _source;
    bool _isDeep;
    std::int32_t _tags[Size];
    std::int32_t _deepTags[Size];
    BrickRequest _requests[MaxRequests];
    std::size_t _requestCount = 0;
    std::unique_ptr<float[]> _values;
};

}  // namespace Fusion
}  // namespace VexelAlgorithm
