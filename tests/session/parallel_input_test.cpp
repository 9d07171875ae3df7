// Frames by way of the session's worker: order, accounting, pauses, callbacks that misbehave, ends in every state.
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>

#include "tests/session/sessionScenes.h"

namespace {

using namespace VexelAlgorithm;
using Ids = std::vector<std::int64_t>;

enum class Reported { Success, Fail, Illegal };

struct Event {
    FusionparallelInputData data;
    Reported by;
    std::size_t points = 0, shown = 0, leaves = 0;
    int accepted = 0, status = -1;
    RigidMatrix relative = {}, pose = {};
    std::thread::id thread = std::this_thread::get_id();
};

/// Where the callbacks of a test write; frames carry a pointer to it.
class Reports {
public:
    /// Runs inside each callback.
    std::function<void(const Event&)> inside = [](const Event&) {};

    void add(const Event& event) {
        {
            const std::lock_guard<std::mutex> lock(_mutex);
            _events.push_back(event);
        }
        _added.notify_all();
        inside(event);
    }
    std::vector<Event> wait_for(std::size_t count) {
        std::unique_lock<std::mutex> lock(_mutex);
        EXPECT_TRUE(_added.wait_for(lock, std::chrono::seconds(100), [&] { return _events.size() >= count; }));
        return _events;
    }
    std::vector<Event> all() { return wait_for(0); }
    Ids ids(std::size_t count = 0) {
        Ids result;
        for (const Event& event : wait_for(count)) result.push_back(event.data.frameId);
        return result;
    }

private:
    std::mutex _mutex;
    std::condition_variable _added;
    std::vector<Event> _events;
};

void report(const Event& event) {
    static_cast<Reports*>(event.data.user)->add(event);
}

void on_success(const Cloud& shown, const std::vector<int>& leaves, int accepted, const Cloud& points,
                const RigidMatrix& relative, const RigidMatrix& pose, FusionparallelInputData* data, int status) {
    report(
        {*data, Reported::Success, points.get_vn(), shown.get_vn(), leaves.size(), accepted, status, relative, pose});
}

void on_fail(const Cloud& points, FusionparallelInputData* data) {
    report({*data, Reported::Fail, points.get_vn()});
}

void on_illegal(FusionparallelInputData* data) {
    report({*data, Reported::Illegal});
}

/// A small scan whose session reports to `reports`, which may outlive it.
struct ParallelScan {
    ParallelScan() : scan("smooth", 80), session(with_tiny_color_camera(scan.records)) {
        set_fusion_success_call_back(session, on_success);
        set_fusion_fail_call_back(session, on_fail);
        set_illegal_input_call_back(session, on_illegal);
    }
    static const Records& with_tiny_color_camera(Records& records) {
        records.fusion.colorImageSize = {2, 1};
        return records;
    }
    FusionparallelInputData data(std::int64_t id, int maxQueued = 100, int wait = 0) const {
        FusionparallelInputData data;
        data.frameId = id;
        data.user = reports.get();
        data.maxQueued = maxQueued;
        data.waitMilliseconds = wait;
        return data;
    }
    RetVal load(int frame, int maxQueued = 100, int wait = 0) {
        return fusion_and_track_parallel(session, scan.frame(frame % 8), data(frame, maxQueued, wait));
    }

    Scan scan;
    std::shared_ptr<Reports> reports = std::make_shared<Reports>();
    Session session;  // ends first: its worker reports
};

/// Holds the worker inside the callback for frame 0 until it is opened. What the worker waits on is also its own,
/// because it may come past once more when the test has ended.
class Gate {
public:
    explicit Gate(ParallelScan& parallel) {
        parallel.reports->inside = [state = _state](const Event&) {
            state->isReached = true;
            while (!state->isOpen) std::this_thread::yield();
        };
        EXPECT_EQ(parallel.load(0), RET_SUCCESS);
        while (!_state->isReached) std::this_thread::yield();
    }
    void open() { _state->isOpen = true; }
    std::thread open_soon() {
        return std::thread([this] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            open();
        });
    }

private:
    struct State {
        std::atomic<bool> isReached{false}, isOpen{false};
    };
    const std::shared_ptr<State> _state = std::make_shared<State>();
};

