// Meshes and pictures on disk.
#pragma once

#include <filesystem>
#include <opencv2/core.hpp>
#include <vector>

#include "foundation/BaseTriMesh.h"
#include "foundation/CameraInParam.h"
#include "recording/DepthImage.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm::Apps {

/// Binary where the format of the path's ending has that, with vertex normals.
Outcome<Done> write_mesh_file(const std::filesystem::path& path, const BaseTriMesh& mesh);

/// A PNG file; `what` names the picture where it cannot be drawn.
Outcome<Done> write_picture(const std::filesystem::path& path, const cv::Mat& picture, const char* what);

/// Three views of the mesh that was recorded by the camera from the poses (see preview.h). `poses` must not be empty.
Outcome<Done> write_preview(const std::filesystem::path& path, const BaseTriMesh& mesh, const CameraInParam& camera,
                            ImageSize size, const std::vector<RigidMatrix>& poses, int threads);

}  // namespace VexelAlgorithm::Apps
