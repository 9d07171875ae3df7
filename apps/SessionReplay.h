// A debug recording goes once more through a session.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fusiontrackoperation/debugRecords.h"
#include "recording/Outcome.h"

namespace VexelAlgorithm::Apps {

/// How a replay differs from what was recorded.
struct ReplayDifferences {
    int compared = 0;   ///< frames
    int differing = 0;  ///< of them
    std::string first;  ///< what differed first; empty without a difference
    double largestParting =
        0;  ///< mm by which the poses part points at `SessionReplay::LEVER` from the camera, at most
};

struct ReplaySettings {
    int threads = 0;         ///< 0: as recorded
    double tolerance = 0.0;  ///< mm of parting that are no difference; with 0 states and poses are compared bit by bit
    std::uint64_t fileBytes = 0;
};

struct ReleaseSession {
    void operator()(void* handle) const;
};

/// Gives the records of one file, in their order, to a session of its own, through the functions of the handle.
class SessionReplay {
public:
    /// Distance (mm) from the camera at which the parting of two poses is told.
    static constexpr double LEVER = 500.0;

    explicit SessionReplay(const ReplaySettings& settings) : _settings(settings) {}

    /// Fails when the record cannot be replayed at all; `number` is its place in the file.
    Outcome<Done> apply(int number, const DebugRecord& record);

    /// Null before the beginning of the recorded session.
    void* handle() const { return _session.get(); }
    const SessionStart& start() const { return _start; }
    const ReplayDifferences& differences() const { return _differences; }
    int frames() const { return _frames; }
    const std::vector<RigidMatrix>& poses() const { return _poses; }  ///< accepted ones of the model as it is
    /// Why frames from here on, or from the beginning on, are not compared; empty while they are.
    const std::string& incomparable() const { return _incomparable; }
    /// Whether the last frame has no result.
    bool is_result_missing() const { return _given.has_value(); }

private:
    struct GivenFrame {
        int number = 0;  ///< counted from 1
        bool isReplayed = false;
        bool tellsContribution = false;  ///< other forms keep it to themselves
        FrameResult found;
    };

    Outcome<Done> begin(const SessionStart& start);
    Outcome<Done> give(const FrameCall& call);
    void compare(int record, const FrameResult& recorded);
    void repeat(const EditRecord& edit);
    void change(const SettingChange& change);

    ReplaySettings _settings;
    SessionStart _start;
    std::unique_ptr<void, ReleaseSession> _session;
    std::optional<GivenFrame> _given;  // whose result has not come yet
    ReplayDifferences _differences;
    std::string _incomparable;
    int _frames = 0;
    std::vector<RigidMatrix> _poses;
};

}  // namespace VexelAlgorithm::Apps
