// Whole hand-held scans against the truth of the virtual world: every frame tracked, frames from elsewhere refused, the
// bare plane found out.
#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;

Scan object_scan(const char* name) {
    Scan scan(name, 160, 0.1);
    VexelTrial::reach_far(scan.records.track);
    return scan;
}

// The bounds belong to small images: 1.6 mm from pixel to pixel, voxels of 2 mm.
TEST(VirtualSequence, EveryFrameIsTrackedCloseToTheTruth) {
    const std::tuple<const char*, int, double, double, double> cases[] = {
        {"arc", 20, 0.3, 0.05, 0.3}, {"smooth", 30, 0.3, 0.05, 0.2}, {"fast", 30, 0.3, 0.05, 0.1}};
    for (const auto& [name, frames, millimetres, degrees, surface] : cases) {
        const Scan scan = object_scan(name);
        Session session(scan.records);
        Vector2d squares = Vector2d::Zero();
        for (int i = 0; i < frames; ++i) {
            EXPECT_TRUE(session.step(scan.frame(i))) << name << ' ' << i;
            squares += pose_error(scan.sequence.pose_in_model(i), get_current_rt(session)).cwiseAbs2();
        }
        const Vector2d rms = (squares / frames).cwiseSqrt();
        EXPECT_LT(rms.x(), millimetres) << name;
        EXPECT_LT(rms.y(), degrees) << name;
        EXPECT_LT(rms_of(scan.off_surface(session.mesh().get_vCoords())), surface) << name;
    }
}

/// Translation (mm) and rotation about an axis of the camera (degrees).
RigidMatrix motion(const Vector3d& translation, const Vector3d& degrees) {
    return {turned(degrees * std::acos(-1.0) / 180.0), translation};
}

// The tracker's own test goes over the whole grid of what the particles reach.
TEST(VirtualSequence, JumpsWithinTheParticlesReachAreTracked) {
    const Scan scan = object_scan("smooth");
    const double size = double{scan.records.track.icpParticleSize};
    for (const RigidMatrix& jump :
         {motion({2 * size, 2 * size, 0}, {2, 0, 0}), motion({size, -size, 0}, {0, 2, -15})}) {
        Session session(scan.records);
        ASSERT_TRUE(session.step(scan.frame(0)));
        EXPECT_TRUE(session.step(Simulation::frame_from(scan.sequence, scan.sequence.poses.front() * jump, 1)));
        const Vector2d error = pose_error(jump, get_current_rt(session));
        EXPECT_TRUE(error.x() < 1.0 && error.y() < 0.15) << "off by " << error.transpose();
    }
}

TEST(VirtualSequence, FramesFromElsewhereAreRefusedAndChangeNothing) {
    const Scan scan = object_scan("smooth");
    Session session(scan.records);
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(session.step(scan.frame(i)));
    const std::string before = session.bytes();
    const RigidMatrix& place = scan.sequence.poses[4];
    std::string lines;
    for (const RigidMatrix& away : {motion({0, 0, 0}, {0, 0, 90}), motion({0, 0, -150}, {0, 0, 0}),
                                    motion({0, 120, 0}, {20, 0, 40}), motion({0, 0, 0}, {25, 0, 0})}) {
        const PointImage frame = Simulation::frame_from(scan.sequence, place * away, 99);
        lines += printed([&] { EXPECT_FALSE(session.step(frame)) << away.get_translation().transpose(); });
        EXPECT_TRUE(session.state().isLost);
        EXPECT_GE(session.state().outcome, FrameOutcome::TooFewPoints);
        EXPECT_LE(session.state().outcome, FrameOutcome::NotConverged);
        EXPECT_TRUE(session.bytes() == before);
    }
    EXPECT_NE(lines.find("icp false" + std::string(115, 'e') + " \n"), std::string::npos);
    EXPECT_TRUE(session.step(scan.frame(5)));
}

TEST(VirtualSequence, TheBarePlaneIsReportedUnstableAndTheBlocksAreNot) {
    const Scan plane("bare_plane", 160), blocks("smooth", 160);
    Session slides(plane.records), holds(blocks.records);
    for (int i = 0; i < 6; ++i) {
        printed([&] { slides.step(plane.frame(i)); });
        printed([&] { holds.step(blocks.frame(i)); });
        if (i == 0) continue;
        EXPECT_FALSE(slides.state().isStable) << i;
        EXPECT_TRUE(holds.state().isStable) << i;
    }
}

}  // namespace
