// What a piece of code prints.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>

namespace VexelTest {

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

}  // namespace VexelTest
