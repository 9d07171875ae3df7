// Frames by way of the session's worker: order, accounting, pauses, callbacks that misbehave, ends in every state.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "tests/session/sessionScenes.h"

namespace VexelAlgorithm {
namespace {

using Outcomes = std::vector<FrameOutcome>;

enum class Reported { Success, Fail, Illegal };

struct Event {
    std::int64_t frameId;
    Reported by;
    FusionparallelInputData data;
    RigidMatrix relative = {}, pose = {};
    std::size_t shown = 0, points = 0;
    int leaves = 0, accepted = 0, status = -1;
    std::thread::id thread = {};
};

/// Where the callbacks of a test write; frames carry a pointer to it.
class Reports {
public:
    /// Runs inside each callback.
    std::function<void(const Event&)> inside = [](const Event&) {};

    void add(Event event) {
        event.thread = std::this_thread::get_id();
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

private:
    std::mutex _mutex;
    std::condition_variable _added;
    std::vector<Event> _events;
};

Reports& reports_of(const FusionparallelInputData* data) {
    return *static_cast<Reports*>(data->user);
}

void on_success(const Cloud& shown, const std::vector<int>& leaves, int accepted, const Cloud& points,
                const RigidMatrix& relative, const RigidMatrix& pose, FusionparallelInputData* data, int status) {
    Event event{data->frameId, Reported::Success, *data};
    event.relative = relative;
    event.pose = pose;
    event.shown = shown.get_vn();
    event.points = points.get_vn();
    event.leaves = static_cast<int>(leaves.size());
    event.accepted = accepted;
    event.status = status;
    reports_of(data).add(event);
}

void on_fail(const Cloud& points, FusionparallelInputData* data) {
    Event event{data->frameId, Reported::Fail, *data};
    event.points = points.get_vn();
    reports_of(data).add(event);
}

void on_illegal(FusionparallelInputData* data) {
    reports_of(data).add({data->frameId, Reported::Illegal, *data});
}

/// A small scan whose session reports to `reports`.
struct ParallelScan {
    ParallelScan() : scan("smooth", 80), session(scan.records) {
        set_fusion_success_call_back(session, on_success);
        set_fusion_fail_call_back(session, on_fail);
        set_illegal_input_call_back(session, on_illegal);
    }
    FusionparallelInputData data(std::int64_t id) {
        FusionparallelInputData data;
        data.frameId = id;
        data.user = &reports;
        data.maxQueued = 100;
        return data;
    }
    RetVal load(int frame, int maxQueued = 100, int wait = 0) {
        FusionparallelInputData given = data(frame);
        given.maxQueued = maxQueued;
        given.waitMilliseconds = wait;
        return fusion_and_track_parallel(session, scan.frame(frame % 8), given);
    }

