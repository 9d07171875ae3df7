// Sessions over small virtual scans, and what they print and hold.
#pragma once

#include <functional>
#include <limits>
#include <sstream>
#include <string>

#include "algorithmQorInclude.h"
#include "tests/printed.h"
#include "trials/virtualScan.h"

namespace VexelAlgorithm {

using VexelTest::printed;
using VexelTrial::mean_of;
using VexelTrial::pose_error;
using VexelTrial::Records;
using VexelTrial::rms_of;
using Scan = VexelTrial::VirtualScan;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

inline std::string can_not(const std::string& function, const std::string& reason) {
    return "can not run function " + function + " because " + reason + "\n";
}

/// A frame step with a limit of speed: what goes in, and what comes of it.
struct LimitedStep {
    bool fuse = true;
    int contribution = 0;
    int frameTimeGap = 1;
    int speedState = -1;
    int microseconds = -7;
    bool isAccepted = false;
    std::string lines = {};
};

/// Owns a handle.
class Session {
public:
    explicit Session(const Records& records) {
        printed([&] { _handle = fusion_and_track_ini(records.common, records.track, records.fusion); });
    }
    ~Session() {
        if (_handle != nullptr) fusiontrack_release(_handle);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    operator void*() const { return _handle; }
    bool step(const PointImage& frame) {
        int microseconds = 0;
        return fusion_and_track(_handle, frame, microseconds);
    }
    void step(const PointImage& frame, LimitedStep& step) {
        step.lines = printed([&] {
            step.isAccepted = fusion_and_track_with_speed_limit(_handle, frame, step.microseconds, step.fuse,
                                                                step.contribution, step.frameTimeGap, step.speedState);
        });
    }
    FusionScanState state() const {
        FusionScanState state;
        get_fusion_scan_state(_handle, state);
        return state;
    }
    BaseTriMesh mesh(float spacing = 0.0F) const {
        BaseTriMesh mesh;
        EXPECT_EQ(get_fusion_result_tbb(_handle, spacing, mesh), RET_SUCCESS);
        return mesh;
    }
    /// The model to the last bit.
    std::string mesh_bytes() const {
        std::ostringstream out;
        mesh().write_archive(out);
        return out.str();
    }
    /// Pose and model to the last bit.
    std::string bytes() const {
        std::ostringstream out;
        get_current_rt(_handle).write_archive(out);
        return out.str() + mesh_bytes();
    }

private:
    void* _handle = nullptr;
};

/// A call on a handle that is refused with one line.
struct RefusedCall {
    const char* name;
    std::function<int(void*)> call;
    std::string reason;
    int result = RET_INPUT_ERROR, onNull = RET_INI_ERROR;
    RefusedCall giving(int otherResult, int otherOnNull = RET_INI_ERROR) const {
        return {name, call, reason, otherResult, otherOnNull};
    }
};
/// The call `function(handle, ...)`.
#define REFUSED(function, reason, ...)                                       \
    RefusedCall {                                                            \
#        function, [&](void* s) { return function(s, __VA_ARGS__); }, reason \
    }

/// With its own line by this session, and with that of the missing handle by none.
inline void expect_refused(void* session, const std::vector<RefusedCall>& calls) {
    for (const RefusedCall& c : calls) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(printed([&] { EXPECT_EQ(c.call(session), c.result); }), can_not(c.name, c.reason));
        EXPECT_EQ(printed([&] { EXPECT_EQ(c.call(nullptr), c.onNull); }), can_not(c.name, "pFusionTrack = NULL"));
    }
}

}  // namespace VexelAlgorithm
