// The viewing cone of every pixel.
#pragma once

#include <array>
#include <vector>

#include "foundation/PointImage.h"
#include "foundation/export.h"

namespace VexelAlgorithm {
namespace Fusion {

/// The slopes between which a camera-space point (x, y, z) lies inside a pixel's cone:
/// left z <= x <= right z and top z <= y <= bottom z.
struct PixelCone {
    float left, right, top, bottom;
};

/// For each pixel the pyramid from the camera centre through the rectangle of half-width r pixels around it.
/// The four side planes of pixel (u, v) depend on its column or on its row only, so one pair of slopes a
/// column and one a row say all: 10 KB for a 1280 x 1024 camera where four normals a pixel would take 63 MB.
class VEXEL_API FusionCone {
public:
    bool empty() const { return _columns.empty() || _rows.empty(); }
    void clear();
    /// Finite intrinsics and positive focal lengths.
    static bool is_usable(const CameraInParam& camera);
    /// Builds the table for the camera, size and view radial of the frame. False, the table being left as it
    /// was, when the frame has no slots or no usable camera.
    bool build(const PointImage& frame, float smoothThreshold);

    int get_width() const { return static_cast<int>(_columns.size()); }
    int get_height() const { return static_cast<int>(_rows.size()); }
    /// A cone of half-width 0 (or NaN) has no sides and leaves nothing out.
    bool is_open() const { return _open; }

    PixelCone pixel(int u, int v) const {
        const Vector2f& column = _columns[static_cast<std::size_t>(u)];
        const Vector2f& row = _rows[static_cast<std::size_t>(v)];
        return {column.x(), column.y(), row.x(), row.y()};
    }
    /// Inward normals (not of unit length) of the planes left, top, right, bottom in camera coordinates: a
    /// point V is inside when none of the four products V . n is negative.
    std::array<Vector3f, 4> plane_normals(int u, int v) const;

private:
    std::vector<Vector2f> _columns;  // slopes at u - r and u + r
    std::vector<Vector2f> _rows;     // slopes at v - r and v + r
    bool _open = false;
};

/// The cone of half-width r pixels around a pixel position.
PixelCone cone_around(const CameraInParam& camera, float u, float v, float r);

}  // namespace Fusion
}  // namespace VexelAlgorithm
