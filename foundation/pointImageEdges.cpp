#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/SlotRegions.h"
#include "foundation/parallel.h"
#include "foundation/slotDepths.h"

namespace VexelAlgorithm {
namespace {

constexpr std::size_t RowsPerTask = 32;

/// How the slots of a row or of a column follow each other in memory, and how many there are.
struct Line {
    std::size_t stride;
    int length;
};

class EdgeFinder {
public:
    /// `depths` (NaN: no point) is worked on in place.
    EdgeFinder(float* depths, int width, int height, int window, float depthJump, int countLimit, int threads)
        : _depths(depths),
          _width(width),
          _height(height),
          _row{1, width},
          _column{static_cast<std::size_t>(width), height},
          _window(std::clamp(window, 1, std::max({width, height, 1}))),
          _depthJump(depthJump),
          _countLimit(countLimit),
          _threads(threads),
          _links(_column.stride * static_cast<std::size_t>(height), 0),
          _edges(_links.size(), 0),
          _scratch(_links.size(), 0),
          _regions(width, height, threads) {}

    void find() {
        link_points();
        drop_small_pieces();
        mark_large_gaps();
        dilate(1);
        mark_jumps();
        dilate(_window - 1);
    }

    /// Whether the slot holds a point of a small piece, or one with an edge in its window.
    bool is_edge(std::size_t slot) const {
        return _links[slot] == SmallPiece || (_edges[slot] != 0 && !is_empty(slot));
    }

private:
    enum Link : std::uint8_t { LinkedInRow = 1, LinkedInColumn = 2, SmallPiece = 4 };

    struct PieceLinks {
        const EdgeFinder& finder;

        bool exists(std::size_t slot) const { return !finder.is_empty(slot); }
        std::int32_t left(std::size_t slot, int x) const { return before(slot, x, finder._row, LinkedInRow); }
        std::int32_t above(std::size_t slot, int y) const { return before(slot, y, finder._column, LinkedInColumn); }

    private:
        std::int32_t before(std::size_t slot, int position, const Line& line, Link link) const {
            if ((finder._links[slot] & link) == 0) return SlotRegions::None;
            return static_cast<std::int32_t>(slot - line.stride * finder.steps_back(slot, position, line));
        }
    };

    struct GapLinks {
        const EdgeFinder& finder;

        bool exists(std::size_t slot) const { return finder.is_empty(slot); }
        std::int32_t left(std::size_t slot, int x) const { return x > 0 ? gap(slot - 1) : SlotRegions::None; }
        std::int32_t above(std::size_t slot, int y) const {
            return y > 0 ? gap(slot - finder._column.stride) : SlotRegions::None;
        }

    private:
        std::int32_t gap(std::size_t slot) const {
            return exists(slot) ? static_cast<std::int32_t>(slot) : SlotRegions::None;
        }
    };

    void link_points() {
        for_row_ranges([this](std::size_t begin, std::size_t end) {
            for_points(begin, end, [this](std::size_t slot, int x, int y) {
                const int row = is_linked(slot, x, _row) ? LinkedInRow : 0;
                const int column = is_linked(slot, y, _column) ? LinkedInColumn : 0;
                _links[slot] = static_cast<std::uint8_t>(row | column);
            });
        });
    }

    void drop_small_pieces() {
        _regions.label(PieceLinks{*this});
        _regions.merge();
        for_slots([this](std::size_t slot) {
            if (is_empty(slot) || _regions.size_of(slot) >= _countLimit) return;
            _links[slot] = SmallPiece;
            _depths[slot] = std::numeric_limits<float>::quiet_NaN();
        });
    }

    void mark_large_gaps() {
        _regions.label(GapLinks{*this});
        _regions.merge();
        for_slots([this](std::size_t slot) {
            _edges[slot] = is_empty(slot) && _regions.size_of(slot) >= _countLimit ? 1 : 0;
        });
    }

    /// A point that is linked to the one before has no jump there, because both are in one piece.
    void mark_jumps() {
        std::vector<std::size_t> sidesBefore;  // in rows that other threads may be at work on
        std::mutex sidesMutex;
        for_row_ranges([&](std::size_t begin, std::size_t end) {
            std::vector<std::size_t> sides;
            for_points(begin, end, [&](std::size_t slot, int x, int y) {
                if (_links[slot] == (LinkedInRow | LinkedInColumn)) return;
                for (const std::size_t before :
                     {jump_before(slot, x, _row, LinkedInRow), jump_before(slot, y, _column, LinkedInColumn)}) {
                    if (before == slot) continue;
                    _edges[slot] = 1;
                    sides.push_back(before);
                }
            });
            const std::lock_guard<std::mutex> lock(sidesMutex);
            sidesBefore.insert(sidesBefore.end(), sides.begin(), sides.end());
        });
        for (const std::size_t slot : sidesBefore) _edges[slot] = 1;
    }

    // ---- neighbours along a line ----------------------------------------------------------------------

    bool is_empty(std::size_t slot) const { return std::isnan(_depths[slot]); }

