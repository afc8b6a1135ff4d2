// Work arrays taken from the C heap and released automatically.
//
// Every signal routine takes its scratch memory from the heap and must give
// it back on every path, including early returns. HeapArray ties a malloc'd
// block to its scope; an allocation failure yields a null array (never an
// exception), so each routine keeps the simple "null means out of memory"
// check of a C implementation without any paired free() calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <type_traits>

// Large blocks are recycled. Touching fresh pages of a multi-megabyte block
// costs a page fault per page, and the allocator hands such blocks straight
// back to the system when they are freed, so every call would fault its work
// buffers in again. Blocks of at least kHeapRecycleBytes released by a
// HeapArray are therefore kept (a few per thread, the largest ones) and
// handed out again for the next request they can hold, smallest fit first.
// heap_recycled_clear() gives them back; the registry calls it when the last
// instance is released.
constexpr std::size_t kHeapRecycleBytes = std::size_t(256) * 1024;
void* heap_take(std::size_t bytes, bool zeroed);
void heap_give(void* p) noexcept;
void heap_recycled_clear() noexcept;
std::size_t heap_recycled_bytes() noexcept;

struct FreeDeleter {
    void operator()(void* p) const noexcept { heap_give(p); }
};

template <class T>
using HeapArray = std::unique_ptr<T[], FreeDeleter>;

// n uninitialised elements; null on failure, on a negative count, or when the
// byte size would overflow. A request for zero elements still returns a valid
// (one-element) block so that null always means failure.
template <class T>
HeapArray<T> heap_alloc(std::int64_t n) {
    static_assert(std::is_trivially_copyable<T>::value, "plain data only");
    if (n < 0 || static_cast<std::uint64_t>(n) > SIZE_MAX / sizeof(T)) return HeapArray<T>();
    std::size_t count = n > 0 ? static_cast<std::size_t>(n) : 1;
    return HeapArray<T>(static_cast<T*>(heap_take(count * sizeof(T), false)));
}

// n zero-filled elements (all-bits-zero is 0.0 for doubles); null on failure.
template <class T>
HeapArray<T> heap_zeroed(std::int64_t n) {
    static_assert(std::is_trivially_copyable<T>::value, "plain data only");
    if (n < 0 || static_cast<std::uint64_t>(n) > SIZE_MAX / sizeof(T)) return HeapArray<T>();
    std::size_t count = n > 0 ? static_cast<std::size_t>(n) : 1;
    return HeapArray<T>(static_cast<T*>(heap_take(count * sizeof(T), true)));
}
