// Real recordings against what their makers measured.
#include <opencv2/core/core_c.h>

#include <Eigen/Eigenvalues>
#include <cstdlib>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "SpeckleRebCPU/speckleRebuild.h"
#include "foundation/RigidMatrix.h"
#include "readCaliData/CaliParReadIn.h"
#include "tests/common.h"

namespace VexelAlgorithm {
namespace {

/// One camera as the vector that the settings take.
std::vector<float> camera_vector(const std::string& path) {
    CvMat *K = nullptr, *D = nullptr, *R = nullptr, *T = nullptr;
    if (!Rebuild::CaliParReadIn().read_calibrate_para_single(K, D, R, T, path)) return {};
    const double* k = K->data.db;
    std::vector<double> values{k[0], k[4], k[2], k[5], k[1] / k[0]};
    values.insert(values.end(), D->data.db, D->data.db + 5);
    values.insert(values.end(), T->data.db, T->data.db + 3);
    values.insert(values.end(), R->data.db, R->data.db + 9);
    for (CvMat** matrix : {&K, &D, &R, &T}) cvReleaseMat(matrix);
    return {values.begin(), values.end()};
}

RigidMatrix world_to_camera(const std::vector<float>& camera) {
    const Eigen::Map<const Eigen::Matrix<float, 3, 3, Eigen::RowMajor>> rotation(camera.data() + 13);
    return {rotation.cast<double>(), Vector3d(camera[10], camera[11], camera[12])};
}

/// Numbers of a comma-separated table; words are left out.
std::vector<std::vector<double>> read_table(const std::string& path) {
    std::ifstream file(path);
    std::vector<std::vector<double>> rows;
    std::string line;
    std::getline(file, line);
    while (std::getline(file, line)) {
        std::istringstream cells(line);
        rows.emplace_back();
        for (std::string cell; std::getline(cells, cell, ',');) {
            char* end = nullptr;
            const double value = std::strtod(cell.c_str(), &end);
            if (end != cell.c_str()) rows.back().push_back(value);
        }
    }
    return rows;
}

class RecordedPair : public testing::Test {
protected:
    /// False, and the test is skipped, when the recording is not there.
    bool has_recording(const std::string& name) {
        const char* root = std::getenv("VEXEL_RECORDINGS");
        _folder = std::string(root != nullptr ? root : "") + '/' + name + '/';
        return root != nullptr && std::ifstream(_folder + "calib_left.txt").good();
    }

    void reconstruct(const std::string& left, const std::string& right, const Vector2i& range) {
        const cv::Mat leftImage = cv::imread(_folder + left, cv::IMREAD_GRAYSCALE);
        const cv::Mat rightImage = cv::imread(_folder + right, cv::IMREAD_GRAYSCALE);
        ASSERT_FALSE(leftImage.empty());
        ASSERT_EQ(leftImage.size(), rightImage.size());
        _param.imgSize = {leftImage.cols, leftImage.rows};
        _param.imageRange = {0, leftImage.cols, 0, leftImage.rows};
        _param.findRange = range;
        _param.pixMatchWin = {13, 13};
        _param.subPixMatchWin = {25, 25};
        _param.leftCalib = camera_vector(_folder + "calib_left.txt");
        _param.rightCalib = camera_vector(_folder + "calib_right.txt");
        _calibration.ini(_param.leftCalib, _param.rightCalib, {}, _param.imgSize, Vector2i::Zero());
        _frame.ini(_param.imgSize.x() / _param.sampleRatio, _param.imgSize.y() / _param.sampleRatio);
        void* handle = speckle_rebuild_cpu_ini(_param);
        int timeMs = 0;
        ASSERT_EQ(run_speckle_rebuild_cpu(handle, leftImage.data, rightImage.data, _frame, timeMs), RET_SUCCESS);
        EXPECT_EQ(speckle_rebuild_cpu_release(handle), RET_SUCCESS);
    }