Ids ids_up_to(std::size_t count) {
    Ids result(count);
    std::iota(result.begin(), result.end(), 0);
    return result;
}

TEST(ParallelInput, DoesWhatDirectFrameStepsDoAndTellsIt) {
    ParallelScan parallel;
    Session direct(parallel.scan.records);
    constexpr int kDirect = 6;
    std::vector<RigidMatrix> poses;
    for (int i = 0; i < kDirect; ++i) {
        PointImage frame = parallel.scan.frame(i);
        frame.rigid_transformation(RigidMatrix(Matrix3d::Identity(), Vector3d(10.0 * i, 0, 0)));
        ASSERT_TRUE(direct.step(frame));
        poses.push_back(get_current_rt(direct));
        ASSERT_EQ(fusion_and_track_parallel(parallel.session, frame, parallel.data(i)), RET_SUCCESS);
    }
    PointImage moved = parallel.scan.frame(0);
    ASSERT_EQ(fusion_and_track_parallel(parallel.session, std::move(moved), parallel.data(kDirect)), RET_SUCCESS);
    EXPECT_EQ(moved.get_vn(), 0U) << "taken over";
    PointImage plain = parallel.scan.frame(0), empty = plain;
    plain.disable_vWeight();
    empty.setZero();
    ASSERT_EQ(fusion_and_track_parallel(parallel.session, plain, parallel.data(kDirect + 1)), RET_SUCCESS);
    ASSERT_EQ(fusion_and_track_parallel(parallel.session, empty, parallel.data(kDirect + 2)), RET_SUCCESS);

    const std::vector<Event> events = parallel.reports->wait_for(kDirect + 3);
    ASSERT_EQ(parallel.reports->ids(), ids_up_to(kDirect + 3));
    for (std::size_t i = 0; i < kDirect; ++i) {
        SCOPED_TRACE(i);
        const Event& event = events[i];
        EXPECT_EQ(event.by, Reported::Success);
        EXPECT_EQ(event.data.outcome, i == 0 ? FrameOutcome::FirstFrame : FrameOutcome::Fused);
        EXPECT_EQ(event.status, static_cast<int>(event.data.outcome));
        EXPECT_EQ(event.pose.get_translation(), poses[i].get_translation());
        EXPECT_EQ(event.accepted, static_cast<int>(i) + 1);
        EXPECT_EQ(event.points, 80U * 64U);
        EXPECT_GT(event.shown, 500U);
        EXPECT_GT(event.leaves, 500U);
        EXPECT_NE(event.thread, std::this_thread::get_id());
        EXPECT_EQ(event.thread, events[0].thread);
        if (i == 0) continue;
        EXPECT_LT(pose_error(events[i - 1].pose * event.relative, event.pose).norm(), 1e-6);
        EXPECT_GT(event.data.elapsedMicroseconds, 0);
    }
    const Event &illegal = events[kDirect + 1], &failed = events[kDirect + 2];
    EXPECT_EQ(illegal.by, Reported::Illegal);
    EXPECT_EQ(illegal.data.outcome, FrameOutcome::MissingAttributes);
    EXPECT_EQ(failed.by, Reported::Fail);
    EXPECT_EQ(failed.data.outcome, FrameOutcome::TooFewPoints);
}

TEST(ParallelInput, AProducerThatIsTooFastIsRefusedOrSlowedAndEveryFrameIsAccountedFor) {
    ParallelScan parallel;
    Gate gate(parallel);
    ASSERT_EQ(parallel.load(1, 1), RET_SUCCESS);
    PointImage kept = parallel.scan.frame(2);
    for (const int wait : {0, 20}) {
        EXPECT_EQ(outcome([&] {
                      return fusion_and_track_parallel(parallel.session, std::move(kept), parallel.data(99, 1, wait));
                  }),
                  std::pair(RET_STATE_ERROR, can_not("fusion_and_track_parallel", "1 frames are waiting already")));
        EXPECT_EQ(kept.get_vn(), 80U * 64U) << "what is refused stays the caller's";
    }
    std::thread opener = gate.open_soon();
    for (int i = 2; i < 30; ++i) EXPECT_EQ(parallel.load(i, 2, 60000), RET_SUCCESS);
    opener.join();
    EXPECT_EQ(parallel.reports->ids(30), ids_up_to(30));
}