    Scan scan;
    Reports reports;
    Session session;  // ends first: its worker reports
};

/// Holds the worker inside its next callback until it is opened. What the worker waits on is also its own, because it
/// may come past once more when the test has ended.
class Gate {
public:
    explicit Gate(Reports& reports) {
        reports.inside = [state = _state](const Event&) {
            std::unique_lock<std::mutex> lock(state->mutex);
            state->isReached = true;
            state->changed.notify_all();
            state->changed.wait(lock, [&] { return state->isOpen; });
        };
    }
    void wait_until_reached() {
        std::unique_lock<std::mutex> lock(_state->mutex);
        _state->changed.wait(lock, [&] { return _state->isReached; });
    }
    void open() {
        const std::lock_guard<std::mutex> lock(_state->mutex);
        _state->isOpen = true;
        _state->changed.notify_all();
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable changed;
        bool isReached = false, isOpen = false;
    };
    const std::shared_ptr<State> _state = std::make_shared<State>();
};

std::vector<std::int64_t> ids(const std::vector<Event>& events) {
    std::vector<std::int64_t> result;
    for (const Event& event : events) result.push_back(event.frameId);
    return result;
}

std::vector<std::int64_t> ids_up_to(std::int64_t count) {
    std::vector<std::int64_t> result;
    for (std::int64_t id = 0; id < count; ++id) result.push_back(id);
    return result;
}

TEST(ParallelInput, DoesWhatDirectFrameStepsDoAndTellsIt) {
    ParallelScan parallel;
    Session direct(parallel.scan.records);
    constexpr int kFrames = 6;
    std::vector<RigidMatrix> poses;
    for (int i = 0; i < kFrames; ++i) {
        ASSERT_TRUE(direct.step(parallel.scan.frame(i)));
        poses.push_back(get_current_rt(direct));
        ASSERT_EQ(parallel.load(i), RET_SUCCESS);
    }
    PointImage moved = parallel.scan.frame(0);
    ASSERT_EQ(fusion_and_track_parallel(parallel.session, std::move(moved), parallel.data(kFrames)), RET_SUCCESS);
    EXPECT_EQ(moved.get_vn(), 0U) << "taken over";
    PointImage plain = parallel.scan.frame(0), empty = plain;
    plain.disable_vWeight();
    empty.setZero();
    ASSERT_EQ(fusion_and_track_parallel(parallel.session, plain, parallel.data(kFrames + 1)), RET_SUCCESS);
    ASSERT_EQ(fusion_and_track_parallel(parallel.session, empty, parallel.data(kFrames + 2)), RET_SUCCESS);

    const std::vector<Event> events = parallel.reports.wait_for(kFrames + 3);
    ASSERT_EQ(ids(events), ids_up_to(kFrames + 3));
    for (std::size_t i = 0; i < kFrames; ++i) {
        SCOPED_TRACE(i);
        const Event& event = events[i];
        EXPECT_EQ(event.by, Reported::Success);
        EXPECT_EQ(event.data.outcome, i == 0 ? FrameOutcome::FirstFrame : FrameOutcome::Fused);
        EXPECT_EQ(event.status, static_cast<int>(event.data.outcome));
        EXPECT_EQ(event.pose.get_translation(), poses[i].get_translation());
        EXPECT_EQ(event.accepted, static_cast<int>(i) + 1);
        EXPECT_EQ(event.points, 80U * 64U);
        EXPECT_GT(event.shown, 500U);
        EXPECT_GT(event.leaves, 500);
        EXPECT_NE(event.thread, std::this_thread::get_id());
        EXPECT_EQ(event.thread, events[0].thread);
        if (i == 0) continue;
        EXPECT_LT(pose_error(events[i - 1].pose * event.relative, event.pose).norm(), 1e-6);
        EXPECT_GT(event.data.elapsedMicroseconds, 0);
    }
    EXPECT_EQ(events[kFrames + 1].by, Reported::Illegal);
    EXPECT_EQ(events[kFrames + 1].data.outcome, FrameOutcome::MissingAttributes);
    EXPECT_EQ(events[kFrames + 2].by, Reported::Fail);
    EXPECT_EQ(events[kFrames + 2].data.outcome, FrameOutcome::TooFewPoints);
}

TEST(ParallelInput, AProducerThatIsTooFastIsSlowedOrRefusedAndEveryFrameIsAccountedFor) {
    for (const int wait : {0, 60000}) {
        SCOPED_TRACE(wait);
        ParallelScan parallel;
        constexpr int kFrames = 30;
        std::vector<std::int64_t> taken;
        const std::string lines = printed([&] {
            for (int i = 0; i < kFrames; ++i) {
                const RetVal result = parallel.load(i, 2, wait);
                if (result == RET_SUCCESS) taken.push_back(i);
                EXPECT_TRUE(result == RET_SUCCESS || result == RET_STATE_ERROR);
            }
        });
        EXPECT_EQ(ids(parallel.reports.wait_for(taken.size())), taken);
        if (wait > 0) {
            EXPECT_EQ(taken.size(), 30U);
            continue;
        }
        EXPECT_LT(taken.size(), 30U);
        std::string expected;
        for (std::size_t i = taken.size(); i < kFrames; ++i) {
            expected += can_not("fusion_and_track_parallel", "2 frames are waiting already");
        }
        EXPECT_EQ(lines, expected);
    }
}

TEST(ParallelInput, WaitsForRoomNoLongerThanAsked) {
    ParallelScan parallel;
    Gate gate(parallel.reports);
    ASSERT_EQ(parallel.load(0), RET_SUCCESS);
    gate.wait_until_reached();
    ASSERT_EQ(parallel.load(1, 1), RET_SUCCESS);
    PointImage kept = parallel.scan.frame(2);
    FusionparallelInputData data = parallel.data(2);
    data.maxQueued = 1;
    data.waitMilliseconds = 20;
    EXPECT_EQ(printed([&] {
                  EXPECT_EQ(fusion_and_track_parallel(parallel.session, std::move(kept), data), RET_STATE_ERROR);
              }),
              can_not("fusion_and_track_parallel", "1 frames are waiting already"));
    EXPECT_EQ(kept.get_vn(), 80U * 64U) << "what is refused stays the caller's";
    gate.open();
    EXPECT_EQ(ids(parallel.reports.wait_for(2)), ids_up_to(2));
}

TEST(ParallelInput, APauseHoldsFramesBackAndRefusesNewOnes) {
    ParallelScan parallel;
    const std::string refused = "illegal data input because _isPause == true \n";
    ASSERT_EQ(fusion_paralle_pause(parallel.session), RET_SUCCESS) << "also before the first frame";
    EXPECT_EQ(printed([&] { EXPECT_EQ(parallel.load(0), RET_PAUSED); }), refused);
    ASSERT_EQ(fusion_paralle_start(parallel.session), RET_SUCCESS);

    Gate gate(parallel.reports);
    ASSERT_EQ(parallel.load(0), RET_SUCCESS);
    gate.wait_until_reached();
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
    EXPECT_EQ(ids(parallel.reports.all()), ids_up_to(1)) << "the worker rests";
    EXPECT_TRUE(parallel.session.step(parallel.scan.frame(2))) << "direct frame steps do not pause";
    ASSERT_EQ(fusion_paralle_start(parallel.session), RET_SUCCESS);
    EXPECT_EQ(ids(parallel.reports.wait_for(2)), ids_up_to(2));
}

TEST(ParallelInput, FramesAndColoursMeetInEitherOrder) {
    ParallelScan parallel;
    const auto color = [](std::uint8_t value) { return ParallelColorImage{2, 1, std::vector<std::uint8_t>(6, value)}; };
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
    EXPECT_EQ(parallel.reports.wait_for(1)[0].data.color.rgb, color(0).rgb);
    ASSERT_EQ(load_color(1), RET_SUCCESS);
    const std::vector<Event> events = parallel.reports.wait_for(3);
    EXPECT_EQ(ids(events), ids_up_to(3));
    EXPECT_EQ(events[1].data.color.rgb, color(1).rgb);
    EXPECT_TRUE(events[2].data.color.rgb.empty());

    const std::string lines = printed([&] {
        for (int id = 100; id < 117; ++id) EXPECT_EQ(load_color(id), RET_SUCCESS);
    });
    EXPECT_EQ(lines,
              "fusion_and_track_parallel_load_color: the colour of frame 100 is dropped because no frame has taken "
              "it\n");
}

TEST(ParallelInput, ResetAndReleaseReportWhatWaitsAndTheSessionIsAsNew) {
    ParallelScan parallel;
    for (RetVal (*reset)(void*) : {fusion_reset, fusion_reset_withoutTex, fusion_tree_reset}) {
        Gate gate(parallel.reports);
        const std::size_t before = parallel.reports.all().size();
        ASSERT_EQ(parallel.load(0), RET_SUCCESS);
        gate.wait_until_reached();
        for (int i = 1; i < 4; ++i) ASSERT_EQ(parallel.load(i), RET_SUCCESS);
        std::thread opener([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            gate.open();
        });
        EXPECT_EQ(reset(parallel.session), RET_SUCCESS);
        const std::vector<Event> events = parallel.reports.all();
        opener.join();
        ASSERT_EQ(events.size(), before + 4) << "all reported when the call returns";
        EXPECT_EQ(events[before].by, Reported::Success);
        for (std::size_t i = before + 1; i < before + 4; ++i) {
            EXPECT_EQ(events[i].frameId, static_cast<std::int64_t>(i - before));
            EXPECT_EQ(events[i].by, Reported::Fail);
            EXPECT_EQ(events[i].data.outcome, FrameOutcome::GivenUp);
        }
        EXPECT_EQ(get_show_data(parallel.session).get_vn(), 0U);
    }
    // A released session reports from its destructor; while it is paused, too.
    Reports reports;
    {
        ParallelScan other;
        const auto load = [&](int id) {
            FusionparallelInputData data = other.data(id);
            data.user = &reports;
            return fusion_and_track_parallel(other.session, other.scan.frame(id), data);
        };
        Gate gate(reports);
        ASSERT_EQ(load(0), RET_SUCCESS);
        gate.wait_until_reached();
        for (int i = 1; i < 4; ++i) ASSERT_EQ(load(i), RET_SUCCESS);
        std::thread opener([&] { gate.open(); });
        EXPECT_EQ(fusion_paralle_pause(other.session), RET_SUCCESS);
        opener.join();
    }
    EXPECT_EQ(ids(reports.all()), ids_up_to(4));
}

TEST(ParallelInput, CallbacksMayUseTheSessionButNotStopItsWorker) {
    ParallelScan parallel;
    void* handle = parallel.session;
    std::atomic<bool> isDone{false};
    parallel.reports.inside = [&](const Event& event) {
        if (event.frameId != 0) return;
        EXPECT_GT(get_show_data(handle).get_vn(), 500U);
        EXPECT_EQ(get_current_rt(handle).get_translation(), event.pose.get_translation());
        EXPECT_EQ(parallel.session.state().outcome, FrameOutcome::FirstFrame);
        EXPECT_GT(parallel.session.mesh().get_fn(), 100U);
        EXPECT_EQ(fusion_set_fusionrange(handle, 4), RET_SUCCESS);
        for (RetVal (*reset)(void*) : {fusion_reset, fusion_reset_withoutTex, fusion_tree_reset}) {
            EXPECT_EQ(reset(handle), RET_STATE_ERROR);
        }
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
    for (const char* name : {"fusion_reset", "fusion_reset_withoutTex", "fusion_tree_reset", "fusiontrack_release"}) {
        expected += can_not(name, self);
    }
    EXPECT_EQ(lines, expected + can_not("fusion_and_track_parallel", "1 frames are waiting already"));
    EXPECT_EQ(parallel.load(3), RET_PAUSED);
    ASSERT_EQ(fusion_paralle_start(parallel.session), RET_SUCCESS);
    EXPECT_EQ(parallel.reports.wait_for(2)[1].data.outcome, FrameOutcome::Fused);
}

TEST(ParallelInput, WhatACallbackThrowsIsALine) {
    ParallelScan parallel;
    parallel.reports.inside = [](const Event& event) {
        if (event.frameId == 0) throw std::runtime_error("no screen");
        if (event.frameId == 1) throw 1;
    };
    PointImage plain = parallel.scan.frame(1);
    plain.disable_vFlag();
    const std::string lines = printed([&] {
        parallel.load(0);
        fusion_and_track_parallel(parallel.session, plain, parallel.data(1));
        parallel.load(2);
        EXPECT_EQ(parallel.reports.wait_for(3)[2].by, Reported::Success);
    });
    EXPECT_EQ(lines,
              "the function given to set_fusion_success_call_back failed: no screen\n"
              "the PointImage uesed to fusion mush contain normal and weight and vFlag attribute \n"
              "the function given to set_illegal_input_call_back failed: unknown exception\n");
}

TEST(ParallelInput, BadArgumentsAreRefusedWithALine) {
    ParallelScan parallel;
    struct Case {
        std::function<void(FusionparallelInputData&)> change;
        const char* reason;
    };
    const Case cases[] = {
        {[](auto& data) { data.maxQueued = 0; }, "maxQueued is not between 1 and 256"},
        {[](auto& data) { data.maxQueued = 257; }, "maxQueued is not between 1 and 256"},
        {[](auto& data) { data.waitMilliseconds = -1; }, "waitMilliseconds is not between 0 and 60000"},
        {[](auto& data) { data.waitMilliseconds = 60001; }, "waitMilliseconds is not between 0 and 60000"},
        {[](auto& data) { data.colorWaitMilliseconds = -1; }, "colorWaitMilliseconds is not between 0 and 60000"},
    };
    for (const Case& c : cases) {
        FusionparallelInputData data = parallel.data(0);
        c.change(data);
        EXPECT_EQ(printed([&] {
                      EXPECT_EQ(fusion_and_track_parallel_load_cloud(parallel.session, parallel.scan.frame(0), data),
                                RET_INPUT_ERROR);
                  }),
                  can_not("fusion_and_track_parallel_load_cloud", c.reason));
    }
    const ParallelColorImage colors[] = {
        {}, {0, 2, {}}, {-1, -1, {1, 2, 3}}, {1, 1, {1, 2}}, {1, 1, {1, 2, 3, 4}}, {1 << 16, 1 << 16, {1, 2, 3}}};
    for (const ParallelColorImage& color : colors) {
        EXPECT_EQ(
            printed(
                [&] { EXPECT_EQ(fusion_and_track_parallel_load_color(parallel.session, color, 0), RET_INPUT_ERROR); }),
            can_not("fusion_and_track_parallel_load_color", "width, height and bytes of the colour image do not fit"));
    }
    EXPECT_TRUE(parallel.reports.all().empty());

    const PointImage frame;
    for (const auto& [name, call] : std::vector<std::pair<const char*, std::function<RetVal()>>>{
             {"fusion_and_track_parallel", [&] { return fusion_and_track_parallel(nullptr, frame, {}); }},
             {"fusion_and_track_parallel", [&] { return fusion_and_track_parallel(nullptr, PointImage(), {}); }},
             {"fusion_and_track_parallel_load_cloud",
              [&] { return fusion_and_track_parallel_load_cloud(nullptr, frame, {}); }},
             {"fusion_and_track_parallel_load_cloud",
              [&] { return fusion_and_track_parallel_load_cloud(nullptr, PointImage(), {}); }},
             {"fusion_and_track_parallel_load_color",
              [&] { return fusion_and_track_parallel_load_color(nullptr, {}, 0); }},
             {"fusion_paralle_pause", [] { return fusion_paralle_pause(nullptr); }},
             {"fusion_paralle_start", [] { return fusion_paralle_start(nullptr); }}}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(printed([&, c = call] { EXPECT_EQ(c(), RET_INPUT_ERROR); }), can_not(name, "pFusionTrack = NULL"));
    }
}

TEST(ParallelInput, ProducersPausesResetsAndDirectStepsInAnyMixtureLoseNoFrame) {
    ParallelScan parallel;
    std::atomic<bool> isRunning{true};
    std::atomic<int> taken{0};
    printed([&] {
        const auto produce = [&](int first) {
            for (int i = first; i < first + 20; ++i) {
                if (parallel.load(i, 2, i % 2 == 0 ? 0 : 1000) == RET_SUCCESS) ++taken;
            }
        };
        std::thread one(produce, 0), other(produce, 100);
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
    EXPECT_EQ(static_cast<int>(parallel.reports.all().size()), taken);
}

}  // namespace
}  // namespace VexelAlgorithm
