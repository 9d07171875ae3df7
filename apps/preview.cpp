#include "apps/preview.h"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "apps/shading.h"
#include "foundation/parallel.h"

namespace VexelAlgorithm::Apps {
namespace {

constexpr double pi = 3.14159265358979323846;
constexpr ImageSize pictureSize{800, 600};
/// Samples of a picture pixel along each axis; the mean of their colours is drawn.
constexpr int oversampling = 2;
constexpr std::size_t sampledVertices = 20000;

std::vector<std::size_t> sample_of(std::size_t count) {
    std::vector<std::size_t> indices;
    const std::size_t step = std::max<std::size_t>(count / sampledVertices, 1);
    for (std::size_t i = 0; i < count; i += step) indices.push_back(i);
    return indices;
}

Vector3d mean_axis(const std::vector<RigidMatrix>& poses, int axis) {
    Vector3d sum = Vector3d::Zero();
    for (const RigidMatrix& pose : poses) sum += pose.get_rotation().col(axis);
    return sum.norm() > 1e-6 ? Vector3d(sum.normalized()) : Vector3d(poses.front().get_rotation().col(axis));
}

/// The direction in which most of the surface near `guess` faces: the mean of the normals in an ever narrower
/// cone around the mean found before.
Vector3d facing_direction(const BaseTriMesh& mesh, const Vector3d& guess) {
    Vector3d direction = guess;
    for (const double coneDegrees : {50.0, 35.0, 20.0, 12.0, 12.0}) {
        Vector3d sum = Vector3d::Zero();
        for (const std::size_t i : sample_of(mesh.get_vn())) {
            const Vector3d normal = mesh.get_vNrv(i).cast<double>();
            if (normal.dot(direction) > std::cos(coneDegrees * pi / 180.0)) sum += normal;
        }
        if (sum.norm() < 1.0) return guess;
        direction = sum.normalized();
    }
    return direction;
}

/// Camera axes for a view direction; y points down in the picture.
Matrix3d looking_along(const Vector3d& direction, const Vector3d& up) {
    Matrix3d rotation;
    rotation.col(2) = direction;
    rotation.col(0) = direction.cross(up).normalized();
    rotation.col(1) = rotation.col(2).cross(rotation.col(0));
    return rotation;
}

double share_of(std::vector<double>& values, double share) {
    const auto place = values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

/// Middle of the model's extent along the camera's axes, outliers left out, in world coordinates.
Vector3d middle_of(const BaseTriMesh& mesh, const Matrix3d& rotation) {
    Vector3d middle;
    for (int axis = 0; axis < 3; ++axis) {
        std::vector<double> positions;
        for (const std::size_t i : sample_of(mesh.get_vn())) {
            positions.push_back(rotation.col(axis).dot(mesh.get_vCoord(i).cast<double>()));
        }
        middle[axis] = 0.5 * (share_of(positions, 0.01) + share_of(positions, 0.99));
    }
    return rotation * middle;
}

/// How far back a camera looking at the origin must stand to see nearly all of the model: point p is in the
/// picture from the distance |x| f / halfWidth - z on, and so for y.
double fitting_distance(const BaseTriMesh& mesh, const Matrix3d& rotation, const Vector3d& middle, const View& view) {
    std::vector<double> distances;
    for (const std::size_t i : sample_of(mesh.get_vn())) {
        const Vector3d p = rotation.transpose() * (mesh.get_vCoord(i).cast<double>() - middle);
        const double forWidth = std::abs(p.x()) * view.camera.get_fx() / (0.46 * view.size.width) - p.z();
        const double forHeight = std::abs(p.y()) * view.camera.get_fy() / (0.46 * view.size.height) - p.z();
        distances.push_back(std::max(forWidth, forHeight));
    }
    return share_of(distances, 0.99);
}

View rendering_view() {
    View view;
    view.size = {pictureSize.width * oversampling, pictureSize.height * oversampling};
    const double focalLength = 1.1 * view.size.width;
    view.camera.set_param(focalLength, focalLength, 0.5 * view.size.width - 0.5, 0.5 * view.size.height - 0.5);
    return view;
}

/// A view along `direction` that shows the whole model.
View fitted_view(const BaseTriMesh& mesh, const Vector3d& direction, const Vector3d& up) {
    View view = rendering_view();
    const Matrix3d rotation = looking_along(direction, up);
    const Vector3d middle = middle_of(mesh, rotation);
    const double distance = fitting_distance(mesh, rotation, middle, view);
    view.cameraToWorld = RigidMatrix(rotation, middle - distance * direction);
    return view;
}

/// The recording camera's own view, its image enlarged or reduced to fill the picture.
View recorded_view(const RigidMatrix& pose, const CameraInParam& camera, ImageSize size) {
    View view = rendering_view();
    const double scale = std::min(static_cast<double>(view.size.width) / size.width,
                                  static_cast<double>(view.size.height) / size.height);
    const double offsetX = 0.5 * (view.size.width - scale * size.width);
    const double offsetY = 0.5 * (view.size.height - scale * size.height);
    view.camera.set_param(scale * camera.get_fx(), scale * camera.get_fy(),
                          scale * (camera.get_cx() + 0.5) - 0.5 + offsetX,
                          scale * (camera.get_cy() + 0.5) - 0.5 + offsetY);
    view.cameraToWorld = pose;
    return view;
}

/// The view direction that looks down by `elevation` after the horizontal direction was turned by `azimuth`, radians.
Vector3d direction_from(const Vector3d& forward, const Vector3d& up, double azimuth, double elevation) {
    Vector3d level = forward - forward.dot(up) * up;
    if (level.norm() < 1e-3) level = up.unitOrthogonal();
    const Vector3d turned = Eigen::AngleAxisd(azimuth, up) * level.normalized();
    return std::cos(elevation) * turned - std::sin(elevation) * up;
}

cv::Mat draw_view(const BaseTriMesh& mesh, const View& view) {
    cv::Mat picture;
    cv::resize(shaded_picture(drawn_mesh(mesh, view)), picture, {}, 1.0 / oversampling, 1.0 / oversampling,
               cv::INTER_AREA);
    return picture;
}

}  // namespace

std::vector<View> preview_views(const BaseTriMesh& mesh, const std::vector<RigidMatrix>& poses,
                                const CameraInParam& camera, ImageSize size) {
    const Vector3d forward = poses.front().get_rotation().col(2);
    const Vector3d up = facing_direction(mesh, -mean_axis(poses, 1));
    return {recorded_view(poses.front(), camera, size),
            fitted_view(mesh, direction_from(forward, up, 0.20 * pi, 0.20 * pi), up),
            fitted_view(mesh, direction_from(forward, up, 0.0, 0.40 * pi), up)};
}

cv::Mat draw_preview(const BaseTriMesh& mesh, const std::vector<View>& views, int threads) {
    std::vector<cv::Mat> pictures(views.size());
    parallel_ranges(threads, views.size(), 1, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) pictures[i] = draw_view(mesh, views[i]);
    });
    cv::Mat sheet;
    cv::hconcat(pictures, sheet);
    return sheet;
}

}  // namespace VexelAlgorithm::Apps