    /// Where rectification takes a raw pixel.
    static Vector2d rectified(const Vector2d& raw, const std::vector<float>& camera, const Matrix3d& rotation,
                              const Eigen::Matrix<double, 3, 4>& projection) {
        const double fx = camera[0], fy = camera[1];
        const cv::Matx33d K(fx, camera[4] * fx, camera[2], 0, fy, camera[3], 0, 0, 1);
        const std::vector<double> distortion(camera.begin() + 5, camera.begin() + 10);
        std::vector<cv::Point2d> points{{raw.x(), raw.y()}};
        cv::undistortPoints(points, points, K, distortion);
        const Vector3d image = projection * (rotation * Vector3d(points[0].x, points[0].y, 1.0)).homogeneous();
        return (image - projection.col(3)).hnormalized();
    }

    double parallax_of(const Vector3d& point) const {
        const Vector3d left = _calibration.get_left_projection() * point.homogeneous();
        const Vector3d right = _calibration.get_right_projection() * point.homogeneous();
        return right.x() / right.z() - left.x() / left.z();
    }

    /// Bilinear between the four slots around the pixel; NaN when one of them is empty.
    double parallax_at(const Vector2d& pixel) const {
        const Vector2d place = pixel / _param.sampleRatio;
        const int x = static_cast<int>(place.x()), y = static_cast<int>(place.y());
        if (x < 0 || y < 0 || x + 1 >= _frame.get_image_width() || y + 1 >= _frame.get_image_height()) return NAN;
        double sum = 0;
        for (int k = 0; k < 4; ++k) {
            const Vector3f& found = _frame.get_point(x + k % 2, y + k / 2);
            if (found.isZero(0.0F)) return NAN;
            const double u = place.x() - x, v = place.y() - y;
            sum += (k % 2 != 0 ? u : 1 - u) * (k / 2 != 0 ? v : 1 - v) * parallax_of(found.cast<double>());
        }
        return sum;
    }

    /// Direction of the ray of a slot in raw left camera coordinates.
    Vector3d ray_of(int x, int y) const {
        const CameraInParam camera = _calibration.get_rectified_camera();
        const Vector3d ray((x * _param.sampleRatio - camera.get_cx()) / camera.get_fx(),
                           (y * _param.sampleRatio - camera.get_cy()) / camera.get_fy(), 1.0);
        return (_calibration.get_R1().transpose() * ray).normalized();
    }

