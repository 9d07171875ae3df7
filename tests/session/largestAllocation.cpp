// By itself, so that no compiler sees through the operators where they are used.
#include <atomic>
#include <cstdlib>
#include <new>

/// Bytes of the largest allocation of the program since it was set to zero.
std::atomic<std::size_t> largestAllocation{0};

// All other forms end in these.
void* operator new(std::size_t bytes) {
    std::size_t seen = largestAllocation;
    while (bytes > seen && !largestAllocation.compare_exchange_weak(seen, bytes)) {
    }
    if (void* memory = std::malloc(bytes)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
