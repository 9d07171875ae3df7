// The colours of a model, beside its volume.
#pragma once

#include <hwy/cache_control.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/RigidMatrix.h"
#include "fusion/FusionTsdf.h"
#include "fusion/OctetCache.h"
#include "fusion/PagedArray.h"
#include "fusion/leafFile.h"

namespace VexelAlgorithm {

/// A running weighted mean of colours. The weight is a fixed-point number that stops at 255.996, so that colours follow
/// in the long run when the light changes.
struct LeafColor {
    std::uint16_t rgb[3] = {};  ///< in steps of 1 / 65535
    std::uint16_t weight = 0;   ///< in steps of 1 / 256; 0: no colour

    Vector3f value() const;
    /// As project files have it: colour and weight, all exactly those of the record.
    void put_into(Fusion::LeafRecord& record) const;
    /// Whatever the record has: no colour, or one in [0, 1].
    static LeafColor from(const Fusion::LeafRecord& record);
};
static_assert(sizeof(LeafColor) == 8, "the memory of colours is counted in these records");

/// A colour for each leaf of the session's volume by its id, held from the first coloured frame on. Colours belong to
/// the voxels around the surface, and are read by interpolation between them.
///
/// Thread-safety: reading alone may overlap reading. With any number of threads each voxel gets the same colour.
class LeafColors {
public:
    using Volume = Fusion::FusionTsdf<Fusion::LeafTSDFSpeckle>;

    /// A measured point with colour, as voxels around it need it.
    struct ColoredSlot {
        Vector4f plane;  ///< times (x, y, z, 1): distance (mm) from the point's plane
        Vector4f color;  ///< and weight; 0: no point with colour
    };

    /// Whether nothing has been coloured.
    bool is_empty() const { return _colors == nullptr; }
    LeafColor get(std::int32_t leaf) const {
        return !is_empty() && leaf < _colors->size() ? (*_colors)[leaf] : LeafColor();
    }
    /// The colours of the eight leaves 8 octet + code; null when none of these has ever had one.
    const LeafColor* octet(std::int32_t octet) const {
        return !is_empty() && 8 * octet < _colors->size() ? &(*_colors)[8 * octet] : nullptr;
    }
    /// Asks the memory for what `octet` points at.
    void prefetch(std::int32_t octet) const {
        if (const LeafColor* const colors = this->octet(octet)) hwy::Prefetch(colors);
    }
    void set(std::int32_t leaf, const LeafColor& color);
    /// To a leaf without colour.
    void move(std::int32_t from, std::int32_t to);
    void forget(std::int32_t leaf) {
        if (!is_empty() && leaf < _colors->size()) (*_colors)[leaf] = LeafColor();
    }
    void clear();

    // For project files (fusion/leafFile.h).
    void put_into(Fusion::LeafRecord& record, std::int32_t leaf) const { get(leaf).put_into(record); }
    void take(std::int32_t leaf, const Fusion::LeafRecord& record);

    /// Gives the colours of a frame in camera coordinates, just integrated at `pose`, to the used voxels within two
    /// voxels of its points: each the colour, between pixels, at which it is seen, with the weight |z| of the normal
    /// there. Weights below 1e-5 and colours whose channels are all below 1e-6 do not count, nor what is not finite; a
    /// frame without any colour costs the search for one.
    void blend_frame(const Volume& volume, const PointImage& frame, const RigidMatrix& pose);

private:
    using Colors = VexelOctree::PagedArray<LeafColor, 17>;

    void make_room(const Volume& volume);
    void gather_slots(const PointImage& frame, int threads);
    void mark_octets(const Volume& volume, const PointImage& frame, const RigidMatrix& pose);

    std::unique_ptr<Colors> _colors;
    std::unique_ptr<std::atomic<std::uint64_t>[]> _marks;  // a bit an octet; all zero between frames
    std::size_t _markWords = 0;
    std::vector<ColoredSlot> _slots;  // of the frame at work
};

/// Reads colours at places of the surface. One object a worker.
class LeafColorSampler {
public:
    /// `without`: for places around which no voxel has a colour.
    LeafColorSampler(const LeafColors& colors, const LeafColors::Volume& volume, const Vector3f& without)
        : _colors(colors), _tree(volume.get_fusion_tree()), _without(without) {}

    /// The colour at a point (mm, model coordinates), trilinear between those of the eight nearest voxels that have
    /// one.
    Vector3f at(const Vector3f& point);

private:
    void find_around(int neighbour);

    const LeafColors& _colors;
    const LeafColors::Volume::Octree& _tree;
    Vector3f _without;
    Fusion::OctetCache _octets;
    // The octet of the last point, whose neighbours may be those of the next one.
    Vector3i _unit = Vector3i::Constant(-1);  // its coordinates, in octets
    const LeafColor* _around[8] = {};         // its colours and those of its upper neighbours; null: not looked for
};

}  // namespace VexelAlgorithm
