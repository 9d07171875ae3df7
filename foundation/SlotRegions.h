// Connected regions of image slots.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "foundation/parallel.h"

namespace VexelAlgorithm {

/// Labels the connected regions of the slots of an image (row by row, fewer than 2^31) by runs and union-find:
/// Rosenfeld and Pfaltz, "Sequential operations in digital picture processing", 1966; path halving of Tarjan and van
/// Leeuwen, 1984. Bands of rows are labelled on their own, in parallel, and then joined. Callers only see which slots
/// are in one region, so results do not depend on the number of bands or threads.
///
/// Use: `label`; where wanted `flatten` and then `unite`; `merge`; `size_of`.
class SlotRegions {
public:
    static constexpr std::int32_t None = -1;

    struct Band {
        int top = 0;
        int bottom = 0;               ///< one past the last row
        std::int32_t firstLabel = 0;  ///< the number of the band's first slot; its labels follow each other
        std::int32_t endLabel = 0;
        std::vector<std::pair<std::int32_t, std::int32_t>> seam;  ///< slots linked to slots of earlier bands
    };

    SlotRegions(int width, int height, int threads)
        : _width(static_cast<std::size_t>(width)),
          _threads(threads),
          _labels(new std::int32_t[slots_of_rows(height)]),
          _parents(new std::int32_t[slots_of_rows(height)]),
          _sizes(new std::int32_t[slots_of_rows(height)]),
          _bands(static_cast<std::size_t>(threads > 1 ? std::clamp(height / MinBandRows, 1, 4 * threads) : 1)) {
        const std::size_t count = _bands.size();
        for (std::size_t b = 0; b < count; ++b) {
            _bands[b].top = static_cast<int>(static_cast<std::size_t>(height) * b / count);
            _bands[b].bottom = static_cast<int>(static_cast<std::size_t>(height) * (b + 1) / count);
        }
    }

    /// Makes the regions of the slots with `links.exists(slot)` that are joined by `links.left(slot, x)` and
    /// `links.above(slot, y)`: the existing slot before this one in its row or column to which it is linked, or None.
    /// Calls come from several threads. Regions made before are forgotten.
    template <class Links>
    void label(const Links& links) {
        for_bands([&](Band& band) {
            band.firstLabel = band.endLabel = static_cast<std::int32_t>(slots_of_rows(band.top));
            band.seam.clear();
            for (int y = band.top; y < band.bottom; ++y) {
                label_runs(y, band, links);
                join_upwards(y, band, links);
            }
            merge_labels(band.firstLabel, band.endLabel);
        });
    }

    /// Gives the slots of each region within a band one label.
    void flatten() {
        for_bands([&](const Band& band) {
            const std::size_t end = slots_of_rows(band.bottom);
            for (std::size_t slot = slots_of_rows(band.top); slot < end; ++slot)
                if (_labels[slot] != None) _labels[slot] = _parents[_labels[slot]];
        });
    }

    /// Joins the regions of two labels. Threads may do so at the same time for labels of different bands.
    void unite(std::int32_t label, std::int32_t other) {
        label = find(label);
        other = find(other);
        _parents[std::max(label, other)] = std::min(label, other);
    }

    void merge() {
        for (const Band& band : _bands)
            for (const auto& [slot, before] : band.seam) unite(_labels[slot], _labels[before]);
        for (const Band& band : _bands) merge_labels(band.firstLabel, band.endLabel);
    }

    template <class Body>
    void for_bands(const Body& body) {
        parallel_ranges(_threads, _bands.size(), 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t b = begin; b < end; ++b) body(_bands[b]);
        });
    }
    const std::vector<Band>& bands() const { return _bands; }

    /// Slots with one label are in one region; None: not in a region.
    std::int32_t label_of(std::size_t slot) const { return _labels[slot]; }
    /// Compares the regions of two labels by size within the band, then by label. After `flatten`, before `unite`.
    bool is_larger(std::int32_t label, std::int32_t other) const {
        return _sizes[label] != _sizes[other] ? _sizes[label] > _sizes[other] : label < other;
    }
    /// After `merge`: the number of slots in the region of a slot that exists.
    std::int32_t size_of(std::size_t slot) const { return _sizes[_parents[_labels[slot]]]; }

private:
    static constexpr int MinBandRows = 64;

    std::size_t slots_of_rows(int rows) const { return _width * static_cast<std::size_t>(rows); }

    std::int32_t find(std::int32_t label) {
        while (_parents[label] != label) label = _parents[label] = _parents[_parents[label]];
        return label;
    }

    template <class Links>
    void label_runs(int y, Band& band, const Links& links) {
        const std::size_t row = slots_of_rows(y);
        for (std::size_t x = 0; x < _width; ++x) {
            const std::size_t slot = row + x;
            if (!links.exists(slot)) {
                _labels[slot] = None;
                continue;
            }
            const std::int32_t left = links.left(slot, static_cast<int>(x));
            std::int32_t label;
            if (left == None) {
                label = band.endLabel++;
                _parents[label] = label;
                _sizes[label] = 0;
            } else {
                label = _labels[left];
            }
            _labels[slot] = label;
            ++_sizes[label];
        }
    }

    template <class Links>
    void join_upwards(int y, Band& band, const Links& links) {
        const std::size_t row = slots_of_rows(y);
        std::int32_t joined = None;
        std::int32_t joinedAbove = None;
        for (std::size_t slot = row; slot < row + _width; ++slot) {
            const std::int32_t label = _labels[slot];
            if (label == None) continue;
            const std::int32_t above = links.above(slot, y);
            if (above == None) continue;
            if (above < band.firstLabel) {
                band.seam.emplace_back(static_cast<std::int32_t>(slot), above);
            } else if (label != joined || _labels[above] != joinedAbove) {
                joined = label;
                joinedAbove = _labels[above];
                unite(joined, joinedAbove);
            }
        }
    }

    /// Lets labels point at the smallest label of their region, which gets the size of all. Parents are smaller, so
    /// they are done first.
    void merge_labels(std::int32_t first, std::int32_t end) {
        for (std::int32_t label = first; label < end; ++label) {
            const std::int32_t root = _parents[_parents[label]];
            _parents[label] = root;
            if (root == label) continue;
            _sizes[root] += _sizes[label];
            _sizes[label] = 0;
        }
    }

    std::size_t _width;
    int _threads;
    std::unique_ptr<std::int32_t[]> _labels;   ///< by slot
    std::unique_ptr<std::int32_t[]> _parents;  ///< by label
    std::unique_ptr<std::int32_t[]> _sizes;    ///< by label
    std::vector<Band> _bands;
};

}  // namespace VexelAlgorithm
