#include "fusiontrackoperation/motionTests.h"

#include <algorithm>
#include <cstddef>

namespace VexelAlgorithm {
namespace {

RigidMatrix step_between(const RigidMatrix& from, const RigidMatrix& to) {
    return from.inverse() * to;
}

double translation_of(const RigidMatrix& step) {
    return step.get_translation().norm();
}

/// In model coordinates, so that turns at different poses can be compared.
Vector3d turn_between(const RigidMatrix& from, const RigidMatrix& to) {
    Vector3d axisAngle;
    rodrigures(to.get_rotation() * from.get_rotation().transpose(), axisAngle);
    return axisAngle;
}

bool are_opposite(const Vector3d& a, const Vector3d& b) {
    return a.dot(b) < OPPOSITE_COSINE * a.norm() * b.norm();
}

double tolerance(double a, double b, double least) {
    return std::max(least, UNIFORM_SHARE * std::max(a, b));
}

}  // namespace

bool is_uniform_motion(const std::vector<RigidMatrix>& history, const RigidMatrix& pose) {
    if (history.size() < 2) return false;
    const RigidMatrix last = step_between(history[history.size() - 2], history.back());
    const RigidMatrix next = step_between(history.back(), pose);
    const RigidMatrix difference = step_between(last, next);
    return translation_of(difference) <= tolerance(translation_of(last), translation_of(next), UNIFORM_TRANSLATION) &&
           rotation_angle(difference) <= tolerance(rotation_angle(last), rotation_angle(next), UNIFORM_ANGLE);
}

bool is_rotation_inversed(const std::vector<RigidMatrix>& history, const RigidMatrix& pose) {
    if (history.size() < 2) return false;
    const Vector3d next = turn_between(history.back(), pose);
    if (next.norm() < TURN_ANGLE) return false;
    const std::size_t reach = std::min<std::size_t>(history.size() - 1, TURN_HISTORY);
    for (std::size_t back = 1; back <= reach; ++back) {
        const std::size_t i = history.size() - back;
        const Vector3d turn = turn_between(history[i - 1], history[i]);
        if (turn.norm() >= TURN_ANGLE) return are_opposite(turn, next);
    }
    return false;
}

bool is_need_seq_rebuild(const std::vector<RigidMatrix>& history, const RigidMatrix& pose) {
    if (history.empty()) return true;
    const RigidMatrix step = step_between(history.back(), pose);
    return translation_of(step) > SEQUENCE_TRANSLATION || rotation_angle(step) > SEQUENCE_ANGLE;
}

}  // namespace VexelAlgorithm
