// The volumes of OpenCV's rgbd module with the module's own parameters but for voxel size, place and truncation.
#pragma once

#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/core/ocl.hpp>
#include <opencv2/rgbd/volume.hpp>

#include "foundation/CameraInParam.h"

namespace VexelBench {

constexpr float FarthestDepth = 4.0f;      // m; the recording's depths end at 3.6
constexpr float DefaultTruncation = 7.0f;  // voxels

inline cv::kinfu::Intr kinfu_camera(const VexelAlgorithm::CameraInParam& camera) {
    return {static_cast<float>(camera.get_fx()), static_cast<float>(camera.get_fy()),
            static_cast<float>(camera.get_cx()), static_cast<float>(camera.get_cy())};
}

/// The sparse volume, which needs no place; voxel size in metres.
inline cv::Ptr<cv::kinfu::Volume> make_hashed_volume(float voxelSize, float truncationVoxels) {
    using namespace cv::kinfu;
    const cv::Ptr<VolumeParams> settings = VolumeParams::defaultParams(VolumeType::HASHTSDF);
    return makeVolume(VolumeType::HASHTSDF, voxelSize, cv::Affine3f::Identity().matrix, settings->raycastStepFactor,
                      truncationVoxels * voxelSize, settings->maxWeight, FarthestDepth, settings->resolution);
}

/// The dense volume of the box from `low` to `high` (m).
inline cv::Ptr<cv::kinfu::Volume> make_dense_volume(float voxelSize, float truncationVoxels, const cv::Vec3f& low,
                                                    const cv::Vec3f& high) {
    using namespace cv::kinfu;
    const cv::Ptr<VolumeParams> settings = VolumeParams::defaultParams(VolumeType::TSDF);
    for (int axis = 0; axis < 3; ++axis) {
        settings->resolution[axis] = static_cast<int>(std::ceil((high[axis] - low[axis]) / voxelSize / 32.0f)) * 32;
    }
    return makeVolume(VolumeType::TSDF, voxelSize, cv::Affine3f::Identity().translate(low).matrix,
                      settings->raycastStepFactor, truncationVoxels * voxelSize, settings->maxWeight, FarthestDepth,
                      settings->resolution);
}

/// The module on so many threads of the processor.
inline void use_threads(int threads) {
    cv::ocl::setUseOpenCL(false);
    cv::setNumThreads(threads);
}

}  // namespace VexelBench
