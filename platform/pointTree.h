// Nearest points in space. Internal to the library.
#pragma once

#include <array>
#include <cstddef>
#include <limits>
#include <vector>

#include "foundation/types.h"

namespace VexelAlgorithm {

/// A balanced k-d tree over a fixed set of finite points (Bentley, "Multidimensional binary search trees used for
/// associative searching", CACM 18, 1975), split at the median of the widest axis. Queries may run at once.
class PointTree {
public:
    PointTree() = default;
    explicit PointTree(const std::vector<Vector3f>& points);

    static constexpr std::size_t NONE = std::numeric_limits<std::size_t>::max();

    /// Index of the point nearest to `query` and closer than `reach`; `NONE` when there is none.
    std::size_t nearest(const Vector3f& query, float reach) const {
        Nearest search{query, reach * reach, NONE};
        descend(0, _entries.size(), search);
        return search.index;
    }

    /// Calls `visit(index, squaredDistance)` for every point closer than `radius`, in an order that depends on the
    /// points alone.
    template <class Visit>
    void for_each_within(const Vector3f& query, float radius, Visit&& visit) const {
        Within<Visit> search{query, radius * radius, visit};
        descend(0, _entries.size(), search);
    }

private:
    struct Entry {
        Vector3f point;
        std::size_t index;
    };

    struct Nearest {
        Vector3f query;
        float reachSquared;
        std::size_t index;

        void meet(const Entry& entry, float distanceSquared) {
            reachSquared = distanceSquared;
            index = entry.index;
        }
    };

    template <class Visit>
    struct Within {
        Vector3f query;
        float reachSquared;
        Visit& visit;

        void meet(const Entry& entry, float distanceSquared) { visit(entry.index, distanceSquared); }
    };

    static constexpr std::size_t LEAF_SIZE = 8;

    void split(std::size_t begin, std::size_t end);

    /// The half of the query first, so that a search for the nearest narrows early.
    template <class Search>
    void descend(std::size_t begin, std::size_t end, Search& search) const {
        if (end - begin <= LEAF_SIZE) {
            for (std::size_t i = begin; i < end; ++i) meet(_entries[i], search);
            return;
        }
        const std::size_t middle = begin + (end - begin) / 2;
        const int axis = _axes[middle];
        const float offset = search.query[axis] - _entries[middle].point[axis];
        if (offset < 0.0F) {
            descend(begin, middle, search);
            if (offset * offset >= search.reachSquared) return;
            meet(_entries[middle], search);
            descend(middle + 1, end, search);
        } else {
            descend(middle + 1, end, search);
            if (offset * offset >= search.reachSquared) return;
            meet(_entries[middle], search);
            descend(begin, middle, search);
        }
    }

    template <class Search>
    static void meet(const Entry& entry, Search& search) {
        const float distanceSquared = (entry.point - search.query).squaredNorm();
        if (distanceSquared < search.reachSquared) search.meet(entry, distanceSquared);
    }

    std::vector<Entry> _entries;       // the root of a range of entries is its middle one
    std::vector<unsigned char> _axes;  // along which the range with this middle is split
};

}  // namespace VexelAlgorithm
