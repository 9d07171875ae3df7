// The virtual stereo scanner: geometry against rays, light and noise against the model. That its pairs and its
// calibration fit together is seen where they are matched.
#include "simulation/cameraPaths.h"
#include "simulation/combinations.h"
#include "simulation/meshShape.h"
#include "simulation/primitives.h"
#include "simulation/scenes.h"
#include "simulation/stereoImages.h"
#include "tests/common.h"

namespace VexelAlgorithm::Simulation {
namespace {

const RigidMatrix kFrontView = look_at({-40, -380, 190}, {0, 0, 60});

StereoRig small_rig(bool hasNoise) {
    StereoRig rig = make_stereo_rig(320, 256);
    rig.sensor.hasNoise = hasNoise;
    return rig;
}

/// A triangle mesh with a floor of its own.
ShapePtr tent_on_table() {
    const ShapePtr tent =
        triangle_mesh({{-60, -50, 0}, {60, -50, 0}, {60, 50, 0}, {-60, 50, 0}, {-50, 0, 70}, {50, 0, 70}},
                      {{0, 1, 5}, {0, 5, 4}, {2, 3, 4}, {2, 4, 5}, {3, 0, 4}, {1, 2, 5}, {0, 3, 2}, {0, 2, 1}});
    return smooth_union({half_space({0, 0, 0}, {0, 0, 1}), tent}, 0);
}

TEST(SurfaceView, SeesWhatSingleRaysSee) {
    const DistortedCamera camera = make_stereo_rig(320, 256).left;
    const PixelRays rays = rays_of(camera);
    const Vector3d lamp = kFrontView * Vector3d(60, -20, 0);
    for (const char* name : {"owl_on_table", "blocks", "torus", "tent"}) {
        const ShapePtr scene = std::string(name) == "tent" ? tent_on_table() : make_scene(name);
        const SurfaceView view = view_surface(*scene, rays, kFrontView, 500, lamp, 2);
        const SurfaceView alone = view_surface(*scene, rays, kFrontView, 500, lamp, 1);
        EXPECT_TRUE(view.depth == alone.depth && view.normals == alone.normals && view.isLit == alone.isLit) << name;
        int seen = 0, wrongDepth = 0, wrongNormal = 0, wrongLight = 0, lit = 0;
        for (int y = 0; y < 256; y += 2)
            for (int x = 0; x < 320; x += 2) {
                const std::size_t i = view.index_of(x, y);
                const double length = rays.at(x, y).norm();
                const Ray ray{kFrontView.get_translation(), kFrontView.get_rotation() * rays.at(x, y) / length};
                const std::optional<Hit> hit = scene->hit(ray, 500 * length);
                if (hit.has_value() != (view.depth[i] > 0)) ++wrongDepth;
                if (!hit || view.depth[i] == 0) continue;
                ++seen;
                wrongDepth += std::abs(hit->range / length - view.depth[i]) > 5e-3 ? 1 : 0;
                const Vector3d normal = kFrontView.get_rotation() * view.normals[i].cast<double>();
                wrongNormal += normal.dot(hit->normal) < 0.995 ? 1 : 0;
                const Vector3d start = hit->point + 0.05 * hit->normal;
                const double range = (lamp - start).norm();
                const bool isLit = hit->normal.dot(lamp - hit->point) > 0 &&
                                   !scene->first_crossing({start, (lamp - start) / range}, range);
                wrongLight += isLit != (view.isLit[i] != 0) ? 1 : 0;
                lit += isLit ? 1 : 0;
            }
        EXPECT_GT(seen, 2000) << name;
        EXPECT_LT(lit, seen) << name;
        EXPECT_LE(wrongDepth, 0.005 * seen) << name;
        EXPECT_LE(wrongNormal, 0.01 * seen) << name << ": creases apart";
        EXPECT_LE(wrongLight, 0.003 * seen) << name;
    }
}

TEST(StereoCamera, ShadowsHoldAmbientLightOnly) {
    StereoRig rig = small_rig(false);
    rig.finish.albedoVariation = 0;
    const StereoPair pair = StereoCamera(rig).take(*make_scene("blocks"), kFrontView, 0);
    // The lens dims the corners; blurred borders of the shadows are left out.
    const double ambient = rig.sensor.darkOffset + 255 * rig.sensor.exposure * rig.finish.albedo * rig.light.ambient;
    int dark = 0, brightest = 0;
    for (int y = 3; y < 253; ++y)
        for (int x = 3; x < 317; ++x) {
            bool isDeep = true;
            for (int k = 0; k < 49; ++k) {
                const int at = (y - 3 + k / 7) * 320 + x - 3 + k % 7;
                isDeep = isDeep && (pair.visibility[static_cast<std::size_t>(at)] & 3) == SeenByLeft;
            }
            const int grey = pair.left.pixels[static_cast<std::size_t>(y * 320 + x)];
            brightest = std::max(brightest, grey);
            if (!isDeep) continue;
            ++dark;
            ASSERT_LE(grey, ambient + 0.5);
            ASSERT_GE(grey, 0.75 * ambient - 0.5);
        }
    EXPECT_GT(dark, 100);
    EXPECT_GT(brightest, 120);
}

TEST(StereoCamera, ExposureAndGainScaleTheSignalUpToSaturation) {
    const auto image = [&](double exposure, double gain) {
        StereoRig rig = small_rig(false);
        rig.sensor.exposure *= 0.7 * exposure;  // nothing saturated with factors of 1
        rig.sensor.gain = gain;
        return StereoCamera(rig).take(*half_space({0, 0, 0}, {0, -1, 0}), look_at({0, -400, 0}, {0, 0, 0}), 0).left;
    };
    const double offset = Sensor().darkOffset;
    const std::vector<std::uint8_t> plain = image(1, 1).pixels;
    for (const auto& [exposure, gain] : {std::pair{0.25, 1.0}, {1.0, 2.0}, {3.0, 0.5}}) {
        const std::vector<std::uint8_t> other = image(exposure, gain).pixels;
        const double factor = exposure * gain, largest = gain < 1 ? gain * 255 + offset : 255;
        for (std::size_t i = 0; i < plain.size(); ++i) {
            const double expected = std::min(offset + factor * (plain[i] - offset), largest);
            ASSERT_NEAR(other[i], expected, 0.5 + 0.51 * factor) << exposure << " x " << gain;
        }
    }
}

TEST(StereoCamera, NoiseFollowsThePhotonTransferCurve) {
    StereoRig rig = small_rig(true);
    rig.sensor.fullWell = 4000;
    rig.sensor.readNoise = 20;
    const ShapePtr wall = half_space({0, 0, 0}, {0, -1, 0});
    const RigidMatrix view = look_at({0, -400, 0}, {0, 0, 0});
    const StereoCamera camera(rig);
    const StereoPair one = camera.take(*wall, view, 0), two = camera.take(*wall, view, 1);
    EXPECT_EQ(one.left.pixels, StereoCamera(rig, 1).take(*wall, view, 0).left.pixels) << "any number of threads";
    EXPECT_NE(one.left.pixels, two.left.pixels);
    struct Bin {
        double squares = 0, sum = 0;
        int count = 0;
    };
    std::vector<Bin> bins(6);
    for (const auto image : {&StereoPair::left, &StereoPair::right}) {
        const std::vector<std::uint8_t>&a = (one.*image).pixels, &b = (two.*image).pixels;
        for (std::size_t i = 0; i < a.size(); ++i) {
            const double mean = 0.5 * (a[i] + b[i]);
            const auto bin = static_cast<std::size_t>((mean - 10) / 35);
            if (mean < 10 || bin >= bins.size() || a[i] == 255 || b[i] == 255) continue;
            bins[bin].squares += 0.5 * (a[i] - b[i]) * (a[i] - b[i]);
            bins[bin].sum += mean;
            ++bins[bin].count;
        }
    }
    const double gain = 255.0 / rig.sensor.fullWell;
    for (std::size_t i = 0; i < 5; ++i) {
        const Bin& bin = bins[i];
        ASSERT_GT(bin.count, 1000) << i;
        const double mean = bin.sum / bin.count - rig.sensor.darkOffset;
        const double expected = gain * mean + std::pow(gain * rig.sensor.readNoise, 2) + 1.0 / 12.0;
        EXPECT_NEAR(bin.squares / bin.count / expected, 1, 0.1) << "at " << mean;
    }
}

TEST(SpeckleTexture, MeansUnderFootprintsAreMeansOfPoints) {
    SpecklePattern pattern;
    pattern.width = 160;
    pattern.height = 120;
    const SpeckleTexture texture(pattern);
    const Eigen::Matrix2d point = 0.01 * Eigen::Matrix2d::Identity();
    const std::tuple<double, double, double, double> cases[] = {
        {0.6, 0.6, 0, 0.012}, {3, 3, 0, 0.005}, {4, 1, -1, 0.006}};
    for (const auto& [major, minor, angle, tolerance] : cases) {
        const Vector2d along(std::cos(angle), std::sin(angle)), across(-along.y(), along.x());
        const Eigen::Matrix2d covariance =
            major * major * along * along.transpose() + minor * minor * across * across.transpose();
        double squares = 0;
        for (int n = 0; n < 30; ++n) {
            const Vector2d centre(40 + 2.71 * n, 30 + 1.83 * n);
            double sum = 0, weights = 0;
            for (double u = -3; u <= 3; u += 0.125)
                for (double v = -3; v <= 3; v += 0.125) {
                    const double weight = std::exp(-0.5 * (u * u + v * v));
                    sum += weight * texture.mean_under(centre + major * u * along + minor * v * across, point);
                    weights += weight;
                }
            squares += std::pow(sum / weights - texture.mean_under(centre, covariance), 2) / 30;
        }
        EXPECT_LT(std::sqrt(squares), tolerance) << major << " x " << minor;
    }
    EXPECT_NEAR(texture.mean_under({80, 60}, 400 * Eigen::Matrix2d::Identity()), 0.52, 0.05) << "half is bright";
    EXPECT_EQ(texture.mean_under({-2, 60}, point), 0.0F);
}

}  // namespace
}  // namespace VexelAlgorithm::Simulation
