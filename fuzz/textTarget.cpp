// The texts of recordings: poses, intrinsics, depth steps, trajectories and names of frames.
#include "fuzz/target.h"
#include "recording/frameNames.h"
#include "recording/poseText.h"
#include "recording/trajectoryText.h"

namespace {

using namespace VexelAlgorithm;
using VexelFuzz::require;

bool is_sound(const RigidMatrix& pose) {
    return pose.get_rotation().allFinite() && pose.get_translation().allFinite();
}

/// A refusal reaches the terminal, so it must be one line of ordinary characters.
template <class Value>
bool is_there(const Outcome<Value>& outcome) {
    if (outcome) return true;
    require(!outcome.failure().reason.empty(), "a refusal has a reason");
    for (const char c : outcome.failure().reason) require(c >= ' ' && c <= '~', "a reason is one line");
    return false;
}

void take_pose(std::string_view text) {
    const Outcome<RigidMatrix> pose = parse_pose(text);
    if (!is_there(pose)) return;
    require(is_sound(*pose), "a pose is finite");
    require(static_cast<bool>(parse_pose(pose_text(*pose))), "a pose that is written can be read");
}

void take_intrinsics(std::string_view text) {
    const Outcome<CameraInParam> camera = parse_intrinsics(text);
    if (is_there(camera)) require(static_cast<bool>(parse_intrinsics(intrinsics_text(*camera))), "intrinsics go round");
}

void take_depth_step(std::string_view text) {
    const Outcome<double> step = parse_depth_step(text);
    if (is_there(step)) require(*parse_depth_step(depth_step_text(*step)) == *step, "a step goes round");
}

void take_trajectory(std::string_view text) {
    const Outcome<std::vector<TimedPose>> poses = parse_trajectory(text);
    if (!is_there(poses)) return;
    for (const TimedPose& pose : *poses) require(is_sound(pose.cameraToWorld), "a trajectory is finite");
}

void take_name(std::string_view text) {
    const std::string ending = ".depth.png";
    const auto number = frame_number(std::string(text), ending);
    if (number) require(frame_number(frame_name(*number, ending), ending) == number, "a number goes round");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr void (*readers[])(std::string_view) = {take_pose, take_intrinsics, take_depth_step, take_trajectory,
                                                     take_name};
    std::string_view input = VexelFuzz::text_of(data, size);
    const std::size_t choice = VexelFuzz::take_choice(input, std::size(readers));
    readers[choice](input);
    return 0;
}
