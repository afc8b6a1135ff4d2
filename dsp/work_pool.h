// Work memory of the measurement mode, kept from one call to the next.
//
// A measurement holds a dozen arrays of the block's length (the samples, the
// analysis stream, its filtered copy, the per-symbol arrays). Blocks that
// large come straight from the system and go straight back when freed, so
// every call would fault all of its pages in again, a quarter of a call's
// time. WorkVec is a std::vector whose large blocks (kPoolMinBytes and up)
// are handed back to a per-thread pool when released and taken from it again
// by the next request they can hold, smallest fit first. The pool keeps at
// most kPoolMaxBlocks blocks and kPoolMaxBytes bytes; work_pool_clear() gives
// them back (the registry calls it when the last instance is released, and
// a thread's pool is released when the thread ends).
#pragma once

#include <cstddef>
#include <new>
#include <vector>

namespace vantrel::meas {

constexpr std::size_t kPoolMinBytes = std::size_t(64) * 1024;
constexpr std::size_t kPoolMaxBlocks = 32;
constexpr std::size_t kPoolMaxBytes = std::size_t(256) * 1024 * 1024;

// A block of at least `bytes` (throws std::bad_alloc when none can be had);
// work_pool_give takes back a block of `bytes` from work_pool_take.
void* work_pool_take(std::size_t bytes);
void work_pool_give(void* p, std::size_t bytes) noexcept;
void work_pool_clear() noexcept;
std::size_t work_pool_bytes() noexcept;  // held by this thread's pool

template <class T>
struct WorkAllocator {
    using value_type = T;
    WorkAllocator() = default;
    template <class U>
    WorkAllocator(const WorkAllocator<U>&) noexcept {}
    T* allocate(std::size_t n) {
        if (n > std::size_t(-1) / sizeof(T)) throw std::bad_alloc();
        return static_cast<T*>(work_pool_take(n * sizeof(T)));
    }
    void deallocate(T* p, std::size_t n) noexcept { work_pool_give(p, n * sizeof(T)); }
    template <class U>
    bool operator==(const WorkAllocator<U>&) const noexcept { return true; }
    template <class U>
    bool operator!=(const WorkAllocator<U>&) const noexcept { return false; }
};

template <class T>
using WorkVec = std::vector<T, WorkAllocator<T>>;

}  // namespace vantrel::meas
