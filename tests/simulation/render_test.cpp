// Rendered frames, their noise, the paths of the virtual camera, and the hand-held scans along them.
#include "simulation/render.h"

#include <Eigen/Geometry>

#include "simulation/NoiseModel.h"
#include "simulation/Sequence.h"
#include "simulation/cameraPaths.h"
#include "simulation/combinations.h"
#include "simulation/primitives.h"
#include "simulation/scenes.h"
#include "tools.h"

namespace VexelAlgorithm::Simulation {
namespace {

const CameraInParam kCamera(300, 310, 159.5, 117.25);

/// A wall across the view at this depth.
PointImage wall_frame(double depth) {
    const int size = 200;
    return render(*half_space({0, 0, depth}, {0, 0, -1}),
                  CameraInParam(10.0 * size, 10.0 * size, 0.5 * size, 0.5 * size), size, size, {});
}

TEST(Render, SlotsHoldTheSurfaceSeenThroughTheirPixels) {
    const ShapePtr scene = make_scene("owl_on_table");
    const RigidMatrix pose = look_at({150, -300, 220}, owl_centre());
    RenderSettings settings;
    settings.viewRadial = {8, 5};
    settings.sample = 2;
    settings.farLimit = 450;
    const PointImage frame = render(*scene, kCamera, 320, 160, pose, settings);
    ASSERT_TRUE(frame.is_legal() && frame.is_enable_vNormal() && frame.is_enable_vWeight() && frame.is_enable_vFlag());
    EXPECT_TRUE(frame.get_sample() == 2 && frame.get_rt().get_rotation().isIdentity());
    int seen = 0;
    for (int y = 0; y < 160; ++y)
        for (int x = 0; x < 320; ++x) {
            const std::size_t slot = frame.index_of(x, y);
            const Vector3d pixelRay((x + 8 - kCamera.get_cx()) / kCamera.get_fx(),
                                    (y + 5 - kCamera.get_cy()) / kCamera.get_fy(), 1);
            const Ray ray{pose.get_translation(), pose.get_rotation() * pixelRay.normalized()};
            const std::optional<Hit> truth = scene->hit(ray);
            if (!frame.has_point(slot)) {
                ASSERT_TRUE(!truth || truth->range * pixelRay.normalized().z() > 450 - 1e-3) << x << " " << y;
                ASSERT_EQ(frame.get_vWeight(slot), 0.0f);
                continue;
            }
            ++seen;
            Vector2d pixel;
            const Vector3d point = frame.get_vCoord(slot).cast<double>();
            kCamera.point_to_image(point, pixel);
            ASSERT_NEAR(pixel.x(), x + 8, 1e-3);
            ASSERT_NEAR(pixel.y(), y + 5, 1e-3);
            ASSERT_LE(point.z(), 450.001);
            ASSERT_LT(std::abs(scene->distance(pose * point)), 1e-3);
            const Vector3d normal = frame.get_vNrv(slot).cast<double>();
            ASSERT_NEAR(normal.norm(), 1, 1e-6);
            ASSERT_LE(normal.dot(point), 0) << "normals face the camera";
            ASSERT_NEAR(frame.get_vWeight(slot), -normal.dot(point.normalized()), 1e-5);
            const Vector3d gradient = scene->gradient(pose * point);
            if (truth && std::abs(truth->range - point.norm()) < 1e-4 && (truth->normal - gradient).norm() < 0.01) {
                ASSERT_GT((pose.get_rotation() * normal).dot(truth->normal), 1 - 1e-3) << x << " " << y;
            }
        }
    EXPECT_GT(seen, 6000);
    EXPECT_LT(seen, 320 * 160);
    EXPECT_EQ(frame.count_vaildNum(), seen);
}

TEST(Noise, StatisticsFollowTheModel) {
    NoiseModel noise;
    noise.depthStep = 0.0;
    noise.dropFraction = 0.2;
    for (const double depth : {200.0, 400.0, 1000.0}) {
        const PointImage truth = wall_frame(depth);
        PointImage noisy = truth;
        ASSERT_TRUE(apply_noise(noisy, noise, 0));
        double sum = 0.0, squares = 0.0;
        int count = 0;
        for (std::size_t slot = 0; slot < truth.get_vn(); ++slot) {
            if (!noisy.has_point(slot)) continue;
            const double error = double{noisy.get_vCoord(slot).z()} - truth.get_vCoord(slot).z();
            sum += error;
            squares += error * error;
            ++count;
        }
        const double sigma = 0.1 * (depth / 400) * (depth / 400), mean = sum / count;
        EXPECT_NEAR(noise.sigma(depth, 1), sigma, 1e-12);
        // Four standard errors of the mean, the deviation and the number of 40000 slots.
        EXPECT_NEAR(mean, 0, 4 * sigma / std::sqrt(count));
        EXPECT_NEAR(std::sqrt(squares / count - mean * mean), sigma, 4 * sigma / std::sqrt(2.0 * count) + 1e-3 * sigma);
        EXPECT_NEAR(count, 0.8 * 40000, 4 * std::sqrt(0.2 * 0.8 * 40000));
    }
    const double steep = noise.sigma(400, std::cos(1.0));
    EXPECT_NEAR(steep, 0.1 * (1 + 0.5 * std::tan(1.0) * std::tan(1.0)), 1e-12);
    EXPECT_TRUE(std::isfinite(noise.sigma(400, 0)));
}

TEST(Noise, SlotsAndFramesAndSeedsAreIndependent) {
    NoiseModel noise;
    noise.depthStep = 0.0;
    noise.dropFraction = 0.0;
    const PointImage truth = wall_frame(400);
    const auto errors_of = [&](std::uint64_t seed, std::uint64_t frameNumber) {
        PointImage noisy = truth;
        noise.seed = seed;
        apply_noise(noisy, noise, frameNumber);
        Eigen::VectorXd errors(40000);
        for (std::size_t slot = 0; slot < truth.get_vn(); ++slot)
            errors[static_cast<Eigen::Index>(slot)] = (noisy.get_vCoord(slot).z() - truth.get_vCoord(slot).z()) / 0.1;
        return errors;
    };
    const Eigen::VectorXd errors = errors_of(1, 0);
    EXPECT_EQ(errors, errors_of(1, 0));
    const double limit = 4 * std::sqrt(40000.0);
    for (const int lag : {1, 2, 200})
        EXPECT_LT(std::abs(errors.tail(40000 - lag).dot(errors.head(40000 - lag))), limit);
    for (const auto& [seed, frame] : {std::pair{1, 1}, {2, 0}, {0, 1}})
        EXPECT_LT(std::abs(errors.dot(errors_of(seed, frame))), limit) << seed << ' ' << frame;
}

TEST(Noise, StepsAreEvenInDisparityAndPointsStayOnTheirPixels) {
    NoiseModel noise;
    noise.depthSigma = 0.0;
    noise.depthStep = 0.5;
    noise.dropFraction = 0.0;
    noise.largestIncidence = 60.0;
    const RigidMatrix pose;
    const PointImage truth = render(*sphere({0, 0, 500}, 180), kCamera, 320, 240, pose);
    PointImage noisy = truth;
    ASSERT_TRUE(apply_noise(noisy, noise, 3));
    for (std::size_t slot = 0; slot < truth.get_vn(); ++slot) {
        if (!truth.has_point(slot)) {
            ASSERT_FALSE(noisy.has_point(slot));
            continue;
        }
        ASSERT_EQ(noisy.has_point(slot), truth.get_vWeight(slot) > 0.5f) << "lost beyond 60 degrees";
        if (!noisy.has_point(slot)) continue;
        const Vector3d point = noisy.get_vCoord(slot).cast<double>();
        const double disparity = 400.0 * 400.0 / 0.5 / point.z();
        ASSERT_NEAR(disparity, std::round(disparity), 1e-3);
        ASSERT_LE(std::abs(point.z() - truth.get_vCoord(slot).z()), 0.51 * noise.step(point.z()));
        ASSERT_LT(point.normalized().cross(truth.get_vCoord(slot).cast<double>().normalized()).norm(), 1e-6);
        ASSERT_EQ(noisy.get_vNrv(slot), truth.get_vNrv(slot));
    }
}

TEST(CameraPaths, EveryPoseLooksAtTheTargetWithTheWorldUpwards) {
    const Vector3d target(10, -20, 30);
    Orbit orbit;
    orbit.target = target;
    orbit.endElevation = 70;
    orbit.turns = 2;
    std::vector<RigidMatrix> poses = orbit_poses(orbit, 24), around = sphere_poses(target, 400, 101);
    ASSERT_TRUE(poses.size() == 24 && around.size() == 101);
    EXPECT_TRUE(orbit_poses(orbit, 0).empty() && sphere_poses(target, 400, -3).empty());
    const Vector3d first(0, -std::cos(0.349065850), std::sin(0.349065850));
    EXPECT_LT((poses.front().get_translation() - (target + 400 * first)).norm(), 1e-5);
    poses.insert(poses.end(), around.begin(), around.end());
    poses.push_back(look_at(target - Vector3d(0, 0, 400), target));
    for (const RigidMatrix& pose : poses) {
        ASSERT_TRUE(is_rigid(pose));
        ASSERT_LT((pose.inverse() * target - Vector3d(0, 0, 400)).norm(), 1e-9);
        ASSERT_NEAR(pose.get_rotation()(2, 0), 0, 1e-9) << "the horizon is level";
        ASSERT_LE(pose.get_rotation()(2, 1), 1e-9) << "y points down";
    }
}

// ---- hand-held scans -----------------------------------------------------------------------------------

SequenceSettings small_images() {
    SequenceSettings settings;
    settings.width = 160;
    settings.height = 128;
    return settings;
}

TEST(Sequence, PathsAreAsFastAsDescribed) {
    const std::tuple<const char*, double, double> cases[] = {
        {"full_turn", 25, 3.6}, {"smooth", 7, 1.0}, {"fast", 15, 2.2}, {"past_plane", 9, 0.1}, {"still", 0.2, 0.03}};
    for (const auto& [name, translation, rotation] : cases) {
        const PathSpeed speed = path_speed(make_sequence(name, small_images())->poses);
        EXPECT_NEAR(speed.meanTranslation, translation, 0.35 * translation) << name;
        EXPECT_NEAR(speed.meanRotation, rotation, std::max(0.02, 0.35 * rotation)) << name;
        EXPECT_TRUE(speed.largestTranslation < 3 * translation && speed.largestRotation < 10 * rotation) << name;
    }
}

TEST(Sequence, FramesHoldWhatAScannerMeasures) {
    for (const SequenceDescription& description : sequence_descriptions()) {
        SequenceSettings settings = small_images();
        const Sequence sequence = *make_sequence(description.name, settings);
        ASSERT_EQ(sequence.frame_count(), description.frames);
        for (const int frames : {1, 2, 11}) {
            settings.frames = frames;
            EXPECT_EQ(make_sequence(description.name, settings)->frame_count(), frames);
        }
        const PointImage frame = frame_of(sequence, 1, 1);
        ASSERT_TRUE(frame.is_legal() && frame.is_enable_vNormal() && frame.is_enable_vWeight() &&
                    frame.is_enable_vFlag());
        EXPECT_EQ(std::memcmp(frame.get_vCoords().data(), frame_of(sequence, 1, 2).get_vCoords().data(),
                              frame.get_vn() * sizeof(Vector3f)),
                  0);
        Sequence ideal = sequence;
        ideal.noise.reset();
        const PointImage truth = frame_of(ideal, 1);
        double squares = 0.0;
        int count = 0, steady = 0;
        for (std::size_t slot = 0; slot < frame.get_vn(); ++slot) {
            if (!frame.has_point(slot) || !truth.has_point(slot)) continue;
            const double error = double{frame.get_vCoord(slot).z()} - truth.get_vCoord(slot).z();
            squares += error * error;
            steady += frame.get_vNrv(slot).dot(truth.get_vNrv(slot)) > std::cos(EIGEN_PI / 120) ? 1 : 0;
            ++count;
        }
        EXPECT_GT(count, 0.4 * 160 * 128) << description.name;
        EXPECT_NEAR(std::sqrt(squares / count), 0.1, 0.004) << description.name;
        EXPECT_GT(steady, 0.8 * count) << description.name << ": normals within 1.5 degrees, edges apart";
    }
}

}  // namespace
}  // namespace VexelAlgorithm::Simulation