TEST(ParallelInput, APauseHoldsFramesBackAndRefusesNewOnes) {
    ParallelScan parallel;
    const std::string refused = "illegal data input because _isPause == true \n";
    ASSERT_EQ(fusion_paralle_pause(parallel.session), RET_SUCCESS) << "also before the first frame";
    EXPECT_EQ(outcome([&] { return parallel.load(0); }), std::pair(RET_PAUSED, refused));
    ASSERT_EQ(fusion_paralle_start(parallel.session), RET_SUCCESS);

    Gate gate(parallel);
    ASSERT_EQ(parallel.load(1, 1), RET_SUCCESS);
    RetVal waiting = RET_SUCCESS, paused = RET_RUN_FAIL;
    EXPECT_EQ(printed([&] {
                  std::thread producer([&] { waiting = parallel.load(2, 1, 60000); });
                  std::this_thread::sleep_for(std::chrono::milliseconds(20));
                  std::thread pauser([&] { paused = fusion_paralle_pause(parallel.session); });
                  producer.join();  // sent away by the pause, while the worker is still inside the callback
                  gate.open();
                  pauser.join();
              }),
              refused);
    EXPECT_EQ(waiting, RET_PAUSED);
    EXPECT_EQ(paused, RET_SUCCESS);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(parallel.reports->ids(), ids_up_to(1)) << "the worker rests";
    EXPECT_TRUE(parallel.session.step(parallel.scan.frame(2))) << "direct frame steps do not pause";
    ASSERT_EQ(fusion_paralle_start(parallel.session), RET_SUCCESS);
    EXPECT_EQ(parallel.reports->ids(2), ids_up_to(2));
}

TEST(ParallelInput, FramesAndColoursMeetInEitherOrder) {
    ParallelScan parallel;
    const auto color = [](std::uint8_t value) { return ColorImage{2, 1, std::vector<std::uint8_t>(6, value)}; };
    const auto load_color = [&](std::int64_t id) {
        return fusion_and_track_parallel_load_color(parallel.session, color(static_cast<std::uint8_t>(id)), id);
    };
    const auto load_cloud = [&](std::int64_t id, int wait) {
        FusionparallelInputData data = parallel.data(id);
        data.colorWaitMilliseconds = wait;
        return fusion_and_track_parallel_load_cloud(parallel.session, parallel.scan.frame(0), data);
    };
    ASSERT_EQ(load_color(0), RET_SUCCESS);
    ASSERT_EQ(load_cloud(0, 60000), RET_SUCCESS);
    ASSERT_EQ(load_cloud(1, 60000), RET_SUCCESS);
    ASSERT_EQ(load_cloud(2, 0), RET_SUCCESS);  // behind one that waits
    EXPECT_EQ(parallel.reports->wait_for(1)[0].data.color.bytes, color(0).bytes);
    ASSERT_EQ(load_color(1), RET_SUCCESS);
    const std::vector<Event> events = parallel.reports->wait_for(3);
    EXPECT_EQ(parallel.reports->ids(), ids_up_to(3));
    EXPECT_EQ(events[1].data.color.bytes, color(1).bytes);
    EXPECT_TRUE(events[2].data.color.bytes.empty());

    const std::string lines = printed([&] {
        for (int id = 100; id < 117; ++id) EXPECT_EQ(load_color(id), RET_SUCCESS);
    });
    EXPECT_EQ(lines,
              "fusion_and_track_parallel_load_color: the colour of frame 100 is dropped because no frame has taken "
              "it\n");
}

