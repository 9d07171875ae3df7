// What tests need: the standard headers of most of them, what a piece of code prints, and numbers that are none.
#pragma once

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "foundation/RigidMatrix.h"

namespace VexelTest {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

template <class Action>
std::string printed(const Action& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

/// What a call returns, and what it prints meanwhile.
template <class Call>
auto outcome(const Call& call) {
    testing::internal::CaptureStdout();
    auto result = call();
    return std::pair(std::move(result), testing::internal::GetCapturedStdout());
}

inline int line_count(const std::string& text) {
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

inline std::string can_not(const std::string& function, const std::string& reason) {
    return "can not run function " + function + " because " + reason + "\n";
}

/// Does it with each instruction set that this processor has.
template <class Action>
void with_every_instruction_set(const Action& action) {
    const auto choose = [](std::int64_t targets) {
        hwy::SetSupportedTargetsForTest(targets);
        hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    };
    for (const std::int64_t target : hwy::SupportedAndGeneratedTargets()) choose(target), action();
    choose(0);
}

/// By the angle about the axis of the vector, radians.
inline VexelAlgorithm::Matrix3d turned(const VexelAlgorithm::Vector3d& axisAngle) {
    VexelAlgorithm::Matrix3d rotation;
    VexelAlgorithm::rodrigures(axisAngle, rotation);
    return rotation;
}

}  // namespace VexelTest
