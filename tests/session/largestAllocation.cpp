// By itself, so that no compiler sees through the operators where they are used.
#include <atomic>
#include <cstdlib>
#include <new>

/// Bytes of the largest allocation of the program since it was set to zero.
std::atomic<std::size_t> largestAllocation{0};

// All other forms end in these, or stay among themselves. Under the address sanitizer the one that does not throw would
// not, but what it gives comes back to the common delete.
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
    std::size_t seen = largestAllocation;
    while (bytes > seen && !largestAllocation.compare_exchange_weak(seen, bytes)) {
    }
    return std::malloc(bytes);
}
void* operator new(std::size_t bytes) {
    if (void* memory = operator new(bytes, std::nothrow)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
