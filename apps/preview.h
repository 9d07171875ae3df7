// Pictures of a mesh from several sides.
#pragma once

#include <opencv2/core.hpp>
#include <vector>

#include "apps/meshDrawing.h"

namespace VexelAlgorithm::Apps {

/// Three views of a model that was recorded from `poses`: as the first frame's camera saw it, obliquely
/// from the side, and from above. "Above" follows the horizontal surfaces of the model when it has some and
/// the cameras otherwise. The last two are moved back until the model fills the picture.
std::vector<View> preview_views(const BaseTriMesh& mesh, const std::vector<RigidMatrix>& poses,
                                const CameraInParam& camera, ImageSize size);

/// Draws and shades the views and puts them side by side; 8-bit BGR.
cv::Mat draw_preview(const BaseTriMesh& mesh, const std::vector<View>& views, int threads);

}  // namespace VexelAlgorithm::Apps
