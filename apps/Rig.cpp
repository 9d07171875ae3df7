#include "apps/Rig.h"

#include <opencv2/core/core_c.h>

#include <Eigen/LU>
#include <cmath>
#include <utility>

#include "apps/searchRange.h"
#include "foundation/diagnostics.h"
#include "recording/calibrationText.h"
#include "recording/files.h"

namespace VexelAlgorithm::Apps {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t largestCalibrationFile = 1 << 16;

/// The library's matrices of one camera; released when they go.
struct CameraMatrices {
    CvMat *K = nullptr, *D = nullptr, *R = nullptr, *T = nullptr;

    CameraMatrices() = default;
    CameraMatrices(const CameraMatrices&) = delete;
    CameraMatrices& operator=(const CameraMatrices&) = delete;
    ~CameraMatrices() {
        for (CvMat** matrix : {&K, &D, &R, &T})
            if (*matrix != nullptr) cvReleaseMat(matrix);
    }

    std::vector<float> values() const {
        CalibratedCamera camera{cvmGet(K, 0, 0), cvmGet(K, 1, 1), cvmGet(K, 0, 2), cvmGet(K, 1, 2), {}, {}};
        for (int i = 0; i < 5; ++i) camera.distortion[static_cast<std::size_t>(i)] = cvmGet(D, i, 0);
        camera.worldToCamera = {Matrix3d::NullaryExpr([&](auto row, auto column) { return cvmGet(R, row, column); }),
                                Vector3d::NullaryExpr([&](auto row) { return cvmGet(T, row, 0); })};
        return camera_values(camera, camera.fx != 0.0 ? cvmGet(K, 0, 1) / camera.fx : 0.0);
    }
};

Outcome<Done> complete_calibration(std::vector<float>& camera, const fs::path& file) {
    if (!camera.empty()) return Done{};
    Outcome<std::vector<float>> read = read_camera_file(file);
    if (!read) return read.failure();
    camera = std::move(*read);
    return Done{};
}

RigidMatrix world_to_camera(const std::vector<float>& camera) {
    const Eigen::Map<const Eigen::Matrix<float, 3, 3, Eigen::RowMajor>> rotation(camera.data() + 13);
    return {rotation.cast<double>(), Eigen::Map<const Vector3f>(camera.data() + 10).cast<double>()};
}

std::string fault_of_camera(const std::vector<float>& camera, const char* side) {
    const std::string name = std::string("the ") + side + " camera";
    for (const float value : camera)
        if (!std::isfinite(value)) return name + " has a value that is not finite";
    if (camera[0] <= 0.0F || camera[1] <= 0.0F) return name + " has a focal length that is not positive";
    const Matrix3d rotation = world_to_camera(camera).get_rotation();
    const bool isRotation = (rotation * rotation.transpose() - Matrix3d::Identity()).cwiseAbs().maxCoeff() < 0.01 &&
                            rotation.determinant() > 0.0;
    return isRotation ? std::string() : name + " has a rotation matrix that is none";
}

}  // namespace

std::vector<float> camera_values(const CalibratedCamera& camera, double skew) {
    std::vector<double> values{camera.fx, camera.fy, camera.cx, camera.cy, skew};
    values.insert(values.end(), camera.distortion.begin(), camera.distortion.end());
    for (int i = 0; i < 3; ++i) values.push_back(camera.worldToCamera.get_translation()(i));
    for (int i = 0; i < 9; ++i) values.push_back(camera.worldToCamera.get_rotation()(i / 3, i % 3));
    return {values.begin(), values.end()};
}

Outcome<std::vector<float>> read_camera_file(const fs::path& path) {
    const Outcome<std::string> text = read_whole_file(path, largestCalibrationFile);
    if (!text) return text.failure();
    CameraMatrices camera;
    Rebuild::CaliParReadIn reader;
    if (!reader.read_calibrate_para_single(camera.K, camera.D, camera.R, camera.T, path.string()))
        return Failure{path.string() + " is not usable: " + calibration_fault(*text)};
    return camera.values();
}

std::string fault_of_pair(const std::vector<float>& left, const std::vector<float>& right) {
    for (const auto& [camera, side] : {std::pair(&left, "left"), std::pair(&right, "right")}) {
        const std::string fault = fault_of_camera(*camera, side);
        if (!fault.empty()) return fault;
    }
    const RigidMatrix leftToRight = world_to_camera(right) * world_to_camera(left).inverse();
    const Vector3d place = leftToRight.inverse().get_translation();
    if (place.norm() < 1e-3) return "the cameras stand in one place: the baseline is zero";
    if (leftToRight.get_rotation()(2, 2) <= 0.0)
        return format_text("the cameras look away from each other: their axes differ by %.0f degrees",
                           std::acos(std::max(-1.0, leftToRight.get_rotation()(2, 2))) * 180.0 / 3.14159265358979);
    if (std::abs(place.y()) > std::abs(place.x()))
        return "the cameras do not stand side by side: the right one is above or below the left one, and rows cannot "
               "match";
    if (std::abs(place.z()) > 3.0 * std::abs(place.x())) return "one camera stands behind the other";
    return {};
}

Outcome<Rig> make_rig(ScanSettings& settings, const CalibrationFiles& files, ImageSize imageSize) {
    RebParam& param = settings.rig.rebuild;
    const Vector2i size(imageSize.width, imageSize.height);
    if (param.imgSize.isZero()) param.imgSize = size;
    if (param.imgSize != size)
        return Failure{format_text("rig.imgSize is %d x %d where the images have %d x %d pixels", param.imgSize.x(),
                                   param.imgSize.y(), size.x(), size.y())};
    if (param.imageRange.isZero()) param.imageRange = {0, size.x(), 0, size.y()};
    for (const auto& [camera, file] :
         {std::pair(&param.leftCalib, &files.left), std::pair(&param.rightCalib, &files.right)}) {
        const Outcome<Done> completed = complete_calibration(*camera, *file);
        if (!completed) return completed.failure();
    }
    const std::string fault = fault_of_pair(param.leftCalib, param.rightCalib);
    if (!fault.empty()) return Failure{"the calibration cannot be used: " + fault};

    Rig rig;
    rig.calibration = Rebuild::CaliParReadIn(param.leftCalib, param.rightCalib, {}, size, Vector2i::Zero());
    if (!rig.calibration.is_ini_success())
        return Failure{"the calibration cannot be used: the cameras cannot be rectified to a common row direction"};
    if (!settings.rig.depthRange.isZero()) {
        const Vector2f& depths = settings.rig.depthRange;
        const Outcome<Vector2i> range = search_range(rig.calibration, depths(0), depths(1), param.sampleRatio);
        if (!range) return range.failure();
        param.findRange = *range;
    }
    settings.common.imageSize = size;
    settings.common.sample = param.sampleRatio;
    settings.common.campar = rig.calibration.get_rectified_camera();
    rig.param = param;
    return rig;
}

}  // namespace VexelAlgorithm::Apps
