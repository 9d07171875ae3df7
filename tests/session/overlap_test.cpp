// What may overlap a frame step, from plain threads.
#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;

constexpr int kFrames = 6;

std::vector<PointImage> frames_of(const Scan& scan) {
    std::vector<PointImage> frames;
    for (int i = 0; i < kFrames; ++i) frames.push_back(scan.frame(i));
    return frames;
}

void ignore_success(const Cloud&, const std::vector<int>&, int, const Cloud&, const RigidMatrix&, const RigidMatrix&,
                    FusionparallelInputData*, int) {}

TEST(Overlap, DisplayPosesAndSettingsDuringFrameSteps) {
    Scan scan("smooth");
    scan.records.fusion.codeNumSet = 2;
    const std::vector<PointImage> frames = frames_of(scan);
    Session session(scan.records);
    std::atomic<bool> isScanning{true};
    std::atomic<int> accepted{0};

    std::thread camera([&] {
        for (const PointImage& frame : frames) accepted += session.step(frame) ? 1 : 0;
        isScanning = false;
    });
    std::size_t shown = 0;
    std::thread screen([&] {
        while (isScanning) {
            const Cloud& cloud = get_show_data(session);
            Vector3f sum = Vector3f::Zero();
            for (const Vector3f& point : cloud.get_vCoords()) sum += point;
            EXPECT_TRUE(sum.allFinite());
            shown = std::max(shown, cloud.get_vn());
        }
    });
    std::thread panel([&] {
        Vector3f shift, low, high;
        BaseTriMesh mesh;
        while (isScanning) {
            EXPECT_TRUE(get_current_rt(session).is_finite());
            EXPECT_LE(session.state().acceptedFrames, kFrames);
            reset_icpDisThread(session, 0.6F);
            reset_rata_ray(session, {0.1F, 0.1F});
            shoule_we_debug_fusion(session, true, 0);
            set_fusion_success_call_back(session, ignore_success);
            get_model2Volum_shift(session, shift);
            // These wait for the step, and the next step for them.
            get_treeShift(session, shift);
            set_track_speed_threshold(session, 40.0F, 1.0F);
            get_fusion_result_tbb(session, 0.0F, mesh);
        }
    });
    for (std::thread* thread : {&camera, &screen, &panel}) thread->join();
    EXPECT_EQ(accepted, kFrames);
    EXPECT_GT(std::max(shown, get_show_data(session).get_vn()), 1000U);
    EXPECT_LT(pose_error(scan.sequence.pose_in_model(kFrames - 1), get_current_rt(session)).x(), 0.5);
}

TEST(Overlap, ASecondFrameIsRefusedWithALine) {
    const Scan scan("smooth");
    const std::vector<PointImage> frames = frames_of(scan);
    Session session(scan.records);
    ASSERT_TRUE(session.step(frames[0]));
    std::atomic<int> ready{0}, refused{0}, accepted{1};
    const std::string lines = printed([&] {
        const auto give = [&] {
            ++ready;
            while (ready < 2) std::this_thread::yield();
            for (int i = 1; i < kFrames; ++i) ++(session.step(frames[1]) ? accepted : refused);
        };
        std::thread first(give), second(give);
        first.join();
        second.join();
    });
    EXPECT_GT(refused, 0);
    EXPECT_EQ(session.state().acceptedFrames, accepted);
    EXPECT_EQ(session.state().outcome, FrameOutcome::Fused) << "a refused frame leaves the state alone";
    std::string expected;
    for (int i = 0; i < refused; ++i) expected += can_not("fusion_and_track", "the session is busy with another frame");
    EXPECT_EQ(lines, expected);
}

/// Does in the printed line's function what waits for a frame step: the step that printed, or the other thread's.
struct CuriousApplication {
    void* handle;
    std::atomic<int> lines{0};

    static void look(const char*, std::size_t, void* user) {
        auto& application = *static_cast<CuriousApplication*>(user);
        ++application.lines;
        BaseTriMesh mesh;
        EXPECT_EQ(get_fusion_result_tbb(application.handle, 0.0F, mesh), RET_SUCCESS);
        get_show_data(application.handle);
        set_track_speed_threshold(application.handle, 40.0F, 1.0F);
    }
};

TEST(Overlap, TheFunctionOfRedirectedLinesUsesTheSessionThatPrints) {
    const Scan scan("smooth");
    const std::vector<PointImage> frames = frames_of(scan);
    PointImage empty = frames[0];
    empty.setZero();
    Session session(scan.records);
    ASSERT_TRUE(session.step(frames[0]));
    CuriousApplication application{session};
    set_diagnostics_call_back(CuriousApplication::look, &application);
    const auto give = [&] {
        for (int i = 0; i < 5; ++i) EXPECT_FALSE(session.step(empty));  // two lines, or one where the session is busy
    };
    std::thread first(give), second(give);
    first.join();
    second.join();
    set_diagnostics_call_back(nullptr, nullptr);
    EXPECT_GE(application.lines, 10);
    EXPECT_LE(application.lines, 20);
}

TEST(Overlap, SessionsAreIndependent) {
    const Scan scan("smooth");
    const std::vector<PointImage> frames = frames_of(scan);
    Session alone(scan.records), one(scan.records), other(scan.records);
    const auto scan_all = [&](Session& session) {
        for (const PointImage& frame : frames) EXPECT_TRUE(session.step(frame));
    };
    scan_all(alone);
    std::thread first([&] { scan_all(one); }), second([&] { scan_all(other); });
    first.join();
    second.join();
    EXPECT_EQ(one.bytes(), alone.bytes());
    EXPECT_EQ(other.bytes(), alone.bytes());
}

}  // namespace
