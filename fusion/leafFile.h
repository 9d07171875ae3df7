// The leaves of the real-time volume as a byte stream; docs/project-format.md describes the form.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <vector>

#include "foundation/archive.h"
#include "fusion/LeafTSDFSpeckle.h"
#include "fusion/Octree.h"
#include "fusion/blockStream.h"

namespace VexelAlgorithm {
namespace Fusion {

/// One leaf in a file. The order of the fields is that of the bytes; never to be changed.
struct LeafRecord {
    std::int16_t state = 0;
    std::uint8_t changed = 0;
    std::uint8_t reserved = 0;
    std::int32_t contributions = 0;
    float tsdfSum = 0.0F;
    float weightSum = 0.0F;
    float color[3] = {};       ///< RGB in [0, 1]; of those who keep colours beside the volume
    float colorWeight = 0.0F;  ///< 0: no colour
    std::uint8_t spare[8] = {};
};
static_assert(sizeof(LeafRecord) == 40, "files hold 40 bytes a leaf");

inline LeafRecord to_record(const LeafTSDFSpeckle& leaf) {
    LeafRecord record;
    record.state = leaf.state;
    record.changed = leaf.changed;
    record.contributions = leaf.contributions;
    record.tsdfSum = leaf.tsdfSum;
    record.weightSum = leaf.weightSum;
    return record;
}

/// No scan comes near it, and it leaves room for as many again before the count overflows.
inline constexpr std::int32_t MaxContributions = std::int32_t{1} << 30;

/// The leaf, marked unchanged. False when the record is none of a used leaf.
inline bool from_record(const LeafRecord& record, LeafTSDFSpeckle& leaf) {
    leaf = LeafTSDFSpeckle();
    leaf.state = record.state;
    leaf.contributions = record.contributions;
    leaf.tsdfSum = record.tsdfSum;
    leaf.weightSum = record.weightSum;
    return leaf.is_used() && leaf.contributions >= 0 && leaf.contributions <= MaxContributions &&
           std::isfinite(leaf.tsdfSum) && std::isfinite(leaf.weightSum) && leaf.weightSum >= 0.0F;
}

namespace leaf_file {

using Tree = VexelOctree::Octree<LeafTSDFSpeckle>;

/// Writes `make(leaf id, leaf)` for each used leaf in the order of their ids.
template <class Item, class Make>
bool write_of_used(std::ofstream& out, const Tree& tree, const Make& make) {
    VexelOctree::BlockWriter<Item> writer(out);
    const std::int32_t count = tree.get_vaild_leaf_num();
    for (std::int32_t id = 0; id < count; ++id) {
        const LeafTSDFSpeckle& leaf = tree.leaf_at(id);
        if (leaf.is_used() && !writer.push(make(id, leaf))) return false;
    }
    return writer.flush();
}

inline bool are_ascending_below(const std::vector<std::int32_t>& ids, std::int32_t end) {
    std::int32_t previous = -1;
    for (const std::int32_t id : ids) {
        if (id <= previous || id >= end) return false;
        previous = id;
    }
    return true;
}

/// Records i = 0 ... into the leaves i. False when the stream ends; `areSound` tells whether all are used leaves.
template <class Colors>
bool read_records(std::ifstream& in, std::int32_t count, Tree& tree, Colors& colors, bool& areSound) {
    const auto take = [&](std::int32_t first, const LeafRecord* records, std::int32_t size) {
        for (std::int32_t i = 0; i < size; ++i) {
            areSound &= from_record(records[i], tree.leaf_at(first + i));
            colors.take(first + i, records[i]);
        }
        return areSound;
    };
    return VexelOctree::read_blocks<LeafRecord>(in, count, take);
}

/// Moves the leaves 0, 1, ... to their ids. These ascend, so that from the last one on every place is free.
template <class Colors>
void scatter(const std::vector<std::int32_t>& ids, Tree& tree, Colors& colors) {
    for (std::size_t i = ids.size(); i-- > 0;) {
        const auto from = static_cast<std::int32_t>(i);
        if (ids[i] == from) return;  // then all before it are in place
        tree.leaf_at(ids[i]) = tree.leaf_at(from);
        tree.leaf_at(from).reset();
        colors.move(from, ids[i]);
    }
}

}  // namespace leaf_file

/// The number of leaves that have been touched.
inline std::int32_t count_used_leaves(const leaf_file::Tree& tree) {
    std::int32_t used = 0;
    const std::int32_t count = tree.get_vaild_leaf_num();
    for (std::int32_t id = 0; id < count; ++id) used += tree.leaf_at(id).is_used() ? 1 : 0;
    return used;
}

/// Writes the records of the used leaves, then their ids as int32, both in ascending order of the ids.
/// `colors.put_into(record, id)` adds what is known of a leaf's colour. Nobody may change the volume meanwhile.
template <class Colors>
bool save_used_leaves(const leaf_file::Tree& tree, const Colors& colors, std::ofstream& out) {
    using namespace leaf_file;
    const auto recordOf = [&](std::int32_t id, const LeafTSDFSpeckle& leaf) {
        LeafRecord record = to_record(leaf);
        colors.put_into(record, id);
        return record;
    };
    return write_of_used<LeafRecord>(out, tree, recordOf) &&
           write_of_used<std::int32_t>(out, tree, [](std::int32_t id, const LeafTSDFSpeckle&) { return id; });
}

enum class LeavesRead {
    Whole,
    Ended,         ///< the stream ended or failed
    DamagedLeaf,   ///< a record that no used leaf can have
    DamagedOrder,  ///< ids that do not ascend or are not of this volume
};

/// Reads `used` records and ids into a volume that has its trees and no used leaf; `used` is at most the number of its
/// leaf slots. Colours go by `colors.take(leaf, record)`, and to their ids by `colors.move(from, to)`. Takes the volume
/// for itself; after a failure it has to be cleared.
template <class Colors>
LeavesRead read_used_leaves(std::ifstream& in, std::int32_t used, leaf_file::Tree& tree, Colors& colors) {
    bool areSound = true;
    if (!leaf_file::read_records(in, used, tree, colors, areSound)) return LeavesRead::Ended;
    if (!areSound) return LeavesRead::DamagedLeaf;
    std::vector<std::int32_t> ids;
    ids.reserve(static_cast<std::size_t>(used));  // ten times as many bytes have come already
    if (!Archive::read_array(in, static_cast<std::uint64_t>(used), ids)) return LeavesRead::Ended;
    if (!leaf_file::are_ascending_below(ids, tree.get_vaild_leaf_num())) return LeavesRead::DamagedOrder;
    leaf_file::scatter(ids, tree, colors);
    return LeavesRead::Whole;
}

}  // namespace Fusion
}  // namespace VexelAlgorithm
