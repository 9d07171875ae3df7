#include "simulation/stereoImages.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "foundation/parallel.h"
#include "simulation/counterRandom.h"
#include "simulation/gaussianBlur.h"
#include "simulation/render.h"

namespace VexelAlgorithm::Simulation {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr std::size_t kRowsPerTask = 8;
constexpr double kPixelVariance = 1.0 / 12.0;  ///< of an even distribution over a pixel
constexpr double kLargestGrey = 255.0;
constexpr double kSameSurface = 0.3;  ///< mm of depth at a surface seen from the front

double squared(double value) {
    return value * value;
}

/// Between -1 and 1: three waves of sines along odd directions, so that nothing repeats within an object.
double wavy(const Vector3d& point, double wavelength) {
    static const std::array<Vector3d, 3> directions{Vector3d(0.81, 0.35, -0.47), Vector3d(-0.29, 0.72, 0.63),
                                                    Vector3d(0.51, -0.60, 0.62)};
    double product = 1.0, stretch = 1.0;
    for (const Vector3d& direction : directions) {
        product *= std::sin(2.0 * kPi / (wavelength * stretch) * direction.dot(point) + stretch);
        stretch *= 1.37;
    }
    return product;
}

/// One camera of the rig at one moment.
class Irradiance {
public:
    Irradiance(const StereoRig& rig, const DistortedCamera& camera, const SpeckleTexture& pattern,
               const RigidMatrix& cameraToWorld)
        : _rig(rig),
          _camera(camera),
          _pattern(pattern),
          _cameraToWorld(cameraToWorld),
          _toProjector(rig.projector.rigToProjector * camera.rigToCamera.inverse()),
          _lamp(_toProjector.inverse().get_translation()) {}

    /// Signal relative to saturation at exposure 1 of what lies at `depth` along `direction` = (x, y, 1) in camera
    /// coordinates.
    double signal(const Vector3d& direction, double depth, const Vector3d& normal, bool isLit) const {
        const Vector3d point = depth * direction;
        const SurfaceFinish& finish = _rig.finish;
        const Vector3d world = _cameraToWorld * point;
        const double albedo = finish.albedo * (1.0 + finish.albedoVariation * wavy(world, finish.albedoWavelength));
        double radiance = albedo * _rig.light.ambient;
        if (isLit) {
            const Vector3d toLamp = _lamp - point;
            const double distance = toLamp.norm();
            const Vector3d lightDirection = toLamp / distance;
            const double fallOff = squared(_rig.light.workingDistance / distance);
            const double facing = std::max(normal.dot(lightDirection), 0.0);
            const double pattern = pattern_at(direction, depth, normal);
            const Vector3d halfway = (lightDirection - direction.normalized()).normalized();
            // Normalised so that the highlight sends back the share `shine` of the light.
            const double highlight = finish.shine * (finish.shineExponent + 8.0) / 8.0 *
                                     std::pow(std::max(normal.dot(halfway), 0.0), finish.shineExponent);
            radiance += pattern * fallOff * facing * (albedo + highlight);
        }
        const double cosine = 1.0 / direction.norm();
        return radiance * squared(squared(cosine));
    }

    bool is_in_projector_image(const Vector3d& point) const {
        const Vector2d place = projected(_toProjector * point);
        const SpecklePattern& pattern = _rig.projector.pattern;
        return place.x() >= -0.5 && place.y() >= -0.5 && place.x() <= pattern.width - 0.5 &&
               place.y() <= pattern.height - 0.5;
    }

private:
    Vector2d projected(const Vector3d& point) const {
        const Projector& projector = _rig.projector;
        return {projector.fx * point.x() / point.z() + projector.cx,
                projector.fy * point.y() / point.z() + projector.cy};
    }

