// Projects of vexel-scan: saved, resumed, made into meshes; and what is left when saving fails or is cut off.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "ToolTest.h"
#include "recording/trajectoryText.h"

namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;
using VexelTest::bytes_of;
using VexelTest::put_bytes;
using VexelTest::ToolRun;

constexpr double voxel = 4.0;  // mm

std::string in_quotes(const fs::path& path) {
    return '"' + path.string() + '"';
}

class ProjectTool : public VexelTest::ToolTest {
protected:
    explicit ProjectTool(int frames = 10) {
        const ToolRun made = run("simulate --sequence smooth --noise --width 160 --height 128 --frames " +
                                 std::to_string(frames) + ' ' + in_quotes(path("recording")));
        EXPECT_EQ(made.exitCode, 0) << made.errors;
        put_bytes(path("coarse.yml"), "fusion:\n   pointDis: 4\ncommon:\n   rawPointDis: 1.6\n");
    }
    std::string track(int first, int last, const std::string& out) const {
        return "track " + in_quotes(path("recording")) + " --threads 1 --first " + std::to_string(first) + " --last " +
               std::to_string(last) + " --out " + in_quotes(path(out)) + ' ';
    }
    /// A new scan, with the settings that a resumed one takes from beside its project.
    std::string track_anew(int last, const std::string& out) const {
        return track(0, last, out) + "--preset object --settings " + in_quotes(path("coarse.yml")) + ' ';
    }
    std::string save(const std::string& project) const { return "--save-project " + in_quotes(path(project)) + ' '; }
    std::string resume(const std::string& project) const { return "--resume " + in_quotes(path(project)) + ' '; }

    void expect_run(const std::string& arguments) const {
        const ToolRun done = run(arguments);
        ASSERT_EQ(done.exitCode, 0) << arguments << '\n' << done.errors;
    }
    std::vector<TimedPose> trajectory(const std::string& out) const {
        const Outcome<std::vector<TimedPose>> poses = read_trajectory(path(out) / "trajectory.txt");
        EXPECT_TRUE(poses) << out;
        return poses ? *poses : std::vector<TimedPose>();
    }
};

TEST_F(ProjectTool, AResumedScanIsTheOneThatNeverStopped) {
    expect_run(track_anew(9, "whole"));
    expect_run(track_anew(4, "begun") + save("saved/scan.project"));
    expect_run(track(5, 9, "resumed") + resume("saved/scan.project") + save("saved/scan.project"));
    const std::vector<TimedPose> whole = trajectory("whole"), resumed = trajectory("resumed");
    ASSERT_EQ(whole.size(), 10U);
    ASSERT_EQ(resumed.size(), 5U);
    for (std::size_t i = 0; i < resumed.size(); ++i) {
        const RigidMatrix difference = whole[5 + i].cameraToWorld.inverse() * resumed[i].cameraToWorld;
        for (const Vector3d& corner : {Vector3d(-150, -120, 400), Vector3d(150, 120, 500)})
            EXPECT_LT((difference * corner - corner).norm(), 0.05 * voxel) << i;
    }
    EXPECT_NE(bytes_of(path("resumed") / "report.txt").find("Resumed"), std::string::npos);
    EXPECT_NE(bytes_of(path("saved/scan.project.yml")).find("pointDis: 4\n"), std::string::npos);

    const ToolRun mesh = run("mesh " + in_quotes(path("saved/scan.project")) + " --out " + in_quotes(path("mesh")));
    ASSERT_EQ(mesh.exitCode, 0) << mesh.errors;
    EXPECT_NE(mesh.output.find("10 poses, voxels of 4 mm"), std::string::npos) << mesh.output;
    EXPECT_TRUE(bytes_of(path("mesh/mesh.ply")) == bytes_of(path("resumed/mesh.ply")));
    EXPECT_TRUE(fs::exists(path("mesh/preview.png")));
}

TEST_F(ProjectTool, EveryRefusalIsOneSentence) {
    expect_run(track_anew(1, "out") + save("scan.project"));
    fs::copy(path("scan.project"), path("bare.project"));
    put_bytes(path("none.project"), "no project at all");
    put_bytes(path("short.project"), bytes_of(path("scan.project")).substr(0, 60));
    put_bytes(path("half.project"), bytes_of(path("scan.project")).substr(0, 4000));
    fs::copy(path("scan.project.yml"), path("half.project.yml"));
    const auto mesh = [&](const char* project) { return "mesh " + in_quotes(path(project)); };
    const struct {
        std::string arguments;
        const char* reason;
    } cases[] = {
        {mesh("missing.project"), "missing.project cannot be opened"},
        {mesh("none.project"), "none.project is no project file"},
        {mesh("short.project"), "short.project is damaged or cut short"},
        {mesh("half.project"), "half.project is not usable; the line above says why"},
        {mesh("bare.project"),
         "bare.project.yml with the settings of the project is missing; name a file with --settings"},
        {mesh("scan.project") + " --settings " + in_quotes(path("coarse.yml")), "coarse.yml names no camera"},
        {track(2, 3, "out") + "--preset object " + resume("bare.project"), "has voxels of 4 mm and a tree depth of"},
        {track(2, 3, "out") + resume("none.project"), "none.project is no project file"},
        {track_anew(1, "out") + save("."), "is a folder; name a file"},
        {track_anew(1, "out") + save("none.project/scan.project"), "is a file and cannot hold the output"},
    };
    for (const auto& c : cases) {
        const ToolRun refused = run(c.arguments);
        EXPECT_EQ(refused.exitCode, 1) << c.arguments;
        EXPECT_NE(refused.errors.find(c.reason), std::string::npos) << refused.errors;
        EXPECT_EQ(std::count(refused.errors.begin(), refused.errors.end(), '\n'), 1) << refused.errors;
    }
}

