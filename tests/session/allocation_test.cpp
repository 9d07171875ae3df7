// A frame step takes no frame-sized memory once the first frames have come.
#include "tests/session/sessionScenes.h"

extern std::atomic<std::size_t> largestAllocation;

namespace {

using namespace VexelAlgorithm;

TEST(Allocation, NoneOfTheSizeOfAFrame) {
    Scan scan("smooth", 360);
    scan.records.fusion.codeNumSet = 2;
    std::vector<PointImage> frames;
    for (int i = 0; i < 8; ++i) frames.push_back(scan.frame(i));
    // Below the least that an image could hold, a number a slot, and above the tables that loops give to their workers.
    const std::size_t frameBytes = 4 * frames[0].get_vn();
    ASSERT_GT(frameBytes, std::size_t{300000});
    Session session(scan.records);
    largestAllocation = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        ASSERT_TRUE(session.step(frames[i]));
        if (i == 0) {
            EXPECT_GE(largestAllocation, frameBytes) << "the counter does not count";
        } else if (i > 2) {
            EXPECT_LT(largestAllocation, frameBytes) << i;
        }
        largestAllocation = 0;
    }
}

}  // namespace