    /// The footprint of the pixel on the projector's image, taken as that on the tangent plane.
    double pattern_at(const Vector3d& direction, double depth, const Vector3d& normal) const {
        const Projector& projector = _rig.projector;
        const Vector3d point = _toProjector * Vector3d(depth * direction);
        if (!(point.z() > 0.0)) return 0.0;
        const double sight = normal.dot(direction);
        Eigen::Matrix2d steps;
        for (int axis = 0; axis < 2; ++axis) {
            Vector3d turn = Vector3d::Zero();
            turn[axis] = 1.0 / (axis == 0 ? _camera.fx : _camera.fy);
            const Vector3d alongSurface = depth * (turn - direction * (normal.dot(turn) / sight));
            const Vector3d moved = _toProjector.get_rotation() * alongSurface;
            steps(0, axis) = projector.fx * (moved.x() - moved.z() * point.x() / point.z()) / point.z();
            steps(1, axis) = projector.fy * (moved.y() - moved.z() * point.y() / point.z()) / point.z();
        }
        const double blur = _rig.sensor.defocus * (1.0 - _rig.sensor.focusDistance / depth);
        const Eigen::Matrix2d covariance = (kPixelVariance + blur * blur) * (steps * steps.transpose());
        return _pattern.mean_under(projected(point), covariance);
    }

    const StereoRig& _rig;
    const DistortedCamera& _camera;
    const SpeckleTexture& _pattern;
    const RigidMatrix& _cameraToWorld;
    RigidMatrix _toProjector;
    Vector3d _lamp;
};

template <class Body>
void for_rows(int threads, int height, const Body& body) {
    parallel_ranges(threads, static_cast<std::size_t>(height), kRowsPerTask, [&](std::size_t begin, std::size_t end) {
        for (std::size_t y = begin; y < end; ++y) body(static_cast<int>(y));
    });
}

std::vector<float> signals(const Irradiance& irradiance, const SurfaceView& view, const PixelRays& rays, int threads) {
    std::vector<float> image(view.depth.size(), 0.0F);
    for_rows(threads, view.height, [&](int y) {
        for (int x = 0; x < view.width; ++x) {
            const std::size_t i = view.index_of(x, y);
            if (view.depth[i] > 0.0F)
                image[i] = static_cast<float>(irradiance.signal(rays.at(x, y), view.depth[i],
                                                                view.normals[i].cast<double>(), view.isLit[i] != 0));
        }
    });
    return image;
}

/// `key` tells the images of a recording apart.
GreyImage developed(const std::vector<float>& signal, int width, int height, const Sensor& sensor, std::uint64_t key,
                    int threads) {
    GreyImage image{width, height, std::vector<std::uint8_t>(signal.size())};
    const double electronsPerSignal = sensor.exposure * sensor.fullWell;
    const double greyPerElectron = sensor.gain * kLargestGrey / sensor.fullWell;
    parallel_ranges(threads, signal.size(), 8192, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            double electrons = signal[i] * electronsPerSignal;
            if (sensor.hasNoise)
                electrons += std::sqrt(electrons + sensor.readNoise * sensor.readNoise) *
                             PixelRandom(sensor.seed, key, i).gaussian(0);
            const double grey = std::round(sensor.darkOffset + greyPerElectron * std::min(electrons, sensor.fullWell));
            image.pixels[i] = static_cast<std::uint8_t>(std::clamp(grey, 0.0, kLargestGrey));
        }
    });
    return image;
}

/// Whether the view holds the point within its image and nothing nearer; normals tell how much depth a pixel spans.
bool is_seen(const SurfaceView& view, const DistortedCamera& camera, const Vector3d& point, const Vector3d& normal) {
    if (!(point.z() > 0.0)) return false;
    const Vector2d pixel = camera.project(point);
    const bool isInside =
        pixel.x() >= 0.0 && pixel.y() >= 0.0 && pixel.x() <= view.width - 1.0 && pixel.y() <= view.height - 1.0;
    const double facing = -normal.dot(point.normalized());
    if (!isInside || facing <= 0.0) return false;
    const int column = std::min(static_cast<int>(pixel.x()), view.width - 2);
    const int row = std::min(static_cast<int>(pixel.y()), view.height - 2);
    const double pixelDepth = point.z() / camera.fx / std::max(facing, 0.05);
    for (int y = row; y <= row + 1; ++y)
        for (int x = column; x <= column + 1; ++x) {
            const float depth = view.depth[view.index_of(x, y)];
            if (depth > 0.0F && std::abs(depth - point.z()) < kSameSurface + pixelDepth) return true;
        }
    return false;
}

}  // namespace