TEST(ParallelInput, ResetAndReleaseReportWhatWaitsAndTheSessionIsAsNew) {
    std::shared_ptr<Reports> reports;
    {
        ParallelScan parallel;
        reports = parallel.reports;
        const auto call_with_frames_queued = [&](RetVal (*call)(void*)) {
            Gate gate(parallel);
            for (int i = 1; i < 4; ++i) EXPECT_EQ(parallel.load(i), RET_SUCCESS);
            std::thread opener = gate.open_soon();
            EXPECT_EQ(call(parallel.session), RET_SUCCESS);
            opener.join();
        };
        std::size_t before = 0;
        for (RetVal (*reset)(void*) : {fusion_reset, fusion_reset_withoutTex, fusion_tree_reset}) {
            call_with_frames_queued(reset);
            const std::vector<Event> events = reports->all();
            ASSERT_EQ(events.size(), before + 4) << "all reported when the call returns";
            EXPECT_EQ(events[before].by, Reported::Success);
            for (std::size_t i = 1; i < 4; ++i) {
                EXPECT_EQ(events[before + i].data.frameId, static_cast<std::int64_t>(i));
                EXPECT_EQ(events[before + i].by, Reported::Fail);
                EXPECT_EQ(events[before + i].data.outcome, FrameOutcome::GivenUp);
            }
            EXPECT_EQ(get_show_data(parallel.session).get_vn(), 0U);
            before = events.size();
        }
        call_with_frames_queued(fusion_paralle_pause);
        EXPECT_EQ(reports->all().size(), before + 1);
    }
    Ids expected;
    for (std::int64_t i = 0; i < 16; ++i) expected.push_back(i % 4);
    EXPECT_EQ(reports->ids(), expected) << "a release reports too, even of a paused session";
}

TEST(ParallelInput, CallbacksMayUseTheSessionButNotStopItsWorker) {
    ParallelScan parallel;
    void* handle = parallel.session;
    std::atomic<bool> isDone{false};
    parallel.reports->inside = [&](const Event& event) {
        if (event.data.frameId != 0) return;
        EXPECT_GT(get_show_data(handle).get_vn(), 500U);
        EXPECT_EQ(get_current_rt(handle).get_translation(), event.pose.get_translation());
        EXPECT_EQ(parallel.session.state().outcome, FrameOutcome::FirstFrame);
        EXPECT_GT(parallel.session.mesh().get_fn(), 100U);
        EXPECT_EQ(fusion_set_fusionrange(handle, 4), RET_SUCCESS);
        for (RetVal (*reset)(void*) : {fusion_reset, fusion_reset_withoutTex, fusion_tree_reset})
            EXPECT_EQ(reset(handle), RET_STATE_ERROR);
        EXPECT_EQ(fusiontrack_release(handle), RET_STATE_ERROR);
        EXPECT_EQ(parallel.load(1, 1, 60000), RET_SUCCESS);
        EXPECT_EQ(parallel.load(2, 1, 60000), RET_STATE_ERROR) << "would wait for itself";
        EXPECT_EQ(fusion_paralle_pause(handle), RET_SUCCESS);
        isDone = true;
    };
    const std::string lines = printed([&] {
        ASSERT_EQ(parallel.load(0), RET_SUCCESS);
        while (!isDone) std::this_thread::yield();
    });
    const std::string self = "a callback of the session is calling it";
    std::string expected;
    for (const char* name : {"fusion_reset", "fusion_reset_withoutTex", "fusion_tree_reset", "fusiontrack_release"})
        expected += can_not(name, self);
    EXPECT_EQ(lines, expected + can_not("fusion_and_track_parallel", "1 frames are waiting already"));
    EXPECT_EQ(parallel.load(3), RET_PAUSED);
    ASSERT_EQ(fusion_paralle_start(parallel.session), RET_SUCCESS);
    EXPECT_EQ(parallel.reports->wait_for(2)[1].data.outcome, FrameOutcome::Fused);
}

TEST(ParallelInput, WhatACallbackThrowsIsALine) {
    ParallelScan parallel;
    parallel.reports->inside = [](const Event& event) {
        if (event.data.frameId == 0) throw std::runtime_error("no screen");
        if (event.data.frameId == 1) throw 1;
    };
    PointImage plain = parallel.scan.frame(1);
    plain.disable_vFlag();
    EXPECT_EQ(printed([&] {
                  parallel.load(0);
                  fusion_and_track_parallel(parallel.session, plain, parallel.data(1));
                  parallel.load(2);
                  EXPECT_EQ(parallel.reports->wait_for(3)[2].by, Reported::Success);
              }),
              "the function given to set_fusion_success_call_back failed: no screen\n"
              "the PointImage uesed to fusion mush contain normal and weight and vFlag attribute \n"
              "the function given to set_illegal_input_call_back failed: unknown exception\n");
}

