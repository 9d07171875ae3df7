#include "readCaliData/DeviceMaps.h"

#include "foundation/diagnostics.h"

#if defined(VEXEL_OPENCV_CUDA)
#    include <opencv2/cudawarping.hpp>
#endif

namespace VexelAlgorithm {
namespace Rebuild {

#if defined(VEXEL_OPENCV_CUDA)

DeviceMaps::DeviceMaps(const DeviceMaps& other)
    : _leftX(other._leftX.clone()),
      _leftY(other._leftY.clone()),
      _rightX(other._rightX.clone()),
      _rightY(other._rightY.clone()),
      _uploaded(other._uploaded) {}

DeviceMaps& DeviceMaps::operator=(const DeviceMaps& other) {
    DeviceMaps copy(other);
    _leftX.swap(copy._leftX);
    _leftY.swap(copy._leftY);
    _rightX.swap(copy._rightX);
    _rightY.swap(copy._rightY);
    _uploaded = other._uploaded;
    return *this;
}

void DeviceMaps::clear() {
    for (cv::cuda::GpuMat* map : {&_leftX, &_leftY, &_rightX, &_rightY}) map->release();
    _uploaded = false;
}

bool DeviceMaps::upload(const cv::Mat& leftX, const cv::Mat& leftY, const cv::Mat& rightX, const cv::Mat& rightY) {
    if (cv::cuda::getCudaEnabledDeviceCount() < 1) {
        print_line("gpu_rect_mat_upload fail because there is no device");
        return false;
    }
    _leftX.upload(leftX);
    _leftY.upload(leftY);
    _rightX.upload(rightX);
    _rightY.upload(rightY);
    _uploaded = true;
    return true;
}

bool DeviceMaps::remap(const cv::Mat& rawL, const cv::Mat& rawR, cv::cuda::GpuMat& rectL,
                       cv::cuda::GpuMat& rectR) const {
    const cv::cuda::GpuMat deviceL(rawL), deviceR(rawR);
    cv::cuda::remap(deviceL, rectL, _leftX, _leftY, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
    cv::cuda::remap(deviceR, rectR, _rightX, _rightY, cv::INTER_LINEAR, cv::BORDER_CONSTANT);
    return true;
}

#else

DeviceMaps::DeviceMaps(const DeviceMaps&) {}

DeviceMaps& DeviceMaps::operator=(const DeviceMaps&) = default;

void DeviceMaps::clear() {}

bool DeviceMaps::upload(const cv::Mat&, const cv::Mat&, const cv::Mat&, const cv::Mat&) {
    print_line("gpu_rect_mat_upload fail because OpenCV has no CUDA modules here");
    return false;
}

bool DeviceMaps::remap(const cv::Mat&, const cv::Mat&, cv::cuda::GpuMat&, cv::cuda::GpuMat&) const {
    return false;
}

#endif

}  // namespace Rebuild
}  // namespace VexelAlgorithm
