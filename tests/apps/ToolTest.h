// The tool as a process, in a folder of its own.
#pragma once

#include <cstdlib>

#include "tests/common.h"
#include "trials/TemporaryFolder.h"

#if !defined(_WIN32)
#    include <sys/wait.h>
#endif

namespace VexelTest {

using namespace VexelTrial;

struct ToolRun {
    int exitCode = -1;
    std::string output;
    std::string errors;
};

inline bool holds(const std::string& text, const std::string& words) {
    return text.find(words) != std::string::npos;
}

/// In arguments, @/name stands for that path in the test's folder.
class ToolTest : public ::testing::Test {
protected:
    struct BadCall {
        std::string arguments;
        int exitCode;
        const char* message;
    };

    ToolRun run(const std::string& arguments) const {
        const int status = std::system((call(arguments) + " 2>" + quoted(path("stderr.txt"))).c_str());
#if defined(_WIN32)
        const int exitCode = status;
#else
        const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
        return {exitCode, bytes_of(path("stdout.txt")), bytes_of(path("stderr.txt"))};
    }

    /// A run that succeeds without a word on standard error.
    ToolRun run_well(const std::string& arguments) const {
        const ToolRun result = run(arguments);
        EXPECT_EQ(result.exitCode, 0) << arguments << '\n' << result.output;
        EXPECT_EQ(result.errors, "") << arguments;
        return result;
    }

    /// Each call ends with its code and one line of reason; no mesh is written to @/out and @/file stays as it is.
    template <std::size_t Count>
    void expect_failures(const BadCall (&calls)[Count]) const {
        put_bytes(path("file"), "precious");
        for (const BadCall& bad : calls) {
            SCOPED_TRACE(bad.arguments);
            const ToolRun result = run(bad.arguments);
            EXPECT_EQ(result.exitCode, bad.exitCode);
            EXPECT_TRUE(holds(result.errors, bad.message)) << result.errors;
            EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
            EXPECT_FALSE(std::filesystem::exists(path("out/mesh.ply")));
        }
        EXPECT_EQ(bytes_of(path("file")), "precious");
    }

#if !defined(_WIN32)
    /// Interrupts the tool as soon as its output holds the word.
    ToolRun run_interrupted(const std::string& arguments, const std::string& word) const {
        std::ofstream(path("stdout.txt")).close();
        const std::string wait =
            "while kill -0 $p && ! grep -q " + word + ' ' + quoted(path("stdout.txt")) + "; do sleep 0.01; done";
        const int status = std::system((call(arguments) + " & p=$!; " + wait + "; kill -INT $p; wait $p").c_str());
        return {WEXITSTATUS(status), bytes_of(path("stdout.txt")), ""};
    }
#endif

    std::filesystem::path path(const std::string& name) const {
        return _folder.path() / name;
    }
    bool exists(const std::string& name) const {
        return std::filesystem::exists(path(name));
    }

    static std::string quoted(const std::filesystem::path& path) {
        return '"' + path.string() + '"';
    }
    /// The shell command, its output in stdout.txt.
    std::string call(const std::string& arguments) const {
        return quoted(VEXEL_SCAN_PROGRAM) + ' ' + placed(arguments) + " >" + quoted(path("stdout.txt"));
    }

private:
    std::string placed(const std::string& arguments) const {
        std::string result;
        for (std::size_t end = 0; end < arguments.size();) {
            const std::size_t begin = std::min(arguments.find("@/", end), arguments.size());
            result += arguments.substr(end, begin - end);
            end = std::min(arguments.find_first_of(" \n", begin), arguments.size());
            if (begin < end) result += quoted(path(arguments.substr(begin + 2, end - begin - 2)));
        }
        return result;
    }

    VexelTrial::TemporaryFolder _folder;
};

}  // namespace VexelTest
