#include "platform/pointTree.h"

#include <algorithm>

namespace VexelAlgorithm {

PointTree::PointTree(const std::vector<Vector3f>& points) : _axes(points.size()) {
    _entries.reserve(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) _entries.push_back({points[i], i});
    split(0, _entries.size());
}

void PointTree::split(std::size_t begin, std::size_t end) {
    if (end - begin <= LEAF_SIZE) return;
    Vector3f low = _entries[begin].point;
    Vector3f high = low;
    for (std::size_t i = begin + 1; i < end; ++i) {
        low = low.cwiseMin(_entries[i].point);
        high = high.cwiseMax(_entries[i].point);
    }
    int axis = 0;
    (high - low).maxCoeff(&axis);

    const auto at = [&](std::size_t i) { return _entries.begin() + static_cast<std::ptrdiff_t>(i); };
    const std::size_t middle = begin + (end - begin) / 2;
    std::nth_element(at(begin), at(middle), at(end),
                     [axis](const Entry& a, const Entry& b) { return a.point[axis] < b.point[axis]; });
    _axes[middle] = static_cast<unsigned char>(axis);
    split(begin, middle);
    split(middle + 1, end);
}

}  // namespace VexelAlgorithm
