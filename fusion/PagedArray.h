// A growable array whose records never move.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "foundation/zeroPages.h"
#include "fusion/SpinLock.h"

namespace VexelOctree {

/// Records in pages of 2^PageBits that are made on demand and stay where they are, so that pointers to records
/// stay valid while other threads grow the array. Indices are int32.
///
/// Thread-safety: `grow_to` and all reads may run at the same time; `clear` needs the array for itself.
template <class Record, int PageBits>
class PagedArray {
    static_assert(std::is_trivially_destructible_v<Record>, "pages are given back without running destructors");

public:
    static constexpr std::int32_t PageSize = std::int32_t{1} << PageBits;
    // One page less than int32 could number, so that the size is an int32, too.
    static constexpr std::int32_t MaxPages = (std::int32_t{1} << (31 - PageBits)) - 1;

    static constexpr std::int32_t Capacity = MaxPages << PageBits;

    PagedArray() : _pages(new std::atomic<Record*>[MaxPages]()) {}

    /// The number of records there are; a multiple of the page size.
    std::int32_t size() const noexcept { return _size.load(std::memory_order_acquire); }

    Record& operator[](std::int32_t index) noexcept { return page(index)[index & (PageSize - 1)]; }
    const Record& operator[](std::int32_t index) const noexcept { return page(index)[index & (PageSize - 1)]; }

    /// Makes pages until `index` exists. Throws std::bad_alloc, for an index from `Capacity` on as well, the array
    /// being as large as it could be made.
    void grow_to(std::int32_t index) {
        if (index < size()) return;
        if (index >= Capacity) throw std::bad_alloc();
        const std::lock_guard<SpinLock> guard(_growLock);
        while (index >= _size.load(std::memory_order_relaxed)) append_page();
    }

    /// Gives all pages back.
    void clear() noexcept {
        for (std::size_t i = 0; i < _memory.size(); ++i) _pages[i].store(nullptr, std::memory_order_relaxed);
        _memory.clear();
        _size.store(0, std::memory_order_release);
    }

private:
    Record* page(std::int32_t index) const noexcept {
        return _pages[index >> PageBits].load(std::memory_order_relaxed);
    }

    void append_page() {
        const std::size_t count = _memory.size();
        VexelAlgorithm::ZeroPages memory = VexelAlgorithm::allocate_zero_pages(
            sizeof(Record) * static_cast<std::size_t>(PageSize), VexelAlgorithm::PageHint::Dense);
        Record* records = static_cast<Record*>(memory.get());
        std::uninitialized_fill_n(records, PageSize, Record());
        _memory.push_back(std::move(memory));
        _pages[count].store(records, std::memory_order_relaxed);
        // The release makes page pointer and records visible to whoever sees the new size.
        _size.store(static_cast<std::int32_t>(count + 1) << PageBits, std::memory_order_release);
    }

    std::unique_ptr<std::atomic<Record*>[]> _pages;
    std::vector<VexelAlgorithm::ZeroPages> _memory;
    std::atomic<std::int32_t> _size{0};
    SpinLock _growLock;
};

}  // namespace VexelOctree
