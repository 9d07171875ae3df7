// What a piece of code prints.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace VexelTest {

template <class Action>
std::string printed(const Action& action) {
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

inline int line_count(const std::string& text) {
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace VexelTest
