// The complete chain: raw stereo pairs of a virtual scanner go through vexel-scan scan, and the mesh is measured
// against the surface that was scanned. VEXEL_CHAIN_RECORDING names a recording of the owl to be measured in place of
// the small one that the test makes.
#include <gtest/gtest.h>

#include <Eigen/Cholesky>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sstream>

#include "ToolTest.h"
#include "recording/StereoRecording.h"
#include "simulation/scenes.h"

namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using VexelTest::bytes_of;
using VexelTest::quoted;
using VexelTest::ToolRun;

std::vector<Vector3d> vertices_of_obj(const fs::path& file) {
    std::vector<Vector3d> vertices;
    std::istringstream text(bytes_of(file));
    for (std::string line; std::getline(text, line);) {
        std::istringstream words(line);
        std::string kind;
        Vector3d point;
        if (words >> kind && kind == "v" && words >> point.x() >> point.y() >> point.z()) vertices.push_back(point);
    }
    return vertices;
}

/// Distances of points to a surface.
struct Deviation {
    double rms = 0.0;
    double mean = 0.0;
    double share95 = 0.0;  ///< 95 % are nearer
    double largest = 0.0;
};

Deviation deviation(const std::vector<Vector3d>& points, const RigidMatrix& toWorld, const Simulation::Shape& truth) {
    std::vector<double> sizes;
    double sum = 0.0, squares = 0.0;
    for (const Vector3d& point : points) {
        const double distance = Simulation::distance_by_descent(truth, toWorld * point);
        sum += distance;
        squares += distance * distance;
        sizes.push_back(std::abs(distance));
    }
    std::sort(sizes.begin(), sizes.end());
    const auto count = static_cast<double>(points.size());
    return {std::sqrt(squares / count), sum / count, sizes[sizes.size() * 95 / 100], sizes.back()};
}

/// The motion that brings the points closest to the surface: Gauss-Newton steps on the distances.
RigidMatrix best_fit(const std::vector<Vector3d>& points, RigidMatrix toWorld, const Simulation::Shape& truth) {
    const std::size_t step = std::max<std::size_t>(1, points.size() / 5000);
    for (int iteration = 0; iteration < 6; ++iteration) {
        Eigen::Matrix<double, 6, 6> normal = Eigen::Matrix<double, 6, 6>::Zero();
        Eigen::Matrix<double, 6, 1> right = Eigen::Matrix<double, 6, 1>::Zero();
        for (std::size_t i = 0; i < points.size(); i += step) {
            const Vector3d point = toWorld * points[i];
            const double distance = Simulation::distance_by_descent(truth, point);
            const Vector3d direction = truth.gradient(point).normalized();
            if (!(std::abs(distance) < 2.0) || !direction.allFinite()) continue;
            Eigen::Matrix<double, 6, 1> row;
            row << point.cross(direction), direction;
            normal += row * row.transpose();
            right -= row * distance;
        }
        const Eigen::Matrix<double, 6, 1> motion = normal.ldlt().solve(right);
        Matrix3d turn;
        rodrigures(motion.head<3>(), turn);
        toWorld = RigidMatrix(turn, motion.tail<3>()) * toWorld;
    }
    return toWorld;
}

class Chain : public VexelTest::ToolTest {
protected:
    fs::path given_or_made() const {
        const char* given = std::getenv("VEXEL_CHAIN_RECORDING");
        if (given != nullptr) return given;
        const fs::path folder = path("recording");
        const ToolRun made = run("simulate --stereo --noise --frames 8 --width 640 --height 512 " + quoted(folder));
        EXPECT_EQ(made.exitCode, 0) << made.errors;
        return folder;
    }
    fs::path coarse_settings() const {
        VexelTest::put_bytes(path("coarse.yml"), "fusion:\n   pointDis: 1\ncommon:\n   rawPointDis: 0.8\n");
        return path("coarse.yml");
    }
    bool is_small() const { return fs::exists(path("recording")); }
};

TEST_F(Chain, FromRawPairsToAMeshThatMatchesTheScannedSurface) {
    const fs::path recording = given_or_made();
    const fs::path out = path("out");
    // Voxels as large as the points of the small images are apart.
    const ToolRun scanned = run("scan " + quoted(recording) + " --truth --format obj --out " + quoted(out) +
                                (is_small() ? " --settings " + quoted(coarse_settings()) : ""));
    ASSERT_EQ(scanned.exitCode, 0) << scanned.errors << scanned.output;
    const auto report = nlohmann::json::parse(bytes_of(out / "report.json"));
    EXPECT_EQ(report["input"]["frames_tracked"], report["input"]["frames_selected"]);

    const Outcome<StereoRecording> pairs = StereoRecording::open(recording);
    ASSERT_TRUE(pairs) << pairs.failure().reason;
    const RigidMatrix toWorld = *pairs->pairs().front().leftToWorld;
    const std::vector<Vector3d> vertices = vertices_of_obj(out / "mesh.obj");
    ASSERT_GT(vertices.size(), 10000u);
    const Simulation::ShapePtr truth = Simulation::make_scene("owl_on_table");
    const Deviation given = deviation(vertices, toWorld, *truth);
    const Deviation fitted = deviation(vertices, best_fit(vertices, toWorld, *truth), *truth);
    for (const auto& [name, found] : {std::pair("first pose", given), std::pair("best fit", fitted)})
        std::printf("%-11s rms %.4f mm, mean %+.4f, 95 %% within %.4f, largest %.3f, %zu vertices\n", name, found.rms,
                    found.mean, found.share95, found.largest, vertices.size());
    EXPECT_LT(fitted.rms, is_small() ? 0.22 : 0.15);
    EXPECT_LT(std::abs(fitted.mean), 0.05);
}

}  // namespace