TEST(ParallelInput, BadArgumentsAreRefusedWithALine) {
    ParallelScan parallel;
    const std::tuple<int FusionparallelInputData::*, int, const char*> cases[] = {
        {&FusionparallelInputData::maxQueued, 0, "maxQueued is not between 1 and 256"},
        {&FusionparallelInputData::maxQueued, 257, "maxQueued is not between 1 and 256"},
        {&FusionparallelInputData::waitMilliseconds, 60001, "waitMilliseconds is not between 0 and 60000"},
        {&FusionparallelInputData::colorWaitMilliseconds, -1, "colorWaitMilliseconds is not between 0 and 60000"},
    };
    const PointImage frame = parallel.scan.frame(0);
    for (const auto& [field, value, reason] : cases) {
        FusionparallelInputData data = parallel.data(0);
        data.*field = value;
        EXPECT_EQ(outcome([&] { return fusion_and_track_parallel_load_cloud(parallel.session, frame, data); }),
                  std::pair(RET_INPUT_ERROR, can_not("fusion_and_track_parallel_load_cloud", reason)));
    }
    EXPECT_TRUE(parallel.reports->all().empty());

    const std::pair<std::string, std::function<RetVal()>> withoutHandle[] = {
        {"", [&] { return fusion_and_track_parallel(nullptr, frame, {}); }},
        {"", [] { return fusion_and_track_parallel(nullptr, PointImage(), {}); }},
        {"_load_cloud", [&] { return fusion_and_track_parallel_load_cloud(nullptr, frame, {}); }},
        {"_load_cloud", [] { return fusion_and_track_parallel_load_cloud(nullptr, PointImage(), {}); }},
        {"_load_color", [] { return fusion_and_track_parallel_load_color(nullptr, {}, 0); }}};
    for (const auto& [name, call] : withoutHandle)
        EXPECT_EQ(outcome(call),
                  std::pair(RET_INPUT_ERROR, can_not("fusion_and_track_parallel" + name, "pFusionTrack = NULL")));
    for (const auto& [name, call] : {std::pair("pause", fusion_paralle_pause), {"start", fusion_paralle_start}})
        EXPECT_EQ(outcome([&, &call = call] { return call(nullptr); }),
                  std::pair(RET_INPUT_ERROR, can_not(std::string("fusion_paralle_") + name, "pFusionTrack = NULL")));
}

TEST(ParallelInput, ProducersPausesResetsAndDirectStepsInAnyMixtureLoseNoFrame) {
    ParallelScan parallel;
    std::atomic<bool> isRunning{true};
    std::multiset<std::int64_t> taken[2];
    printed([&] {
        const auto produce = [&](int producer) {
            for (int i = 0; i < 20; ++i) {
                const int id = 100 * producer + i;
                if (parallel.load(id, 2, i % 2 == 0 ? 0 : 1000) == RET_SUCCESS) taken[producer].insert(id);
            }
        };
        std::thread one(produce, 0), other(produce, 1);
        std::thread panel([&] {
            while (isRunning) {
                fusion_paralle_pause(parallel.session);
                parallel.session.step(parallel.scan.frame(0));
                fusion_paralle_start(parallel.session);
                fusion_reset(parallel.session);
            }
        });
        std::thread second_panel([&] {
            while (isRunning) {
                fusion_tree_reset(parallel.session);
                get_current_rt(parallel.session);
                std::this_thread::yield();
            }
        });
        one.join();
        other.join();
        isRunning = false;
        panel.join();
        second_panel.join();
        fusion_reset(parallel.session);
    });
    const Ids reported = parallel.reports->ids();
    taken[0].merge(taken[1]);
    EXPECT_EQ(std::multiset<std::int64_t>(reported.begin(), reported.end()), taken[0]);
}

}  // namespace
