// Recycling of large work blocks (see heap_array.h).
#include "heap_array.h"

#include <malloc.h>

#include <cstring>

namespace {

constexpr int kSlots = 4;

struct Recycled {
    void* block[kSlots] = {};
    std::size_t size[kSlots] = {};  // usable bytes of each block
    ~Recycled() { clear(); }
    void clear() noexcept {
        for (int s = 0; s < kSlots; ++s) {
            std::free(block[s]);
            block[s] = nullptr;
            size[s] = 0;
        }
    }
};

// One set per thread: instances are not shared between threads, and this
// keeps the recycling free of locks.
thread_local Recycled tRecycled;

}  // namespace

void* heap_take(std::size_t bytes, bool zeroed) {
    if (bytes >= kHeapRecycleBytes) {
        Recycled& r = tRecycled;
        int best = -1;
        for (int s = 0; s < kSlots; ++s) {
            if (r.block[s] != nullptr && r.size[s] >= bytes &&
                (best < 0 || r.size[s] < r.size[best]))
                best = s;
        }
        if (best >= 0) {
            void* p = r.block[best];
            r.block[best] = nullptr;
            r.size[best] = 0;
            if (zeroed) std::memset(p, 0, bytes);
            return p;
        }
    }
    return zeroed ? std::calloc(1, bytes) : std::malloc(bytes);
}

void heap_give(void* p) noexcept {
    if (p == nullptr) return;
    const std::size_t usable = malloc_usable_size(p);
    if (usable < kHeapRecycleBytes) {
        std::free(p);
        return;
    }
    // Keep the block in a free slot, else in place of the smallest kept block
    // when that one is smaller; otherwise give it back.
    Recycled& r = tRecycled;
    int slot = -1;
    for (int s = 0; s < kSlots; ++s) {
        if (r.block[s] == nullptr) {
            slot = s;
            break;
        }
        if (r.size[s] < usable && (slot < 0 || r.size[s] < r.size[slot])) slot = s;
    }
    if (slot < 0) {
        std::free(p);
        return;
    }
    std::free(r.block[slot]);
    r.block[slot] = p;
    r.size[slot] = usable;
}

void heap_recycled_clear() noexcept { tRecycled.clear(); }

std::size_t heap_recycled_bytes() noexcept {
    std::size_t total = 0;
    for (int s = 0; s < kSlots; ++s) total += tRecycled.size[s];
    return total;
}
