// Rectification maps in device memory.
#pragma once

#include <opencv2/core.hpp>
#include <opencv2/core/cuda.hpp>

namespace VexelAlgorithm {
namespace Rebuild {

/// The four map matrices on the device. Empty, and never anything else, where OpenCV has no CUDA modules; which of
/// both is decided when the library is configured. Copies are deep.
class DeviceMaps {
public:
    DeviceMaps() = default;
    DeviceMaps(const DeviceMaps& other);
    DeviceMaps& operator=(const DeviceMaps& other);

    bool is_uploaded() const { return _uploaded; }
    void clear();
    /// Prints a line and stays as it is when the maps cannot be uploaded.
    bool upload(const cv::Mat& leftX, const cv::Mat& leftY, const cv::Mat& rightX, const cv::Mat& rightY);
    /// Needs uploaded maps.
    bool remap(const cv::Mat& rawL, const cv::Mat& rawR, cv::cuda::GpuMat& rectL, cv::cuda::GpuMat& rectR) const;

private:
    cv::cuda::GpuMat _leftX, _leftY, _rightX, _rightY;
    bool _uploaded = false;
};

}  // namespace Rebuild
}  // namespace VexelAlgorithm
