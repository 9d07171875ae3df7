#include "track/MovingPoints.h"

#include <algorithm>
#include <cmath>

#include "foundation/parallel.h"
#include "track/usableSlots.h"

namespace VexelAlgorithm {
namespace Track {
namespace {

bool is_usable_slot(const PointImage& image, std::size_t slot) {
    const Vector3f& point = image.get_vCoord(slot);
    const Vector3f& normal = image.get_vNrv(slot);
    return point.z() > SmallestDepth && normal_length(normal) > SmallestNormalLength && are_finite(point, normal) &&
           !std::isnan(image.get_vWeight(slot));
}

}  // namespace

std::string MovingPoints::fault(const PointImage& image) {
    return image.is_legal() ? "" : "the moving image's arrays do not agree with its size";
}

void MovingPoints::prepare(const PointImage& image, int threads) {
    const std::size_t slots = image.get_vn(), chunks = chunk_count(slots, SlotChunk);
    const auto for_chunks = [&](const auto& body) {
        parallel_ranges(threads, chunks, 1, [&](std::size_t begin, std::size_t end) {
            for (std::size_t c = begin; c < end; ++c) body(c, c * SlotChunk, std::min(slots, (c + 1) * SlotChunk));
        });
    };

    _isUsable.resize(slots);
    _chunkStarts.assign(chunks + 1, 0);
    for_chunks([&](std::size_t chunk, std::size_t begin, std::size_t end) {
        std::size_t count = 0;
        for (std::size_t slot = begin; slot < end; ++slot) {
            _isUsable[slot] = is_usable_slot(image, slot) ? 1 : 0;
            count += _isUsable[slot];
        }
        _chunkStarts[chunk + 1] = count;
    });
    for (std::size_t chunk = 0; chunk < chunks; ++chunk) _chunkStarts[chunk + 1] += _chunkStarts[chunk];

    _cloudMoveVaildIdRecord.resize(_chunkStarts[chunks]);
    _points.resize(_chunkStarts[chunks]);
    for_chunks([&](std::size_t chunk, std::size_t begin, std::size_t end) {
        std::size_t entry = _chunkStarts[chunk];
        for (std::size_t slot = begin; slot < end; ++slot) {
            if (_isUsable[slot] == 0) continue;
            const Vector3f& point = image.get_vCoord(slot);
            _cloudMoveVaildIdRecord[entry] = static_cast<std::int32_t>(slot);
            _points[entry] = {point.x(), point.y(), point.z(), image.get_vWeight(slot)};
            ++entry;
        }
    });
}

}  // namespace Track
}  // namespace VexelAlgorithm
