// Projects of vexel-scan: saved, resumed, made into meshes; and what is left when saving fails or is cut off.
#include "ToolTest.h"
#include "recording/trajectoryText.h"

namespace VexelTest {
namespace {

namespace fs = std::filesystem;
using namespace VexelAlgorithm;

class ProjectTool : public ToolTest {
protected:
    explicit ProjectTool(int frames = 10) {
        run_well("simulate --sequence smooth --noise --width 160 --height 128 @/recording --frames " +
                 std::to_string(frames));
        put_bytes(path("coarse.yml"), "fusion:\n   pointDis: 4\ncommon:\n   rawPointDis: 1.6\n");
    }
    static std::string track(int first, int last, const std::string& out) {
        return "track @/recording --threads 1 --first " + std::to_string(first) + " --last " + std::to_string(last) +
               " --out @/" + out + ' ';
    }
    /// A new scan, with the settings that a resumed one takes from beside its project.
    static std::string track_anew(int last, const std::string& out) {
        return track(0, last, out) + "--preset object --settings @/coarse.yml ";
    }
    std::vector<TimedPose> trajectory(const std::string& out) const {
        const Outcome<std::vector<TimedPose>> poses = read_trajectory(path(out) / "trajectory.txt");
        EXPECT_TRUE(poses) << out;
        return poses ? *poses : std::vector<TimedPose>();
    }
};

TEST_F(ProjectTool, AResumedScanIsTheOneThatNeverStopped) {
    run_well(track_anew(9, "whole"));
    run_well(track_anew(4, "begun") + "--save-project @/saved/scan.project");
    run_well(track(5, 9, "resumed") + "--resume @/saved/scan.project --save-project @/saved/scan.project");
    const std::vector<TimedPose> whole = trajectory("whole"), resumed = trajectory("resumed");
    ASSERT_EQ(whole.size(), 10U);
    ASSERT_EQ(resumed.size(), 5U);
    for (std::size_t i = 0; i < resumed.size(); ++i) {
        const RigidMatrix difference = whole[5 + i].cameraToWorld.inverse() * resumed[i].cameraToWorld;
        for (const Vector3d& corner : {Vector3d(-150, -120, 400), Vector3d(150, 120, 500)})
            EXPECT_LT((difference * corner - corner).norm(), 0.2) << i << ": a twentieth of a voxel";
    }
    EXPECT_TRUE(holds(bytes_of(path("resumed/report.txt")), "Resumed"));
    EXPECT_TRUE(holds(bytes_of(path("saved/scan.project.yml")), "pointDis: 4\n"));

    const ToolRun mesh = run_well("mesh @/saved/scan.project --out @/mesh");
    EXPECT_TRUE(holds(mesh.output, "10 poses, voxels of 4 mm")) << mesh.output;
    EXPECT_TRUE(bytes_of(path("mesh/mesh.ply")) == bytes_of(path("resumed/mesh.ply")));
    EXPECT_TRUE(exists("mesh/preview.png"));
}

TEST_F(ProjectTool, EveryRefusalIsOneSentence) {
    run_well(track_anew(1, "first") + "--save-project @/scan.project");
    fs::copy(path("scan.project"), path("bare.project"));
    put_bytes(path("none.project"), "no project at all");
    put_bytes(path("short.project"), bytes_of(path("scan.project")).substr(0, 60));
    put_bytes(path("half.project"), bytes_of(path("scan.project")).substr(0, 4000));
    fs::copy(path("scan.project.yml"), path("half.project.yml"));
    const std::string anew = track_anew(1, "out") + "--save-project ", resumed = track(2, 3, "out") + "--resume ";
    const BadCall calls[] = {
        {"mesh @/missing.project", 1, "missing.project cannot be opened"},
        {"mesh @/short.project", 1, "short.project is damaged or cut short"},
        {"mesh @/half.project", 1, "half.project is not usable; the line above says why"},
        {"mesh @/bare.project", 1,
         "bare.project.yml with the settings of the project is missing; name a file with --settings"},
        {"mesh @/scan.project --settings @/coarse.yml", 1, "coarse.yml names no camera"},
        {resumed + "@/bare.project --preset object", 1, "has voxels of 4 mm and a tree depth of"},
        {resumed + "@/none.project", 1, "none.project is no project file"},
        {anew + "@/.", 1, "is a folder; name a file"},
        {anew + "@/none.project/scan.project", 1, "is a file and cannot hold the output"},
    };
    expect_failures(calls);
}

#if !defined(_WIN32)
class LongScan : public ProjectTool {
protected:
    LongScan() : ProjectTool(60) {}
};

TEST_F(LongScan, CtrlCSavesWhatIsThere) {
    const ToolRun stopped = run_interrupted(track_anew(59, "out") + "--save-project @/scan.project", "tracking");
    EXPECT_EQ(stopped.exitCode, 130) << stopped.output;
    EXPECT_TRUE(holds(stopped.output, "goes on from here")) << stopped.output;
    run_well("mesh @/scan.project");
    EXPECT_TRUE(bytes_of(path("mesh.ply")) == bytes_of(path("out/mesh.ply")));
}

/// Saving over an older project, in a process that has its end coming.
class EndedWhileSaving : public ProjectTool {
protected:
    EndedWhileSaving() {
        run_well(track_anew(2, "out") + "--save-project @/old");
        run_well(save("new"));
        _old = bytes_of(path("old"));
        _new = bytes_of(path("new"));
        EXPECT_NE(_old, _new);
    }
    static std::string save(const std::string& project) {
        return track(3, 3, "out") + "--resume @/old --save-project @/" + project;
    }
    /// Shell commands around the tool; the result is its exit code, above 128 after a signal.
    int end(const std::string& before, const std::string& after) {
        fs::remove(path("scan.part"));
        put_bytes(path("scan"), _old);
        put_bytes(path("end.sh"), before + call(save("scan")) + after);
        const int status = std::system(("sh " + quoted(path("end.sh")) + " 2>" + quoted(path("errors"))).c_str());
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
    EXPECT_TRUE(holds(bytes_of(path("errors")), "scan cannot be written")) << bytes_of(path("errors"));

    std::mt19937 random(5);
    // Killed by the system at a certain byte of the file.
    EXPECT_GT(end("ulimit -c 0\nulimit -f " + std::to_string(100 + random() % (size() / block - 100)) + "\nexec ", ""),
              128);
    EXPECT_TRUE(is_old() && exists("scan.part"));
    // Killed by somebody at any moment after it has begun.
    for (int i = 0; i < 4; ++i) {
        const std::string begun = quoted(path(i % 2 == 0 ? "scan.part" : "scan.yml.part"));
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
}  // namespace VexelTest
