// The usable points of the moving image of a registration.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/PointImage.h"
#include "track/projection.h"

namespace VexelAlgorithm {
namespace Track {

/// Points of a point image that can take part, in the order of their slots. A point is usable when its z is above 1e-5,
/// the length of its normal above 1e-5, both are finite, and its weight is not NaN. Memory is kept from one image to
/// the next. Reading is safe from several threads.
class MovingPoints {
public:
    /// Empty when the image can be taken, otherwise one line: its arrays do not agree with its size.
    static std::string fault(const PointImage& image);

    /// The image must be without fault and have normals and weights. Throws std::bad_alloc.
    void prepare(const PointImage& image, int threads);

    std::size_t count() const { return _cloudMoveVaildIdRecord.size(); }
    const MovingPoint* points() const { return _points.data(); }
    /// The slot of entry `entry` in the image.
    std::int32_t slot(std::size_t entry) const { return _cloudMoveVaildIdRecord[entry]; }

private:
    std::vector<std::int32_t> _cloudMoveVaildIdRecord;
    std::vector<MovingPoint> _points;
    std::vector<std::uint8_t> _isUsable;    ///< by slot
    std::vector<std::size_t> _chunkStarts;  ///< entries before each chunk of slots
};

}  // namespace Track
}  // namespace VexelAlgorithm