StereoCamera::StereoCamera(const StereoRig& rig, int threads)
    : _rig(rig),
      _threads(threads),
      _leftRays(rays_of(rig.left, threads)),
      _rightRays(rays_of(rig.right, threads)),
      _pattern(rig.projector.pattern, threads) {}

StereoPair StereoCamera::take(const Shape& scene, const RigidMatrix& leftToWorld, std::uint64_t number) const {
    return develop(gather(scene, leftToWorld), _rig.sensor, number);
}

StereoPair StereoCamera::develop(const StereoSignals& signals, const Sensor& sensor, std::uint64_t number) const {
    const auto develop_one = [&](const std::vector<float>& signal, std::uint64_t key) {
        return developed(signal, signals.width, signals.height, sensor, key, _threads);
    };
    return {develop_one(signals.left, 2 * number), develop_one(signals.right, 2 * number + 1), signals.trueDepth,
            signals.visibility};
}

StereoSignals StereoCamera::gather(const Shape& scene, const RigidMatrix& leftToWorld) const {
    const RigidMatrix toRight = left_to_right(_rig);
    const RigidMatrix rightToWorld = leftToWorld * toRight.inverse();
    const RigidMatrix rigToWorld = leftToWorld * _rig.left.rigToCamera;
    const Vector3d lamp = (rigToWorld * _rig.projector.rigToProjector.inverse()).get_translation();
    const SurfaceView leftView = view_surface(scene, _leftRays, leftToWorld, _rig.farLimit, lamp, _threads);
    const SurfaceView rightView = view_surface(scene, _rightRays, rightToWorld, _rig.farLimit, lamp, _threads);

    const auto blurred_signals = [&](const DistortedCamera& camera, const RigidMatrix& cameraToWorld,
                                     const PixelRays& rays, const SurfaceView& view) {
        std::vector<float> signal = signals(Irradiance(_rig, camera, _pattern, cameraToWorld), view, rays, _threads);
        gaussian_blur(signal, view.width, view.height, _rig.sensor.sharpness, _threads);
        return signal;
    };
    StereoSignals seen;
    seen.width = leftView.width;
    seen.height = leftView.height;
    seen.left = blurred_signals(_rig.left, leftToWorld, _leftRays, leftView);
    seen.right = blurred_signals(_rig.right, rightToWorld, _rightRays, rightView);

    seen.visibility.assign(leftView.depth.size(), 0);
    const Irradiance left(_rig, _rig.left, _pattern, leftToWorld);
    for_rows(_threads, leftView.height, [&](int y) {
        for (int x = 0; x < leftView.width; ++x) {
            const std::size_t i = leftView.index_of(x, y);
            if (leftView.depth[i] <= 0.0F) continue;
            const Vector3d point = leftView.depth[i] * _leftRays.at(x, y);
            const Vector3d normal = leftView.normals[i].cast<double>();
            int bits = SeenByLeft;
            if (leftView.isLit[i] != 0 && left.is_in_projector_image(point)) bits |= LitByProjector;
            if (is_seen(rightView, _rig.right, toRight * point, toRight.get_rotation() * normal)) bits |= SeenByRight;
            seen.visibility[i] = static_cast<std::uint8_t>(bits);
        }
    });
    seen.trueDepth = leftView.depth;
    return seen;
}

PointImage rectified_truth(const Shape& scene, const RigidMatrix& leftToWorld, const Matrix3d& rectifiedToLeft,
                           const CameraInParam& camera, int width, int height, double farLimit, int threads) {
    RenderSettings settings;
    settings.farLimit = farLimit;
    settings.threads = threads;
    return render(scene, camera, width, height, leftToWorld * RigidMatrix(rectifiedToLeft, Vector3d::Zero()), settings);
}

}  // namespace VexelAlgorithm::Simulation
