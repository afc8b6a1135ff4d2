// Host mistakes in the result record. A null array that the mode writes is
// refused with -1 before anything is read or written, and the record keeps
// every byte it had; arrays the mode never writes may be null (or of any
// size: they are never touched). Which arrays a mode writes is observed, not
// assumed: a clean capture is analysed into arrays pre-filled with guards.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "reliability/every_code.h"

namespace {

using reliability::analyse;

class HostMistakes : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { handle = VantrelObjCreatSelfEncode(); }
    void TearDown() override { VantrelObjRelease(handle); }
    int handle = -1;
};

TEST_P(HostMistakes, NullArraysTheModeWritesAreRefusedOthersAreNeverTouched) {
    const vantrel::siggen::Result c = reliability::captureOf(GetParam());
    HostRecord reference(2 * reliability::kSamples);
    ASSERT_EQ(analyse(handle, c, reference), 0);
    const std::vector<uint64_t> figures = reliability::snapshot(reference.rec);

    // Every array the mode writes, null in turn: -1 and not one byte of the
    // record (counts, figures, the other pointers) changes. The record holds
    // the previous call's results.
    HostRecord host(2 * reliability::kSamples), others(2 * reliability::kSamples);
    for (int a = 0; a < HostRecord::kArrays; ++a) {
        if (!reference.written(a)) {
            others.setPointer(a, nullptr);
            continue;
        }
        host.rec = reference.rec;
        host.setPointer(a, nullptr);
        DisplayData before;
        std::memcpy(&before, &host.rec, sizeof before);
        EXPECT_EQ(analyse(handle, c, host), -1) << "array " << a << " null";
        EXPECT_EQ(std::memcmp(&before, &host.rec, sizeof before), 0) << "array " << a << " null";
    }
    // Every array the mode does not write, null at once: the same figures.
    ASSERT_EQ(analyse(handle, c, others), 0);
    EXPECT_TRUE(reliability::snapshot(others.rec) == figures);
}

INSTANTIATE_TEST_SUITE_P(EveryCode, HostMistakes,
                         ::testing::Range(reliability::kFirstCode, reliability::kLastCode + 1),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return "code" + std::to_string(info.param);
                         });

}  // namespace
