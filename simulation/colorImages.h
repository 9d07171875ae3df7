// What a colour camera sees of a coloured scene.
#pragma once

#include <functional>

#include "foundation/ColorAndPoint.h"
#include "foundation/FusionParameter.h"
#include "simulation/Sequence.h"

namespace VexelAlgorithm::Simulation {

/// The colour (RGB in [0, 1]) of a surface at a point (mm) of the world.
using SurfaceColor = std::function<Vector3f(const Vector3d& point)>;

/// Soft stripes along the axes, one for each channel, between 0.15 and 0.85: a full wave is 50 mm long, so that colours
/// change by at most 0.044 from one millimetre to the next.
Vector3f soft_stripes(const Vector3d& point);

/// A colour camera for a scanner with this camera: 45 mm to its right and turned by 0.1 rad towards what it sees at 400
/// mm, with twice as many pixels along each axis and a tenth wider view. Sets the four colour fields and leaves the
/// others.
void add_color_camera(const Sequence& sequence, FusionParameter& fusion);

/// The image of the colour camera of the records while the scanner is at this frame's pose, in even light that comes
/// from everywhere, and black where there is no surface. The same for any number of threads.
ColorImage color_image_of(const Sequence& sequence, int frame, const FusionParameter& fusion,
                          const SurfaceColor& surface, int threads = 2);
/// The frame with that image.
ColorAndPoint colored_frame_of(const Sequence& sequence, int frame, const FusionParameter& fusion,
                               const SurfaceColor& surface, int threads = 2);

}  // namespace VexelAlgorithm::Simulation
