// Allocation-failure sweep: for one capture of every mode code, the k-th heap
// allocation made during one VantrelExcute fails, for every k from 1 to the
// number of allocations the call makes.
//
// The binary is linked with --wrap for malloc, calloc, realloc and the
// operator new family (see CMakeLists.txt), so every allocation the library's
// own code makes passes through the counters below; the library itself
// carries no test hook. Counting happens only while a call is armed, on the
// calling thread.
//
// Each failed call must return a documented code (-4 when the entry or the
// driver runs out; otherwise the failing stage ends its demodulator and the
// record decides: -3 for a digital family whose constellation came out short,
// 0 when it did not, 0 for an analog analysis), leave every host array guard
// intact, and leave the instance able to analyse the next block exactly as a
// fresh one does. Under the sanitize preset LeakSanitizer checks that nothing
// a failed call allocated is left behind.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

#include "every_code.h"

// ---- Allocation counting and failure injection ----
namespace {
thread_local bool tArmed = false;
thread_local long tCount = 0;   // allocations seen while armed
thread_local long tFailAt = 0;  // 1-based index of the allocation to fail; 0: none
thread_local bool tFailed = false;

bool failThisOne() {
    if (!tArmed || ++tCount != tFailAt) return false;
    return tFailed = true;
}

struct Armed {
    explicit Armed(long failAt) {
        tCount = 0;
        tFailAt = failAt;
        tFailed = false;
        tArmed = true;
    }
    ~Armed() { tArmed = false; }
};
}  // namespace

extern "C" {
void* __real_malloc(size_t);
void* __real_calloc(size_t, size_t);
void* __real_realloc(void*, size_t);
void* __wrap_malloc(size_t n) { return failThisOne() ? nullptr : __real_malloc(n); }
void* __wrap_calloc(size_t n, size_t size) { return failThisOne() ? nullptr : __real_calloc(n, size); }
void* __wrap_realloc(void* p, size_t n) { return failThisOne() ? nullptr : __real_realloc(p, n); }

// operator new(size_t), new[](size_t) and their nothrow forms.
void* __real__Znwm(size_t);
void* __real__Znam(size_t);
void* __real__ZnwmRKSt9nothrow_t(size_t, const std::nothrow_t&);
void* __real__ZnamRKSt9nothrow_t(size_t, const std::nothrow_t&);
void* __wrap__Znwm(size_t n) { return failThisOne() ? throw std::bad_alloc() : __real__Znwm(n); }
void* __wrap__Znam(size_t n) { return failThisOne() ? throw std::bad_alloc() : __real__Znam(n); }
void* __wrap__ZnwmRKSt9nothrow_t(size_t n, const std::nothrow_t& t) {
    return failThisOne() ? nullptr : __real__ZnwmRKSt9nothrow_t(n, t);
}
void* __wrap__ZnamRKSt9nothrow_t(size_t n, const std::nothrow_t& t) {
    return failThisOne() ? nullptr : __real__ZnamRKSt9nothrow_t(n, t);
}
}

namespace {

using reliability::analyse;
using reliability::captureOf;
using reliability::snapshot;

bool isAnalog(int mode) { return vantrel_is_analog(static_cast<uint32_t>(mode)); }

// The sweep over k for one capture; `dump` also exercises the entry's capture
// buffer (the one allocation made with operator new).
void sweep(int mode, bool dump) {
    const vantrel::siggen::Result c = captureOf(mode);
    ScratchDir scratch;  // the debug files, when written, stay in here
    // The reference call, counting its allocations on a fresh instance.
    HostRecord refHost(reliability::kSamples, static_cast<uint32_t>(mode));
    const int refHandle = VantrelObjCreatSelfEncode();
    long allocations = 0;
    int refCode;
    {
        Armed counting(0);
        refCode = analyse(refHandle, c, refHost, dump);
        allocations = tCount;
    }
    VantrelObjRelease(refHandle);
    ASSERT_EQ(refCode, 0) << "the clean capture must be analysed";
    ASSERT_GT(allocations, 0) << "no allocation was counted: is the wrap in place?";
    const std::vector<uint64_t> figures = snapshot(refHost.rec);

    int outOfMemory = 0, tooFew = 0, completed = 0;
    for (long k = 1; k <= allocations; ++k) {
        // A fresh instance for every k: the large work blocks an instance's
        // calls recycle go back with the last instance, so every armed call
        // makes the same allocations as the reference call.
        SCOPED_TRACE(testing::Message() << "failing allocation " << k);
        const int handle = VantrelObjCreatSelfEncode();
        ASSERT_GE(handle, 0);
        HostRecord host(reliability::kSamples, static_cast<uint32_t>(mode));
        int code;
        {
            Armed failing(k);
            code = analyse(handle, c, host, dump);
            ASSERT_TRUE(tFailed) << "the allocation was not made";
        }
        ASSERT_TRUE(host.intact());
        // Unless the entry or the driver ran out (-4), a stage that fails ends
        // its demodulator; the constellation it left behind decides the
        // outcome, and an analog analysis always completes.
        const int expected = isAnalog(mode) || host.rec.constLen > 799 ? 0 : -3;
        EXPECT_TRUE(code == -4 || code == expected) << code << ", " << host.rec.constLen << " points";
        (code == -4 ? outOfMemory : code == -3 ? tooFew : completed) += 1;

        // The same instance analyses the next block as a fresh one does.
        HostRecord next(reliability::kSamples, static_cast<uint32_t>(mode));
        ASSERT_EQ(analyse(handle, c, next, dump), 0);
        ASSERT_TRUE(snapshot(next.rec) == figures);
        VantrelObjRelease(handle);
    }
    // Only the driver's two work buffers (and the entry's capture buffer)
    // report -4: every other stage's failure ends in its demodulator. The
    // driver's buffers may come from a large block a front-end stage of the
    // same call has just handed back for reuse, and then never reach the
    // allocator; the entry's capture buffer always does.
    EXPECT_LE(outOfMemory, dump ? 3 : 2);
    if (dump) {
        EXPECT_GE(outOfMemory, 1);
    }
    std::printf("code %d%s: %ld allocations; -4 x%d, -3 x%d, 0 x%d\n", mode,
                dump ? " (capture on)" : "", allocations, outOfMemory, tooFew, completed);
}

class AllocationFailure : public ::testing::TestWithParam<int> {};

TEST_P(AllocationFailure, EveryAllocationOfOneCall) { sweep(GetParam(), false); }

INSTANTIATE_TEST_SUITE_P(EveryCode, AllocationFailure,
                         ::testing::Range(reliability::kFirstCode, reliability::kLastCode + 1),
                         [](const auto& info) { return "code" + std::to_string(info.param); });

// The entry's capture buffer comes from operator new: its failure is -4 too.
TEST(AllocationFailureWithCapture, Qpsk) { sweep(MOD_QPSK, true); }

}  // namespace
