// The tool as a process, in a folder of its own.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "TemporaryFolder.h"

#if !defined(_WIN32)
#    include <sys/wait.h>
#endif

namespace VexelTest {

struct ToolRun {
    int exitCode = -1;
    std::string output;
    std::string errors;
};

inline std::string quoted(const std::filesystem::path& path) {
    return '"' + path.string() + '"';
}

class ToolTest : public ::testing::Test {
protected:
    ToolRun run(const std::string& arguments) const {
        const std::filesystem::path output = path("stdout.txt");
        const std::filesystem::path errors = path("stderr.txt");
        const std::string command =
            quoted(VEXEL_SCAN_PROGRAM) + ' ' + arguments + " >" + quoted(output) + " 2>" + quoted(errors);
        const int status = std::system(command.c_str());
#if defined(_WIN32)
        const int exitCode = status;
#else
        const int exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
#endif
        return {exitCode, bytes_of(output), bytes_of(errors)};
    }

#if !defined(_WIN32)
    /// Interrupts the tool as soon as its output holds the word.
    ToolRun run_interrupted(const std::string& arguments, const std::string& word) const {
        const std::filesystem::path log = path("log.txt");
        std::ofstream(log).close();
        const std::string call = quoted(VEXEL_SCAN_PROGRAM) + ' ' + arguments + " >" + quoted(log);
        const std::string wait = "while kill -0 $p && ! grep -q " + word + ' ' + quoted(log) + "; do sleep 0.01; done";
        const int status = std::system((call + " & p=$!; " + wait + "; kill -INT $p; wait $p").c_str());
        return {WEXITSTATUS(status), bytes_of(log), ""};
    }
#endif

    std::filesystem::path path(const std::string& name) const {
        return _folder.path() / name;
    }

private:
    TemporaryFolder _folder;
};

}  // namespace VexelTest
