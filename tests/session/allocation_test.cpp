// A frame step takes no frame-sized memory once the first frames have come.
#include <atomic>
#include <cstdlib>
#include <new>

#include "tests/session/sessionScenes.h"

namespace {

std::atomic<std::size_t> largest{0};  // bytes of the largest allocation since it was set to zero

}  // namespace

// All other forms end in these.
void* operator new(std::size_t bytes) {
    std::size_t seen = largest;
    while (bytes > seen && !largest.compare_exchange_weak(seen, bytes)) {
    }
    if (void* memory = std::malloc(bytes)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    operator delete(memory);
}

namespace VexelAlgorithm {
namespace {

TEST(Allocation, NoneOfTheSizeOfAFrame) {
    Scan scan("smooth", 360);
    scan.records.fusion.codeNumSet = 2;
    std::vector<PointImage> frames;
    for (int i = 0; i < 8; ++i) frames.push_back(scan.frame(i));
    // Below the least that an image could hold, a number a slot, and above the tables that loops give to their workers.
    const std::size_t frameBytes = 4 * frames[0].get_vn();
    ASSERT_GT(frameBytes, std::size_t{300000});
    Session session(scan.records);
    largest = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        ASSERT_TRUE(session.step(frames[i]));
        if (i == 0) {
            EXPECT_GE(largest, frameBytes) << "the counter does not count";
        } else if (i > 2) {
            EXPECT_LT(largest, frameBytes) << i;
        }
        largest = 0;
    }
}

}  // namespace
}  // namespace VexelAlgorithm
