// What sessions record for debugging: all of it, bit by bit, and never to the harm of the scan.
#include "foundation/diagnostics.h"
#include "fusiontrackoperation/DebugRecordReader.h"
#include "fusiontrackoperation/FusionTrack.h"
#include "tests/session/sessionScenes.h"
#include "trials/TemporaryFolder.h"

#if defined(__linux__)
#    include <sys/resource.h>

#    include <csignal>
#endif

namespace {

using namespace VexelAlgorithm;

namespace fs = std::filesystem;
using Read = DebugRecordReader::Read;
using VexelTrial::bytes_of;

DataArchiveConfig& config() {
    return DataArchiveConfig::global();
}

void set_recording(bool on) {
    config().set_archive_enabled(on);
    config().set_testbug_enabled(on);
}

struct Recorded {
    std::vector<DebugRecord> records;
    Read end = Read::Damaged;
    std::string names() const {
        std::string all;
        for (const DebugRecord& record : records) all += record.name + ' ';
        return all;
    }
    template <class Content>
    std::vector<Content> all() const {
        std::vector<Content> found;
        for (const DebugRecord& record : records)
            if (const auto* content = std::get_if<Content>(&record.content)) found.push_back(*content);
        return found;
    }
};

Recorded read(const std::string& bytes) {
    std::istringstream in(bytes);
    DebugRecordReader reader(in);
    Recorded recorded;
    if (reader.read_header()) return recorded;
    for (DebugRecord record; (recorded.end = reader.next(record)) == Read::Record;) recorded.records.push_back(record);
    return recorded;
}

auto& recorder_of(void* session) {
    return static_cast<FusionTrack*>(session)->recorder();
}

/// Recording is on; files lie in a folder of their own.
class DebugRecording : public testing::Test {
protected:
    DebugRecording() {
        config().set_store_directory(folder.path().string());
        set_recording(true);
    }
    ~DebugRecording() override {
        set_recording(false);
        config().set_store_directory("");
        config().set_name_prefix("testbug");
    }
    fs::path file(int number = 1) const { return folder.path() / format_text("testbug-%06d.tb", number); }
    VexelTrial::TemporaryFolder folder;
    const Scan tiny{"smooth", 20};
};

TEST_F(DebugRecording, HoldsWhatTheSessionWasGivenAndWhatCameOfIt) {
    const Scan scan("smooth");
    const RigidMatrix aside(Matrix3d::Identity(), {1.0, 0.0, 0.0});
    PointImage black = scan.frame(2);
    black.setZero();
    std::vector<PointImage> frames{scan.frame(0), scan.frame(1), black, scan.frame(2), scan.frame(3), scan.frame(0)};
    std::vector<FrameResult> expected;
    int contribution = 7, speedState = 0;
    const std::string lines = printed([&] {
        void* session = fusion_and_track_ini(scan.records.common, scan.records.track, scan.records.fusion);
        int microseconds = 0;
        bool fuse = false;
        const auto done = [&] {
            expected.emplace_back();
            get_fusion_scan_state(session, expected.back().state);
            expected.back().pose = get_current_rt(session);
        };
        fusion_and_track(session, frames[0], microseconds), done();
        reset_icpDisThread(session, 0.45F);
        reset_icpDisThread(session, -1.0F);  // refused
        fusion_and_track_with_speed_limit(session, frames[1], microseconds, fuse, contribution, 40, speedState), done();
        track(session, frames[2], microseconds), done();
        track(session, frames[3], microseconds), done();
        fusion(session, frames[4], aside, microseconds), done();
        fusion_reset(session);
        fusion_and_track(session, frames[5], microseconds), done();
        fusiontrack_release(session);
    });
    EXPECT_NE(lines.find("Opened testbug file: " + file().string() + "\n"), std::string::npos);

    const Recorded recorded = read(bytes_of(file()));
    EXPECT_EQ(recorded.end, Read::End);
    EXPECT_EQ(recorded.names(),
              "fusion_and_track_ini fusion_and_track result reset_icpDisThread fusion_and_track result track result "
              "track result fusion result fusion_reset fusion_and_track result fusiontrack_release ");
    const SessionStart start = recorded.all<SessionStart>().at(0);
    const auto shown = [](const auto& from) {
        return printed(
            [&] { print_parameter(from.common), print_parameter(from.track), print_parameter(from.fusion); });
    };
    EXPECT_EQ(shown(start), shown(scan.records));
    EXPECT_FALSE(start.texture);
    const auto calls = recorded.all<FrameCall>();
    const auto results = recorded.all<FrameResult>();
    ASSERT_EQ(calls.size(), frames.size());
    ASSERT_EQ(results.size(), frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_TRUE(archive(calls[i].frame.unpacked()) == archive(frames[i])) << i;
        const FusionScanState &found = results[i].state, &state = expected[i].state;
        EXPECT_EQ(std::tie(found.outcome, found.correspondences, found.acceptedFrames),
                  std::tie(state.outcome, state.correspondences, state.acceptedFrames));
        EXPECT_EQ(archive(results[i].pose), archive(expected[i].pose)) << i;
    }
    const auto& given = calls[1].arguments;
    EXPECT_EQ(std::tuple(given.fuseFlag, given.contribution, given.frameTimeGap, given.speedState),
              std::tuple(false, 7, 40, 0));
    EXPECT_EQ(std::pair(results[1].contribution, results[1].speedState), std::pair(contribution, 1));
    EXPECT_EQ(calls[4].arguments.pose.get_translation(), aside.get_translation());
    EXPECT_EQ(recorded.all<SettingChange>().at(0).values, std::vector<double>{static_cast<double>(0.45F)});
}

TEST_F(DebugRecording, FramesLoseNothing) {
    PointImage strange = tiny.frame(0);
    strange.set_vCoord(50, {kNaN, 0.0F, 0.0F});
    strange.set_vNrv(51, {0.0F, -0.0F, 0.0F});
    strange.get_vFlag(52).bits = 4;
    strange.set_vWeight(319, -1.0F);
    PointImage coloured = tiny.frame(0);
    coloured.enable_vColor();
    coloured.set_vColor(3, {0.1F, 0.2F, 0.3F});
    coloured.rigid_transformation({Matrix3d::Identity(), {1.0, 2.0, 3.0}});
    PointImage bare;
    bare.ini(20, 16, tiny.records.common.campar, 3, {0.5F, -0.5F});
    PointImage none, illegal = tiny.frame(0);
    illegal.set_vWeights({1.0F});
    const std::vector<const PointImage*> frames{&strange, &coloured, &bare, &none};
    {
        Session session(tiny.records);
        for (const PointImage* image : frames) session.step(*image);
        session.step(illegal);
    }
    const auto calls = read(bytes_of(file())).all<FrameCall>();
    ASSERT_EQ(calls.size(), frames.size() + 1);
    for (std::size_t i = 0; i < frames.size(); ++i)
        EXPECT_TRUE(archive(calls[i].frame.unpacked()) == archive(*frames[i])) << i;
    EXPECT_FALSE(calls.back().frame.isLegal);
}

TEST_F(DebugRecording, AnEditIsWrittenOnce) {
    const EditRecord first{"delete_single_frame_point_tbb", {{{1, 2, 3}, {4, 5, 6}}, {7}}, {RigidMatrix()}};
    const std::string start = "fusion_and_track_ini ", one = first.name + ' ';
    {
        Session session(tiny.records);
        recorder_of(session).edit(first);
        for (const bool isOn : {false, true, true}) {
            config().set_testbug_enabled(isOn);
            EXPECT_EQ(edit_testbug_write(session), RET_SUCCESS);
            EXPECT_EQ(read(bytes_of(file())).names(), start + (isOn ? one : "")) << "once";
        }
        recorder_of(session).edit(first);
        session.step(tiny.frame(0));
    }
    const Recorded recorded = read(bytes_of(file()));
    EXPECT_EQ(recorded.names(), start + one + one + "fusion_and_track result fusiontrack_release ");
    const EditRecord found = recorded.all<EditRecord>().at(0);
    EXPECT_EQ(recorded.records[1].property, "AccumalateFusionEditData");
    EXPECT_EQ(recorded.records[1].entries.at(0).name + recorded.records[1].entries.at(1).name, "datasrts");
    EXPECT_TRUE(found.datas.points == first.datas.points && found.datas.ids == first.datas.ids &&
                found.rts.size() == 1);
}

TEST_F(DebugRecording, OnlyWhileBothFlagsAreSet) {
    for (const bool first : {false, true}) {
        config().set_archive_enabled(first);
        config().set_testbug_enabled(!first);
        Session session(tiny.records);
        session.step(tiny.frame(0));
        edit_testbug_write(session);
    }
    set_recording(false);
    EXPECT_EQ(folder.file_count(), 0U);

    // Asked for in the middle of a scan, and again after a pause.
    Scan scan("smooth", 80);
    Session session(scan.records);
    set_icpKeepRatio(session, {0.5F, 0.6F});
    set_icpKeepRatio(session, {0.5F, 0.75F});
    EXPECT_TRUE(session.step(scan.frame(0)));
    for (int number = 1; number < 3; ++number) {
        set_recording(true);
        session.step(scan.frame(number));
        set_recording(false);
        session.step(scan.frame(number));
    }
    EXPECT_EQ(folder.file_count(), 2U);
    for (int number = 1; number < 3; ++number) {
        const Recorded recorded = read(bytes_of(file(number)));
        EXPECT_EQ(recorded.names(), "fusion_and_track_ini set_icpKeepRatio fusion_and_track result ");
        EXPECT_EQ(recorded.all<SessionStart>().at(0).acceptedFrames, 2 * number - 1);
        EXPECT_EQ(recorded.all<SettingChange>().at(0).values, (std::vector<double>{0.5, 0.75}));
    }
}

TEST_F(DebugRecording, FilesAreNumberedByPrefix) {
    for (const char* name : {"testbug-000041.tb", "testbug-000099.txt", "testbug-x.tb", "testbug-.tb", "other-50.tb"})
        VexelTrial::put_bytes(folder.path() / name, "");
    { const Session a(tiny.records), b(tiny.records); }
    EXPECT_TRUE(fs::exists(file(42)) && fs::exists(file(43)));
    EXPECT_EQ(config().set_name_prefix("other"), RET_SUCCESS);
    { const Session c(tiny.records); }
    EXPECT_TRUE(fs::exists(folder.path() / "other-000051.tb"));
    for (const char* bad : {"", "../x", "a\\b", "c:"})
        EXPECT_EQ(printed([&] { EXPECT_EQ(config().set_name_prefix(bad), RET_INPUT_ERROR); }),
                  can_not("set_name_prefix", "the prefix is not the beginning of a file name"));
    EXPECT_EQ(config().get_name_prefix(), "other");
}

TEST_F(DebugRecording, AFileThatCannotBeWrittenCostsOneLine) {
    const Scan scan("smooth", 80);
    const auto run = [&] {
        std::string bytes;
        const std::string lines = printed([&] {
            void* session = fusion_and_track_ini(scan.records.common, scan.records.track, scan.records.fusion);
            int microseconds = 0;
            for (int i = 0; i < 3; ++i) EXPECT_TRUE(fusion_and_track(session, scan.frame(i), microseconds));
            bytes = archive(get_current_rt(session));
            fusiontrack_release(session);
        });
        const std::size_t at = lines.find("debug recording stops because ");
        EXPECT_EQ(at, lines.rfind("debug recording stops because "));
        return std::pair(bytes, at != std::string::npos);
    };
    const auto [good, stops] = run();
    EXPECT_FALSE(stops);
    config().set_store_directory((folder.path() / "missing").string());
    EXPECT_EQ(run(), std::pair(good, true));
#if defined(__linux__)
    config().set_store_directory(folder.path().string());
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit unlimited{};
    getrlimit(RLIMIT_FSIZE, &unlimited);
    rlimit limited = unlimited;
    limited.rlim_cur = fs::file_size(file()) / 2;
    setrlimit(RLIMIT_FSIZE, &limited);
    const auto full = run();
    setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_EQ(full, std::pair(good, true));
#endif
}

}  // namespace
