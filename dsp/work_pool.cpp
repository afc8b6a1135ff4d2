// Per-thread pool of large work blocks (see work_pool.h).
#include "work_pool.h"

#include <cstdlib>

#include <malloc.h>

namespace vantrel::meas {

namespace {

struct Block {
    void* p;
    std::size_t bytes;
};

// State of this thread's pool, a plain value valid to the thread's very end:
// the pool is made on the first block given back, and a work vector that
// outlives it (destroyed after it at thread exit) frees its block directly.
enum class PoolState { NotMade, Alive, Destroyed };
thread_local PoolState tPoolState = PoolState::NotMade;

struct Pool {
    std::vector<Block> free;  // reserved to kPoolMaxBlocks up front
    std::size_t bytes = 0;
    Pool() { tPoolState = PoolState::Alive; }
    ~Pool() {
        clear();
        tPoolState = PoolState::Destroyed;
    }
    void clear() noexcept {
        for (const Block& b : free) std::free(b.p);
        free.clear();
        bytes = 0;
    }
};

// One pool per thread: an instance is analysed by one thread at a time, and
// a pool of its own needs no lock.
thread_local Pool tPool;

}  // namespace

void* work_pool_take(std::size_t bytes) {
    if (bytes == 0) bytes = 1;
    if (bytes >= kPoolMinBytes && tPoolState == PoolState::Alive) {
        Pool& pool = tPool;
        std::size_t best = pool.free.size();
        for (std::size_t i = 0; i < pool.free.size(); ++i) {
            if (pool.free[i].bytes >= bytes &&
                (best == pool.free.size() || pool.free[i].bytes < pool.free[best].bytes))
                best = i;
        }
        // A block more than twice the request would be wasted on it (and
        // missed by the larger request that follows): take a fresh one.
        if (best < pool.free.size() && pool.free[best].bytes / 2 <= bytes) {
            const Block b = pool.free[best];
            pool.free[best] = pool.free.back();
            pool.free.pop_back();
            pool.bytes -= b.bytes;
            return b.p;
        }
    }
    void* p = std::malloc(bytes);
    if (p == nullptr) throw std::bad_alloc();
    return p;
}

void work_pool_give(void* p, std::size_t bytes) noexcept {
    if (p == nullptr) return;
    // The block may be larger than this vector asked for (it came from the
    // pool for a smaller request): record what it can really hold.
    bytes = malloc_usable_size(p);
    if (bytes < kPoolMinBytes || tPoolState == PoolState::Destroyed) {
        std::free(p);
        return;
    }
    Pool& pool = tPool;
    if (pool.free.capacity() < kPoolMaxBlocks) {
        // Reserving can fail; the block is then simply given back.
        try {
            pool.free.reserve(kPoolMaxBlocks);
        } catch (...) {
            std::free(p);
            return;
        }
    }
    // Full: make room by giving back the smallest kept block if this one is
    // larger (large blocks are the costly ones to fault in).
    while (!pool.free.empty() &&
           (pool.free.size() >= kPoolMaxBlocks || pool.bytes + bytes > kPoolMaxBytes)) {
        std::size_t smallest = 0;
        for (std::size_t i = 1; i < pool.free.size(); ++i)
            if (pool.free[i].bytes < pool.free[smallest].bytes) smallest = i;
        if (pool.free[smallest].bytes >= bytes) break;
        std::free(pool.free[smallest].p);
        pool.bytes -= pool.free[smallest].bytes;
        pool.free[smallest] = pool.free.back();
        pool.free.pop_back();
    }
    if (pool.free.size() >= kPoolMaxBlocks || pool.bytes + bytes > kPoolMaxBytes) {
        std::free(p);
        return;
    }
    pool.free.push_back({p, bytes});
    pool.bytes += bytes;
}

void work_pool_clear() noexcept {
    if (tPoolState == PoolState::Alive) tPool.clear();
}

std::size_t work_pool_bytes() noexcept { return tPoolState == PoolState::Alive ? tPool.bytes : 0; }

}  // namespace vantrel::meas
