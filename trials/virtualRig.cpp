#include "trials/virtualRig.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "SpeckleRebCPU/boxSums.h"
#include "readCaliData/CaliParReadIn.h"
#include "simulation/cameraPaths.h"
#include "simulation/combinations.h"
#include "simulation/primitives.h"
#include "simulation/render.h"
#include "simulation/scenes.h"
#include "simulation/stereoImages.h"

namespace VexelTrial {
namespace {

using namespace VexelAlgorithm;
using namespace VexelAlgorithm::Simulation;

constexpr double DISTANCE = 400.0;         // mm
constexpr double LARGEST_TOLERANCE = 1.0;  // mm
// Slopes of the parallax, pixel per pixel, beyond which one camera sees the surface so much closer to edge-on than the
// other, with a third of its pixels or twice as many, that it counts as an edge.
constexpr double SMALLEST_SLOPE = -2.0 / 3.0, LARGEST_SLOPE = 1.0;
constexpr double DEGREES = 180.0 / 3.14159265358979323846;

std::vector<float> camera_vector(const DistortedCamera& camera) {
    std::vector<float> values{static_cast<float>(camera.fx), static_cast<float>(camera.fy),
                              static_cast<float>(camera.cx), static_cast<float>(camera.cy), 0.0F};
    for (const double k : camera.distortion) values.push_back(static_cast<float>(k));
    const RigidMatrix& pose = camera.rigToCamera;
    for (int i = 0; i < 3; ++i) values.push_back(static_cast<float>(pose.get_translation()[i]));
    for (int i = 0; i < 9; ++i) values.push_back(static_cast<float>(pose.get_rotation()(i / 3, i % 3)));
    return values;
}

Rebuild::CaliParReadIn calibration_of(const RebParam& param) {
    return {param.leftCalib, param.rightCalib, {}, param.imgSize, Vector2i::Zero()};
}

/// Whether rectification fetches the pixel from inside the raw image.
bool is_covered(const float* map, const Vector2i& size, int x, int y) {
    if (x < 0 || y < 0 || x >= size.x() || y >= size.y()) return false;
    const float* raw = map + 2 * (y * size.x() + x);
    return raw[0] >= 3.0F && raw[0] < static_cast<float>(size.x() - 2) && raw[1] >= 3.0F &&
           raw[1] < static_cast<float>(size.y() - 2);
}

/// Rectified left pixels whose point left camera, projector and right camera see, within both rectified images.
Mask seen_by_all(const StereoPair& pair, const Rebuild::CaliParReadIn& calibration, const PointImage& truth,
                 double nearest, double farthest) {
    constexpr int ALL = SeenByLeft | LitByProjector | SeenByRight;
    const Vector2i size = calibration.get_image_size();
    const auto projection = calibration.get_right_projection();
    Mask seen(size.x(), size.y());
    for (int y = 0; y < size.y(); ++y)
        for (int x = 0; x < size.x(); ++x) {
            const Vector3f& point = truth.get_point(x, y);
            if (!(point.z() > nearest && point.z() < farthest) || !is_covered(calibration.get_left_map(), size, x, y))
                continue;
            const float* raw = calibration.get_left_map() + 2 * (y * size.x() + x);
            const auto i = static_cast<std::size_t>(std::lround(raw[1]) * size.x() + std::lround(raw[0]));
            const Vector3d right = projection * point.cast<double>().homogeneous();
            const int column = static_cast<int>(std::lround(right.x() / right.z()));
            seen.at(x, y) =
                pair.visibility[i] == ALL && is_covered(calibration.get_right_map(), size, column, y) ? 1 : 0;
        }
    return seen;
}

void clear_edges(const PointImage& truth, double depthFactor, Mask& seen) {
    const auto parallax = [&](int x, int y) { return depthFactor / truth.get_point(x, y).z(); };
    Mask edge(seen.width(), seen.height());
    for (int y = 0; y + 1 < seen.height(); ++y)
        for (int x = 0; x + 1 < seen.width(); ++x) {
            const double slopeX = parallax(x + 1, y) - parallax(x, y), slopeY = parallax(x, y + 1) - parallax(x, y);
            if (!(slopeX >= SMALLEST_SLOPE && slopeX <= LARGEST_SLOPE)) edge.at(x, y) = edge.at(x + 1, y) = 1;
            if (!(std::abs(slopeY) <= LARGEST_SLOPE)) edge.at(x, y) = edge.at(x, y + 1) = 1;
        }
    for (std::size_t i = 0; i < seen.size(); ++i) seen[i] &= edge[i] ^ 1;
}

Mask eroded(const Mask& mask, const Vector2i& window) {
    Mask inner(mask.width(), mask.height());
    for_each_box_sum(
        mask.width(), mask.height(), window.x() / 2, window.y() / 2, 1, [&](int x, int y) { return mask.at(x, y); },
        [&](int x, int y, std::int32_t sum) { inner.at(x, y) = sum == window.x() * window.y() ? 1 : 0; });
    return inner;
}

PointImage sampled(const PointImage& full, int sample) {
    PointImage result;
    result.ini(full.get_image_width() / sample, full.get_image_height() / sample);
    result.enable_vNormal();
    for (int y = 0; y < result.get_image_height(); ++y)
        for (int x = 0; x < result.get_image_width(); ++x) {
            result.set_point(x, y, full.get_point(x * sample, y * sample));
            result.set_normal(x, y, full.get_normal(x * sample, y * sample));
        }
    return result;
}

struct Errors {
    double count = 0, sum = 0, squares = 0;
    void add(double error) { count += 1, sum += error, squares += error * error; }
    double rms() const { return std::sqrt(squares / count); }
};

RigScene tilted_plate(double degrees, const Vector3d& axis) {
    const Matrix3d turn = Eigen::AngleAxisd(degrees / DEGREES, axis.normalized()).toRotationMatrix();
    // Below a camera that looks straight down.
    const ShapePtr plate = moved(box({0, 0, -0.5}, {85, 85, 0.5}), {turn, Vector3d::Zero()});
    return {"plate " + std::to_string(static_cast<int>(degrees)), plate, look_at({0, -1, DISTANCE}, Vector3d::Zero()),
            true};
}

}  // namespace

std::vector<RigScene> rig_scenes() {
    const ShapePtr owl = make_scene("owl_on_table");
    const auto owl_from = [&](const char* name, double azimuth, double elevation) {
        Orbit orbit;
        orbit.target = owl_centre();
        orbit.radius = DISTANCE;
        orbit.startAzimuth = azimuth;
        orbit.startElevation = orbit.endElevation = elevation;
        return RigScene{name, owl, orbit_poses(orbit, 1).front(), false};
    };
    const ShapePtr wave = smooth_union(
        {sphere({-55, 0, 0}, 50), sphere({45, 30, 10}, 40), half_space({0, 0, -20}, Vector3d::UnitZ())}, 40);
    const auto from_above = [&](const char* name, const ShapePtr& shape, double top) {
        return RigScene{name, shape, look_at({0, -40, DISTANCE + top}, {0, 0, top}), true};
    };
    return {owl_from("owl, front", -90, 20),
            owl_from("owl, side", 10, 35),
            from_above("ball", sphere(Vector3d::Zero(), 50), 50),
            from_above("cylinder upright", round_cone({0, -200, 0}, 40, {0, 200, 0}, 40), 40),
            from_above("cylinder lying", round_cone({-200, 0, 0}, 25, {200, 0, 0}, 25), 25),
            from_above("waves", wave, 30),
            tilted_plate(0, Vector3d::UnitX()),
            tilted_plate(30, Vector3d(0, 1, 0)),
            tilted_plate(-50, Vector3d(0, 1, 0)),
            tilted_plate(45, Vector3d(1, 0.2, 0)),
            tilted_plate(60, Vector3d(1, 1, 0))};
}

RebParam rig_settings(const StereoRig& rig, int sample) {
    RebParam param;
    param.imgSize = {rig.left.width, rig.left.height};
    param.imageRange = {0, rig.left.width, 0, rig.left.height};
    param.sampleRatio = sample;
    param.leftCalib = camera_vector(rig.left);
    param.rightCalib = camera_vector(rig.right);
    const Rebuild::CaliParReadIn calibration = calibration_of(param);
    const auto left = calibration.get_left_projection(), right = calibration.get_right_projection();
    const auto parallax = [&](double depth) { return right(0, 3) / depth + right(0, 2) - left(0, 2); };
    const double ends[2] = {parallax(rig.nearLimit), parallax(rig.farLimit)};
    param.findRange = {static_cast<int>(std::floor(std::min(ends[0], ends[1]))),
                       static_cast<int>(std::ceil(std::max(ends[0], ends[1])))};
    return param;
}

RigView view_of(const RigScene& scene, const StereoRig& rig, const RebParam& param) {
    const StereoPair pair = StereoCamera(rig).take(*scene.shape, scene.leftToWorld, 1);
    const Rebuild::CaliParReadIn calibration = calibration_of(param);
    RigView view;
    view.param = param;
    view.left = pair.left.pixels;
    view.right = pair.right.pixels;
    view.depthFactor = calibration.get_right_projection()(0, 3);
    const PointImage truth =
        rectified_truth(*scene.shape, scene.leftToWorld, calibration.get_rectified_to_raw().get_rotation(),
                        calibration.get_rectified_camera(), param.imgSize.x(), param.imgSize.y(), rig.farLimit);
    Mask seen = seen_by_all(pair, calibration, truth, rig.nearLimit, rig.farLimit);
    clear_edges(truth, view.depthFactor, seen);
    const Mask inner = eroded(seen, param.subPixMatchWin);
    view.truth = sampled(truth, param.sampleRatio);
    view.judged.assign(view.truth.get_image_width(), view.truth.get_image_height());
    for (int y = 0; y < view.judged.height(); ++y)
        for (int x = 0; x < view.judged.width(); ++x)
            view.judged.at(x, y) = inner.at(x * param.sampleRatio, y * param.sampleRatio);
    return view;
}

Agreement agreement(const RigView& view, const PointImage& result) {
    double judged = 0, matched = 0, wrong = 0;
    Errors parallaxes, parallaxesInside, normals, normalsInside;
    Agreement agreement;
    for (std::size_t i = 0; i < view.judged.size(); ++i) {
        const bool isJudged = view.judged[i] != 0;
        judged += isJudged;
        if (!result.has_point(i)) continue;
        matched += isJudged;
        ++agreement.points;
        const double depth = result.get_vCoord(i).z(), truth = view.truth.get_vCoord(i).z();
        if (!(std::abs(depth - truth) <= LARGEST_TOLERANCE)) {
            ++wrong;
            continue;
        }
        const double error = view.depthFactor * (1.0 / depth - 1.0 / truth);
        const double cosine = result.get_vNrv(i).dot(view.truth.get_vNrv(i));
        const double angle = std::acos(std::clamp(cosine, -1.0, 1.0)) * DEGREES;
        parallaxes.add(error);
        normals.add(angle);
        if (!isJudged) continue;
        parallaxesInside.add(error);
        normalsInside.add(angle);
    }
    agreement.matched = matched / judged;
    agreement.wrong = wrong / static_cast<double>(agreement.points);
    agreement.parallaxRms = parallaxes.rms();
    agreement.parallaxInside = parallaxesInside.rms();
    agreement.parallaxBias = parallaxes.sum / parallaxes.count;
    agreement.normalRms = normals.rms();
    agreement.normalInside = normalsInside.rms();
    return agreement;
}

}  // namespace VexelTrial