    /// Steps to the next point before the slot; 0 when there is none.
    int steps_back(std::size_t slot, int position, const Line& line) const {
        for (int steps = 1; steps <= position; ++steps)
            if (!is_empty(slot - line.stride * steps)) return steps;
        return 0;
    }
    bool is_linked(std::size_t slot, int position, const Line& line) const {
        if (position > 0 && std::fabs(_depths[slot] - _depths[slot - line.stride]) <= _depthJump) return true;
        const int steps = steps_back(slot, position, line);
        return steps > 0 && steps <= _window && !is_jump(slot, position, steps, line);
    }

    /// The point before the slot when there is a jump between them, otherwise the slot itself.
    std::size_t jump_before(std::size_t slot, int position, const Line& line, Link link) const {
        if ((_links[slot] & link) != 0) return slot;
        const int steps = steps_back(slot, position, line);
        return steps > 0 && is_jump(slot, position, steps, line) ? slot - line.stride * steps : slot;
    }

    /// Between the slot and the point that stands `steps` before it.
    bool is_jump(std::size_t slot, int position, int steps, const Line& line) const {
        const std::size_t before = slot - line.stride * steps;
        const float rise = _depths[slot] - _depths[before];
        if (std::fabs(rise) <= _depthJump) return false;
        const std::size_t reach = line.stride * static_cast<std::size_t>(_window);
        // False where there is no depth.
        const auto isExplained = [&](std::size_t from) {
            const float slope = (_depths[from + reach] - _depths[from]) / static_cast<float>(_window);
            return std::fabs(rise - slope * static_cast<float>(steps)) <= _depthJump;
        };
        if (position - steps >= _window && isExplained(before - reach)) return false;
        return !(_window < line.length - position && isExplained(slot));
    }

    // ---- loops over the image -------------------------------------------------------------------------

    template <class Body>
    void for_row_ranges(const Body& body) const {
        parallel_ranges(_threads, static_cast<std::size_t>(_height), RowsPerTask, body);
    }

    template <class Body>
    void for_points(std::size_t rowBegin, std::size_t rowEnd, const Body& body) const {
        for (std::size_t y = rowBegin; y < rowEnd; ++y) {
            for (int x = 0; x < _width; ++x) {
                const std::size_t slot = y * _column.stride + static_cast<std::size_t>(x);
                if (!is_empty(slot)) body(slot, x, static_cast<int>(y));
            }
        }
    }

    template <class Body>
    void for_slots(const Body& body) const {
        parallel_ranges(_threads, _links.size(), 1 << 15, [&](std::size_t begin, std::size_t end) {
            for (std::size_t slot = begin; slot < end; ++slot) body(slot);
        });
    }

    /// Dilates the edges by a square of 2 radius + 1 slots: a reach of k becomes k + step by the union of three copies
    /// that are a step apart. Steps up to k + 1 leave no gap, even where a copy is cut off at the border.
    void dilate(int radius) {
        const std::size_t target = static_cast<std::size_t>(radius);
        for (std::size_t reach = 0; reach < target;) {
            const std::size_t step = std::min(reach + 1, target - reach);
            for_row_ranges([&](std::size_t begin, std::size_t end) {
                for (std::size_t y = begin; y < end; ++y) unite_along_row(y, step);
            });
            for_row_ranges([&](std::size_t begin, std::size_t end) {
                for (std::size_t y = begin; y < end; ++y) unite_along_columns(y, step);
            });
            reach += step;
        }
    }

    void unite_along_row(std::size_t y, std::size_t step) {
        const std::size_t width = _column.stride;
        const std::uint8_t* from = _edges.data() + y * width;
        std::uint8_t* to = _scratch.data() + y * width;
        std::copy_n(from, width, to);
        if (step >= width) return;
        unite_bytes(to + step, from, width - step);
        unite_bytes(to, from + step, width - step);
    }

    void unite_along_columns(std::size_t y, std::size_t step) {
        const std::size_t width = _column.stride;
        const std::uint8_t* from = _scratch.data() + y * width;
        std::uint8_t* to = _edges.data() + y * width;
        std::copy_n(from, width, to);
        if (y >= step) unite_bytes(to, from - step * width, width);
        if (y + step < static_cast<std::size_t>(_height)) unite_bytes(to, from + step * width, width);
    }

    static void unite_bytes(std::uint8_t* to, const std::uint8_t* from, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) to[i] = static_cast<std::uint8_t>(to[i] | from[i]);
    }

    float* _depths;
    int _width;
    int _height;
    Line _row;
    Line _column;
    int _window;
    float _depthJump;
    int _countLimit;
    int _threads;
    std::vector<std::uint8_t> _links;
    std::vector<std::uint8_t> _edges;
    std::vector<std::uint8_t> _scratch;
    SlotRegions _regions;
};

}  // namespace

void PointImage::find_egde_point(int window, float depthJump, int countLimit) {
    if (!is_legal() || !(depthJump >= 0.0f)) return;
    enable_vFlag();
    if (get_vn() == 0) return;  // but maybe with 2^31 - 1 rows
    const int threads = default_thread_number();
    const std::unique_ptr<float[]> depths = slot_depths(*this, threads);
    EdgeFinder finder(depths.get(), _width, _height, window, depthJump, countLimit, threads);
    finder.find();
    parallel_ranges(threads, get_vn(), 1 << 15, [&](std::size_t begin, std::size_t end) {
        for (std::size_t slot = begin; slot < end; ++slot) _flags[slot].set(VertexFlag::Edge, finder.is_edge(slot));
    });
}

}  // namespace VexelAlgorithm
