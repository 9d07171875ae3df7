// The colour camera of a session: which colour the points of a frame have in its image.
//
//     point p (mm, left camera)  --tranLeftToColor-->  q  --colorImagePar-->  pixel (u, v) of the colour image
//     q.z > 0?   (u, v) inside colorImageRange?   nothing else of the frame in front of q?
//     then the slot's colour is the image at (u, v), bilinear, in [0, 1] as RGB; otherwise it is zero: none
//
// The "left camera" is that in whose coordinates frames are given. Frames of this library's reconstruction are in those
// of the rectified left camera: tranLeftToColor is then `CaliParReadIn::get_rectified_to_color`. `get_left_to_color` is
// for frames in coordinates of the left camera as it is mounted. Images must be free of lens distortion.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/ColorImage.h"
#include "foundation/FusionParameter.h"
#include "foundation/PointImage.h"

namespace VexelAlgorithm {

/// Hidden points are found by a depth image of the frame's own points as the colour camera sees them, in cells of two
/// points' width: a point that lies more than ten times the distance of neighbouring points behind the nearest one in
/// its cell has no colour. So surface that the frame does not hold hides nothing, and beside the edge of what is in
/// front up to two points lose their colour.
///
/// `color_frame` is for one thread at a time, everything else for any.
class ColorCamera {
public:
    explicit ColorCamera(const FusionParameter& fusion);

    /// False when the records have no colour camera, that is a colorImageSize of (0, 0).
    bool is_there() const { return _size.x() != 0 || _size.y() != 0; }
    /// Why no colours can be had from the image; nothing when they can.
    std::optional<std::string> find_unusable(const ColorImage& image) const;
    /// Gives every slot of the frame a colour or none, enabling colours. The frame must be legal, the image usable.
    /// Keeps memory for the frame's slots.
    void color_frame(const ColorImage& image, PointImage& frame, int threads);

private:
    /// Where the colour camera sees a slot's point: pixels, and mm along its axis; depth 0: it does not.
    struct Sight {
        float u, v, depth;
    };
    Sight see(const Vector3f& uvw) const;
    void find_sights(const PointImage& frame, int threads);
    /// For each cell the least depth in it.
    void find_front(int threads);
    std::size_t cell_of(const Sight& sight) const;
    bool is_hidden(const Sight& sight, float tolerance) const;

    Vector2i _size;
    Vector2i _low, _high;  // first and last usable pixel
    Matrix3d _matrix;
    RigidMatrix _leftToColor;

    std::vector<Sight> _sights;  // a slot
    float _cellSize = 1.0F;      // pixels
    int _cellsInRow = 0;
    std::size_t _cellCount = 0, _cellCapacity = 0;
    std::unique_ptr<std::atomic<float>[]> _front;  // a cell
};

}  // namespace VexelAlgorithm
