// Sessions over small virtual scans, and what they print and hold.
#pragma once

#include "algorithmQorInclude.h"
#include "simulation/colorImages.h"
#include "tests/common.h"
#include "trials/virtualScan.h"

namespace VexelAlgorithm {

using namespace VexelTest;
using namespace VexelTrial;
using Scan = VexelTrial::VirtualScan;

/// A scan with a colour camera.
struct ColoredScan : Scan {
    explicit ColoredScan(int width) : Scan("smooth", width) { Simulation::add_color_camera(sequence, records.fusion); }
    ColorAndPoint colored(int i, const Simulation::SurfaceColor& surface = Simulation::soft_stripes) const {
        return Simulation::colored_frame_of(sequence, i, records.fusion, surface);
    }
};

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

template <class Part>
std::string archive(const Part& part) {
    std::ostringstream out;
    part.write_archive(out);
    return out.str();
}

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
    bool step(const PointImage& frame) { return fusion_and_track(_handle, frame, microseconds); }
    bool step(const ColorAndPoint& frame) { return fusion_and_track(_handle, frame, microseconds, isToBeFused, 0); }
    bool fuse(const PointImage& frame, const RigidMatrix& pose = {}) {
        return fusion(_handle, frame, pose, microseconds);
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
    std::string mesh_bytes() const { return archive(mesh()); }
    /// Pose and model to the last bit.
    std::string bytes() const { return archive(get_current_rt(_handle)) + mesh_bytes(); }

    int microseconds = 0;  ///< of the last call
    bool isToBeFused = true;

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
