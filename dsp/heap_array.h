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

struct FreeDeleter {
    void operator()(void* p) const noexcept { std::free(p); }
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
    return HeapArray<T>(static_cast<T*>(std::malloc(count * sizeof(T))));
}

// n zero-filled elements (all-bits-zero is 0.0 for doubles); null on failure.
template <class T>
HeapArray<T> heap_zeroed(std::int64_t n) {
    static_assert(std::is_trivially_copyable<T>::value, "plain data only");
    if (n < 0 || static_cast<std::uint64_t>(n) > SIZE_MAX / sizeof(T)) return HeapArray<T>();
    std::size_t count = n > 0 ? static_cast<std::size_t>(n) : 1;
    return HeapArray<T>(static_cast<T*>(std::calloc(count, sizeof(T))));
}