#if !defined(_WIN32)
class LongScan : public ProjectTool {
protected:
    LongScan() : ProjectTool(60) {}
};

TEST_F(LongScan, CtrlCSavesWhatIsThere) {
    const ToolRun stopped = run_interrupted(track_anew(59, "out") + save("scan.project"), "tracking");
    EXPECT_EQ(stopped.exitCode, 130) << stopped.output;
    EXPECT_NE(stopped.output.find("goes on from here"), std::string::npos) << stopped.output;
    expect_run("mesh " + in_quotes(path("scan.project")));
    EXPECT_TRUE(bytes_of(path("mesh.ply")) == bytes_of(path("out/mesh.ply")));
}

/// Saving over an older project, in a process that has its end coming.
class EndedWhileSaving : public ProjectTool {
protected:
    EndedWhileSaving() {
        expect_run(track_anew(2, "out") + save("old"));
        expect_run(call("new"));
        _old = bytes_of(path("old"));
        _new = bytes_of(path("new"));
        EXPECT_NE(_old, _new);
    }
    std::string call(const std::string& project) const { return track(3, 3, "out") + resume("old") + save(project); }

    /// Shell commands around the tool; the result is its exit code, above 128 after a signal.
    int end(const std::string& before, const std::string& after) {
        fs::remove(path("scan.part"));
        put_bytes(path("scan"), _old);
        const std::string tool = in_quotes(VEXEL_SCAN_PROGRAM) + ' ' + call("scan");
        put_bytes(path("end.sh"), before + tool + after);
        const std::string quiet = " >" + in_quotes(path("lines")) + " 2>" + in_quotes(path("errors"));
        const int status = std::system(("sh " + in_quotes(path("end.sh")) + quiet).c_str());
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    bool is_old() const { return bytes_of(path("scan")) == _old; }
    bool is_new() const { return bytes_of(path("scan")) == _new; }
    std::size_t size() const { return _new.size(); }

private:
    std::string _old, _new;
};

constexpr std::size_t block = 512;  // bytes, of `ulimit -f`

TEST_F(EndedWhileSaving, LeavesTheOlderProjectOrTheNewOne) {
    // The disk is full.
    const std::string fullDisk = "trap '' XFSZ\nulimit -f " + std::to_string(size() / block / 2) + '\n';
    EXPECT_EQ(end(fullDisk, ""), 1);
    EXPECT_TRUE(is_old());
    EXPECT_FALSE(fs::exists(path("scan.part")));
    EXPECT_NE(bytes_of(path("errors")).find("scan cannot be written"), std::string::npos) << bytes_of(path("errors"));

    std::mt19937 random(5);
    // Killed by the system at a certain byte of the file.
    std::size_t cutOff = 0;
    for (int i = 0; i < 5; ++i) {
        const std::size_t limit = 100 + random() % (size() / block - 100);
        EXPECT_GT(end("ulimit -c 0\nulimit -f " + std::to_string(limit) + "\nexec ", ""), 128);
        EXPECT_TRUE(is_old()) << limit;
        if (fs::exists(path("scan.part"))) ++cutOff;
    }
    EXPECT_EQ(cutOff, 5U);
    // Killed by somebody at any moment after it has begun.
    for (int i = 0; i < 4; ++i) {
        const std::string begun = in_quotes(path(i % 2 == 0 ? "scan.part" : "scan.yml.part"));
        const std::string wait = " & p=$!\nwhile kill -0 $p && ! [ -e " + begun +
                                 " ]; do :; done\nn=0\nwhile [ $n -lt " + std::to_string(random() % 3000) +
                                 " ]; do n=$((n+1)); done\nkill -9 $p\nwait $p\n";
        fs::remove(path("scan.yml"));
        end("", wait);
        EXPECT_TRUE(is_old() || is_new()) << i;
    }
    EXPECT_EQ(end("", ""), 0);
    EXPECT_TRUE(is_new());
}
#endif

}  // namespace
