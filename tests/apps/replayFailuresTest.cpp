// vexel-scan replay on files that are damaged or none.
#include "ReplayTool.h"

namespace VexelTest {
namespace {

TEST_F(ReplayTool, FilesThatAreNoneEndWithALine) {
    const std::string file = recorded(2, 3);
    EXPECT_EQ(replay(file).exitCode, 0) << "several threads have a tolerance";
    const auto with = [&](std::size_t at, auto value) {
        std::string bytes = file;
        std::memcpy(&bytes[at], &value, sizeof(value));
        return bytes;
    };
    const std::size_t common = file.find("CommonParameter") + 15 + 8;
    const std::pair<std::string, const char*> cases[] = {
        {"", "it is no debug recording"},
        {file.substr(0, 12), "it ends within its header"},
        {with(11, 2), "only 1 is known"},
        {file.substr(0, kHeader), "there is no session in it"},
        {file.substr(0, common), "there is no session in it; the file is cut off within record 1"},
        {with(kHeader, 0x7fffffff), "record 1 is damaged"},
        {with(common, 0x7fffffff), "out of all proportion"},
        {with(common, -5), "no session can be made of its records"},
        {with(file.find("acceptedFrames") + 14 + 8, 3), "the recording begins after 3 accepted frames"},
    };
    for (const auto& [bytes, text] : cases) {
        SCOPED_TRACE(text);
        const ToolRun ended = replay(bytes);
        EXPECT_TRUE(ended.exitCode == 1 || (ended.exitCode == 0 && ended.errors.empty())) << ended.exitCode;
        expect_in(text, ended);
    }
    const ToolRun missing = run("replay @/nothing.tb");
    EXPECT_EQ(missing.exitCode, 1);
    expect_in("nothing.tb cannot be read", missing);
}

}  // namespace
}  // namespace VexelTest
