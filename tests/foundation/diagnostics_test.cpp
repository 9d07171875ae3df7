// Lines that an application has redirected to its own function.
#include "foundation/diagnostics.h"

#include <stdexcept>

#include "foundation/diagnosticsCallBack.h"
#include "foundation/handle.h"
#include "foundation/parallel.h"
#include "tests/common.h"

namespace {

using namespace VexelAlgorithm;
using Lines = std::vector<std::string>;
using VexelTest::printed;

void keep(const char* line, std::size_t length, void* user) {
    EXPECT_EQ(line[length], '\0');
    static_cast<Lines*>(user)->push_back(std::string(line, length));
}

class RedirectedLines : public testing::Test {
protected:
    ~RedirectedLines() override { set_diagnostics_call_back(nullptr, nullptr); }
    Lines lines;
};

TEST_F(RedirectedLines, ComeWholeAsPrinted) {
    const std::string output = printed([&] {
        print_line("before");
        set_diagnostics_call_back(keep, &lines);
        print_line("one ");
        print_text("\n\ntwo\nthree");
        print_text("");
        print_line(std::string("a\0b", 3));
        set_diagnostics_call_back(nullptr, nullptr);
        print_line("after");
    });
    EXPECT_EQ(output, "before\nafter\n");
    EXPECT_EQ(lines, (Lines{"one \n", "\n", "\n", "two\n", "three", std::string("a\0b\n", 4)}));
}

TEST_F(RedirectedLines, ThoseOfACallComeWhenItEnds) {
    set_diagnostics_call_back(keep, &lines);
    const auto call = [&](bool throws) {
        return guarded<bool>("outer", false, [&] {
            print_line("first");
            guarded("inner", [] { print_line("second"); });
            parallel_ranges(2, 4, 1, [](std::size_t, std::size_t) { print_line("loop"); });
            EXPECT_EQ(lines, Lines());
            if (throws) throw std::runtime_error("reason");
            return true;
        });
    };
    EXPECT_TRUE(call(false));
    std::stable_partition(lines.begin(), lines.end(), [](const std::string& line) { return line != "loop\n"; });
    EXPECT_EQ(lines, (Lines{"first\n", "second\n", "loop\n", "loop\n", "loop\n", "loop\n"}));
    lines.clear();
    EXPECT_FALSE(call(true));
    EXPECT_EQ(lines.size(), 7U);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "outer failed: reason\n"), lines.end());
}

TEST_F(RedirectedLines, TheFunctionMayDoWhatItLikes) {
    const std::tuple<DiagnosticsCallBack, Lines, std::string> cases[] = {
        {[](const char* line, std::size_t length, void* user) {
             keep(line, length, user);
             guarded("call", [] { print_line("from inside"); });
             throw std::runtime_error("dropped");
         },
         {"one\n", "two\n"},
         "from inside\nfrom inside\n"},
        {[](const char* line, std::size_t length, void* user) {
             set_diagnostics_call_back(nullptr, nullptr);
             keep(line, length, user);
         },
         {"one\n"},
         "two\n"},
        {[](const char*, std::size_t, void* user) { set_diagnostics_call_back(keep, user); }, {"two\n"}, ""},
    };
    for (const auto& [function, expected, expectedOutput] : cases) {
        lines.clear();
        const std::string output = printed([&, &function = function] {
            set_diagnostics_call_back(function, &lines);
            print_line("one");
            print_line("two");
            set_diagnostics_call_back(nullptr, nullptr);
        });
        EXPECT_EQ(lines, expected);
        EXPECT_EQ(output, expectedOutput);
    }
}

TEST(Lines, OfThreadsDoNotMix) {
    EXPECT_EQ(format_text("%s = %d, %f", "a", 7, 0.5), "a = 7, 0.500000");
    EXPECT_EQ(format_text("%s", std::string(5000, 'x').c_str()).size(), 5000u);
    std::istringstream lines(printed([] {
        std::vector<std::thread> threads;
        for (const char letter : {'a', 'b', 'c', 'd'})
            threads.emplace_back([letter] {
                for (int i = 0; i < 100; ++i) print_line(std::string(200, letter));
            });
        for (std::thread& thread : threads) thread.join();
    }));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) EXPECT_EQ(line, std::string(200, line.at(0)));
    EXPECT_EQ(count, 400);
}

/// Remembers lines; knows when it must not be used any more, and whether somebody else is inside.
struct Screen {
    std::atomic<bool> isInUse{true};
    std::atomic<int> inside{0};
    std::atomic<int> faults{0};
    Lines lines;  // without a lock: one thread at a time

    static void show(const char* line, std::size_t length, void* user) {
        auto& screen = *static_cast<Screen*>(user);
        if (screen.inside++ > 0 || !screen.isInUse) ++screen.faults;
        screen.lines.push_back(std::string(line, length));
        --screen.inside;
    }
};

TEST_F(RedirectedLines, OfManyThreadsNeitherMixNorOutliveTheFunction) {
    constexpr int kThreads = 4, kCalls = 200;
    std::vector<Screen> screens(20);
    std::atomic<int> printing{kThreads};
    set_diagnostics_call_back(Screen::show, &screens.front());
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int call = 0; call < kCalls; ++call)
                guarded("call", [&] {
                    for (int i = 0; i < 3; ++i) print_line(format_text("%d %d %d", t, call, i));
                });
            --printing;
        });
    for (std::size_t next = 1; next < screens.size(); ++next) {
        std::this_thread::yield();
        set_diagnostics_call_back(Screen::show, &screens[next]);
        screens[next - 1].isInUse = false;
    }
    for (std::thread& thread : threads) thread.join();
    set_diagnostics_call_back(nullptr, nullptr);

    Lines all;
    for (const Screen& screen : screens) {
        EXPECT_EQ(screen.faults, 0);
        all.insert(all.end(), screen.lines.begin(), screen.lines.end());
    }
    ASSERT_EQ(all.size(), static_cast<std::size_t>(3 * kThreads * kCalls));
    std::vector<int> nextCall(kThreads, 0);
    for (std::size_t i = 0; i < all.size(); i += 3) {
        const int t = all[i][0] - '0';
        for (std::size_t k = 0; k < 3; ++k)
            ASSERT_EQ(all[i + k],
                      format_text("%d %d %d\n", t, nextCall[static_cast<std::size_t>(t)], static_cast<int>(k)));
        ++nextCall[static_cast<std::size_t>(t)];
    }
}

}  // namespace
