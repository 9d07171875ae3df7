#include "apps/SessionReplay.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "algorithmQorInclude.h"
#include "apps/TrackReport.h"
#include "apps/volumePlacement.h"
#include "foundation/diagnostics.h"
#include "fusion/LeafTSDFSpeckle.h"
#include "fusiontrackoperation/replayEdit.h"

namespace VexelAlgorithm::Apps {
namespace {

/// What one frame may take; systems that promise more memory than they have would end the program without a word.
constexpr double largestFrameGib = 12.0;

/// A frame that says so little of its slots has not been recorded by a session.
constexpr std::uint64_t mostSlotsPerByte = 1024, freeSlots = 1 << 20;

struct Setting {
    const char* function;
    std::size_t values;
    RetVal (*apply)(void* handle, const double* values);
};

float narrow(double value) {
    return static_cast<float>(value);
}

const Setting settings[] = {
    {"reset_Point_dis", 1, [](void* h, const double* v) { return reset_Point_dis(h, narrow(v[0])); }},
    {"reset_icpDisThread", 1, [](void* h, const double* v) { return reset_icpDisThread(h, narrow(v[0])); }},
    {"reset_rata_ray", 2,
     [](void* h, const double* v) {
         return reset_rata_ray(h, {narrow(v[0]), narrow(v[1])});
     }},
    {"set_icpStableThreadhold", 1, [](void* h, const double* v) { return set_icpStableThreadhold(h, narrow(v[0])); }},
    {"set_icpKeepRatio", 2,
     [](void* h, const double* v) {
         return set_icpKeepRatio(h, {narrow(v[0]), narrow(v[1])});
     }},
    {"set_track_speed_threshold", 2,
     [](void* h, const double* v) { return set_track_speed_threshold(h, narrow(v[0]), narrow(v[1])); }},
    {"set_feature_recovery", 1, [](void* h, const double* v) { return set_feature_recovery(h, v[0] != 0.0); }},
    {"fusion_set_fusionrange", 1,
     [](void* h, const double* v) {
         return v[0] >= 1.0 && v[0] <= 63.0 ? fusion_set_fusionrange(h, static_cast<int>(v[0])) : RET_INPUT_ERROR;
     }},
    {"set_kept_frame_memory", 1,
     [](void* h, const double* v) {
         return v[0] >= 0.0 && v[0] <= 1e9 ? set_kept_frame_memory(h, static_cast<int>(v[0])) : RET_INPUT_ERROR;
     }},
    {"set_campar", 4,
     [](void* h, const double* v) {
         return set_campar(h, {v[0], v[1], v[2], v[3]});
     }},
    {"set_treeShift", 3,
     [](void* h, const double* v) {
         return set_treeShift(h, {narrow(v[0]), narrow(v[1]), narrow(v[2])});
     }},
};

struct Emptying {
    const char* function;
    RetVal (*apply)(void* handle);
};
const Emptying emptyings[] = {{"fusion_reset", fusion_reset},
                              {"fusion_reset_withoutTex", fusion_reset_withoutTex},
                              {"fusion_tree_reset", fusion_tree_reset}};

template <class Value>
bool is_same(const Value& a, const Value& b) {
    return std::memcmp(&a, &b, sizeof(Value)) == 0;
}

bool is_same(const RigidMatrix& a, const RigidMatrix& b) {
    return a.get_rotation() == b.get_rotation() && a.get_translation() == b.get_translation();
}

/// mm by which the poses part points at the lever from the camera, at most.
double parting(const RigidMatrix& a, const RigidMatrix& b) {
    if (is_same(a, b)) return 0.0;  // and not what rounding makes of it
    const RigidMatrix difference = a.inverse() * b;
    return difference.get_translation().norm() + SessionReplay::LEVER * rotation_angle(difference);
}

/// What is not the same, in words; empty when all is.
std::string difference(FrameResult recorded, const FrameResult& found, bool tellsContribution, double tolerance) {
    if (!tellsContribution) recorded.contribution = found.contribution;
    const FrameOutcome then = recorded.state.outcome, now = found.state.outcome;
    if (then != now) return "recorded " + outcome_text(then) + ", replayed " + outcome_text(now);
    if (recorded.state.acceptedFrames != found.state.acceptedFrames) {
        return format_text("recorded %d accepted frames, replayed %d", recorded.state.acceptedFrames,
                           found.state.acceptedFrames);
    }
    const double parted = parting(recorded.pose, found.pose);
    if (tolerance > 0.0 ? !(parted <= tolerance) : !is_same(recorded.pose, found.pose)) {
        return format_text("the poses part points by up to %.9g mm", parted);
    }
    if (tolerance > 0.0) return {};
    if (!is_same(recorded.state.residual, found.state.residual)) {
        return format_text("recorded residual %.9g mm, replayed %.9g mm", static_cast<double>(recorded.state.residual),
                           static_cast<double>(found.state.residual));
    }
    const struct {
        const char* name;
        int then, now;
    } numbers[] = {{"correspondences", recorded.state.correspondences, found.state.correspondences},
                   {"points of the frame", recorded.state.frameValid, found.state.frameValid},
                   {"points of the prediction", recorded.state.predictionValid, found.state.predictionValid},
                   {"stable", recorded.state.isStable, found.state.isStable},
                   {"contribution", recorded.contribution, found.contribution},
                   {"speedState", recorded.speedState, found.speedState}};
    for (const auto& number : numbers) {
        if (number.then != number.now) {
            return format_text("%s: recorded %d, replayed %d", number.name, number.then, number.now);
        }
    }
    return {};
}

/// About what the voxels take that the frame touches; none lie farther away than the volume is wide.
double frame_memory_gib(const PointImage& frame, const FusionParameter& fusion) {
    SceneSurvey survey;
    const double edge = std::ldexp(static_cast<double>(fusion.pointDis), std::clamp(fusion.treeDepth, 10, 20));
    const CameraInParam& camera = frame.get_camPar();
    for (const Vector3f& point : frame.get_vCoords()) {
        const double z = static_cast<double>(point.z());
        if (point.cast<double>().norm() <= edge)
            survey.frameArea += z * z / std::abs(camera.get_fx() * camera.get_fy());
    }
    return least_memory_gib(survey, fusion.pointDis, std::clamp(fusion.fusionDataSize(0), 1, 63),
                            sizeof(Fusion::LeafTSDFSpeckle));
}

bool give_to(void* handle, const FrameCall& call, const PointImage& frame, FrameResult& result) {
    int microseconds = 0;
    FrameArguments arguments = call.arguments;
    bool isAccepted = false;
    if (call.function == "track") {
        isAccepted = track(handle, frame, microseconds);
    } else if (call.function == "fusion") {
        isAccepted = fusion(handle, frame, arguments.pose, microseconds);
    } else if (arguments.frameTimeGap >= 1) {
        isAccepted =
            fusion_and_track_with_speed_limit(handle, frame, microseconds, arguments.fuseFlag, arguments.contribution,
                                              arguments.frameTimeGap, arguments.speedState);
    } else {
        isAccepted = fusion_and_track(handle, frame, microseconds, arguments.fuseFlag, arguments.contribution);
    }
    get_fusion_scan_state(handle, result.state);
    result.pose = get_current_rt(handle);
    result.contribution = arguments.contribution;
    result.speedState = arguments.speedState;
    return isAccepted;
}

}  // namespace

void ReleaseSession::operator()(void* handle) const {
    fusiontrack_release(handle);
}

Outcome<Done> SessionReplay::apply(int number, const DebugRecord& record) {
    if (const auto* start = std::get_if<SessionStart>(&record.content)) return begin(*start);
    if (!_session) return Failure{format_text("record %d comes before the beginning of the session", number)};
    if (const auto* call = std::get_if<FrameCall>(&record.content)) return give(*call);
    if (const auto* result = std::get_if<FrameResult>(&record.content)) compare(number, *result);
    if (const auto* setting = std::get_if<SettingChange>(&record.content)) change(*setting);
    if (const auto* edit = std::get_if<EditRecord>(&record.content)) repeat(*edit);
    return Done{};
}

Outcome<Done> SessionReplay::begin(const SessionStart& start) {
    if (_session) return Failure{"the session begins twice"};
    _start = start;
    _start.common.outputPath.clear();  // a place on the machine that recorded
    if (_settings.threads > 0) _start.fusion.codeNumSet = _settings.threads;
    const Vector2i size = start.common.imageSize;
    const std::uint64_t sample = static_cast<std::uint64_t>(std::max(start.common.sample, 1));
    const std::uint64_t slots = static_cast<std::uint64_t>(std::max(size.x(), 0)) / sample *
                                (static_cast<std::uint64_t>(std::max(size.y(), 0)) / sample);
    if (slots > freeSlots + mostSlotsPerByte * _settings.fileBytes) {
        return Failure{
            format_text("its images of %d x %d pixels are out of all proportion to its bytes", size.x(), size.y())};
    }
    _session.reset(start.texture ? fusion_and_track_ini(_start.common, _start.track, _start.fusion,
                                                        start.texture->record, start.texture->leftToTexture)
                                 : fusion_and_track_ini(_start.common, _start.track, _start.fusion));
    if (!_session) return Failure{"no session can be made of its records"};
    if (start.acceptedFrames > 0) {
        _incomparable = format_text("the recording begins after %d accepted frames", start.acceptedFrames);
    }
    return Done{};
}

Outcome<Done> SessionReplay::give(const FrameCall& call) {
    _given.emplace();
    _given->number = ++_frames;
    const std::int32_t sample = std::max(_start.common.sample, 1);
    const Vector2i size = _start.common.imageSize / sample;
    // Of a frame that is none of the session's there is no more than that.
    if (!call.frame.isLegal || call.frame.width != size.x() || call.frame.height != size.y()) return Done{};
    const PointImage frame = call.frame.unpacked();
    const double memory = frame_memory_gib(frame, _start.fusion);
    if (!(memory <= largestFrameGib)) {
        return Failure{format_text("frame %d alone would take %.0f GiB with voxels of %g mm", _frames, memory,
                                   static_cast<double>(_start.fusion.pointDis))};
    }
    _given->isReplayed = true;
    _given->tellsContribution = call.arguments.frameTimeGap >= 1;
    if (give_to(handle(), call, frame, _given->found)) {
        if (_given->found.state.outcome == FrameOutcome::FirstFrame) _poses.clear();
        _poses.push_back(_given->found.pose);
    }
    return Done{};
}

void SessionReplay::compare(int record, const FrameResult& recorded) {
    if (!_given) return;
    const GivenFrame given = *_given;
    _given.reset();
    if (!given.isReplayed || !_incomparable.empty()) return;
    ++_differences.compared;
    _differences.largestParting = std::max(_differences.largestParting, parting(recorded.pose, given.found.pose));
    const std::string found = difference(recorded, given.found, given.tellsContribution, _settings.tolerance);
    if (found.empty()) return;
    if (_differences.differing++ == 0) {
        _differences.first = format_text("frame %d (record %d): ", given.number, record) + found;
    }
}

void SessionReplay::repeat(const EditRecord& edit) {
    if (replay_edit(handle(), edit) == RET_SUCCESS) return;
    _incomparable = edit.name + " has edited the model, which could not be replayed";
}

void SessionReplay::change(const SettingChange& change) {
    for (const Setting& setting : settings) {
        if (change.function == setting.function && change.values.size() == setting.values) {
            setting.apply(handle(), change.values.data());
            return;
        }
    }
    for (const Emptying& emptying : emptyings) {
        if (change.function != emptying.function) continue;
        emptying.apply(handle());
        _poses.clear();
        _incomparable.clear();
        return;
    }
    _incomparable = change.function + " is not replayed";
}

}  // namespace VexelAlgorithm::Apps
