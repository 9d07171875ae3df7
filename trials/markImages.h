// Images of marks and outlines, drawn twice: at rest and after a motion.
#pragma once

#include <cstddef>
#include <vector>

#include "track/RigidMatrix2D.h"

namespace VexelTrial {

using namespace VexelAlgorithm;

struct MarkImage {
    Vector2i size;
    std::vector<unsigned char> pixels;

    explicit MarkImage(const Vector2i& imageSize)
        : size(imageSize), pixels(static_cast<std::size_t>(imageSize.x()) * static_cast<std::size_t>(imageSize.y())) {}
    /// Into the pixel that contains the point; outside nothing is drawn.
    void draw(const Vector2d& point);
};

struct ImagePair {
    MarkImage fixed, moving;
    Track::RigidMatrix2D movingToFixed;
};

/// A turn (degrees) about the middle of the image, and a shift.
Track::RigidMatrix2D motion_about_middle(const Vector2i& size, double degrees, const Vector2d& shift);

/// Marks at random whole-numbered positions, more than `apart` columns or rows from each other and, to stay inside when
/// moved, half of that from the border. A grid would not do: a slight turn moves all its marks by whole pixels.
ImagePair draw_dots(const Vector2i& size, int apart, const Track::RigidMatrix2D& movingToFixed, unsigned seed);

/// Five closed curves of random waves around circles, sampled finer than pixels.
ImagePair draw_outlines(const Vector2i& size, const Track::RigidMatrix2D& movingToFixed, unsigned seed);

struct PlanarError {
    double pixels;   ///< root mean square over the image
    double degrees;  ///< not negative
};

PlanarError error_of(const Track::RigidMatrix2D& found, const Track::RigidMatrix2D& truth, const Vector2i& size);

}  // namespace VexelTrial
