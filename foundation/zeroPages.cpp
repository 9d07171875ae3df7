#include "foundation/zeroPages.h"

#include <new>

#if defined(_WIN32)
#    ifndef WIN32_LEAN_AND_MEAN
#        define WIN32_LEAN_AND_MEAN
#    endif
#    include <windows.h>
#else
#    include <sys/mman.h>
#endif

namespace VexelAlgorithm {

#if defined(_WIN32)

ZeroPages allocate_zero_pages(std::size_t bytes, PageHint) {
    void* memory = VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (memory == nullptr) throw std::bad_alloc();
    return ZeroPages(memory, ZeroPagesRelease{bytes});
}

void ZeroPagesRelease::operator()(void* memory) const noexcept {
    VirtualFree(memory, 0, MEM_RELEASE);
}

#else

ZeroPages allocate_zero_pages(std::size_t bytes, PageHint hint) {
    void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
#    if defined(MADV_HUGEPAGE)
    // Only advice: without large pages everything works the same, a little slower.
    if (hint == PageHint::Dense) madvise(memory, bytes, MADV_HUGEPAGE);
#    else
    (void)hint;
#    endif
    return ZeroPages(memory, ZeroPagesRelease{bytes});
}

void ZeroPagesRelease::operator()(void* memory) const noexcept {
    munmap(memory, bytes);
}

#endif

}  // namespace VexelAlgorithm