    std::string _folder;
    RebParam _param;
    Rebuild::CaliParReadIn _calibration;
    PointImage _frame;
};

TEST_F(RecordedPair, CylinderAgreesWithItsImageCorrelation) {
    if (!has_recording("stereo_cylinder")) GTEST_SKIP() << "no recording stereo_cylinder in VEXEL_RECORDINGS";
    constexpr double RADIUS = 57.2;  // mm, around the z axis of the calibration
    for (const std::string step : {"step1", "step2", "step3", "step4"}) {
        reconstruct(step + "/left.png", step + "/right.png", {10, 58});
        const RigidMatrix toLeft = world_to_camera(_param.leftCalib);
        std::vector<double> differences;
        double all = 0;
        for (const std::vector<double>& row : read_table(_folder + step + "/reference.csv")) {
            const Vector2d left = rectified({row[0], row[1]}, _param.leftCalib, _calibration.get_R1(),
                                            _calibration.get_left_projection());
            const Vector2d right = rectified({row[2], row[3]}, _param.rightCalib, _calibration.get_R2(),
                                             _calibration.get_right_projection());
            const double difference = std::abs(parallax_at(left) - (right.x() - left.x()));
            ++all;
            if (difference >= 0) differences.push_back(difference);
        }
        std::sort(differences.begin(), differences.end());
        const auto close = std::lower_bound(differences.begin(), differences.end(), 0.3) - differences.begin();
        ASSERT_GT(close, 1000);
        const double median = differences[differences.size() / 2];

        const RigidMatrix toWorld = toLeft.inverse();
        double outside = 0, filled = 0;
        for (int y = 0; y < _frame.get_image_height(); ++y)
            for (int x = 0; x < _frame.get_image_width(); ++x) {
                const Vector2d ray = (toWorld.get_rotation() * ray_of(x, y)).head<2>().normalized();
                const Vector2d eye = toWorld.get_translation().head<2>();
                if (std::abs(ray.x() * eye.y() - ray.y() * eye.x()) < RADIUS) continue;
                ++outside;
                filled += !_frame.get_point(x, y).isZero(0.0F);
            }
        EXPECT_GE(static_cast<double>(close), 0.8 * all) << step;
        EXPECT_LE(median, 0.04) << step;
        EXPECT_LE(filled, 0.01 * outside) << step;
    }
}

TEST_F(RecordedPair, BoardsAndPlasterFigure) {
    if (!has_recording("stereo_projected")) GTEST_SKIP() << "no recording stereo_projected in VEXEL_RECORDINGS";
    const std::vector<std::vector<double>> planes = read_table(_folder + "planes.csv");
    ASSERT_EQ(planes.size(), 3U);
    const struct {
        const char* name;
        Vector2i range;
        double rms;  // mm; what plain correlation over 25 x 25 pixels yields
    } boards[] = {{"plane1", {-64, -52}, 0.55}, {"plane5", {7, 16}, 0.93}, {"plane9", {38, 46}, 1.57}};
    constexpr double GRID_ACCURACY = 1.0;  // mm
    for (std::size_t k = 0; k < 3; ++k) {
        const auto& board = boards[k];
        reconstruct(board.name + std::string("/left.png"), "right.png", board.range);
        const std::vector<double>& row = planes[k];
        const Vector3d normal(row[0], row[1], row[2]);
        std::vector<double> distances;
        std::vector<Vector3d> points;
        Vector3d mean = Vector3d::Zero();
        const Matrix3d toRaw = _calibration.get_R1().transpose();
        for (std::size_t i = 0; i < _frame.get_vn(); ++i) {
            if (!_frame.has_point(i)) continue;
            const Vector3d point = toRaw * _frame.get_vCoord(i).cast<double>();
            const double u = _param.leftCalib[0] * point.x() / point.z() + _param.leftCalib[2];
            const double v = _param.leftCalib[1] * point.y() / point.z() + _param.leftCalib[3];
            if (u < row[4] || u > row[6] || v < row[5] || v > row[7]) continue;
            distances.push_back(normal.dot(point) - row[3]);
            points.push_back(point);
            mean += point;
        }
        mean /= static_cast<double>(points.size());
        Matrix3d scatter = Matrix3d::Zero();
        for (const Vector3d& point : points) scatter += (point - mean) * (point - mean).transpose();
        const double least = Eigen::SelfAdjointEigenSolver<Matrix3d>(scatter).eigenvalues()[0];
        const double rms = std::sqrt(least / static_cast<double>(points.size()));
        std::nth_element(distances.begin(), distances.begin() + static_cast<std::ptrdiff_t>(distances.size() / 2),
                         distances.end());
        const double median = distances[distances.size() / 2];
        EXPECT_LE(std::abs(median), GRID_ACCURACY) << board.name;
        EXPECT_LE(rms, board.rms) << board.name;
    }
    reconstruct("plaster/left.png", "right.png", {-24, 70});
    // The figure stands before the wall; columns behind these have their partners outside the right image.
    constexpr int LAST_COLUMN = 750;
    int figure = 0, strip = 0;
    for (int y = 0; y < _frame.get_image_height(); ++y)
        for (int x = 0; x < _frame.get_image_width(); ++x) {
            const float depth = _frame.get_point(x, y).z();
            figure += depth > 765 && depth < 855;
            strip += x > LAST_COLUMN && depth != 0;
        }
    EXPECT_GT(figure, 18500);
    EXPECT_EQ(strip, 0);
    EXPECT_GT(_frame.count_vaildNum(), 380000);
}

}  // namespace
}  // namespace VexelAlgorithm
