// Host mistakes in the result record. A null array that the mode writes is
// refused with -1 before anything is read or written, and the record keeps
// every byte it had; arrays the mode never writes may be null (or of any
// size: they are never touched). Which arrays a mode writes is observed, not
// assumed: a clean capture is analysed into arrays pre-filled with a marker.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "reliability/every_code.h"

namespace {

enum Array {
    kEye, kConstI, kConstQ, kBits, kSymbols, kEvm, kPhaseErr, kMagErr,
    kPhaseTrace, kFreqTrace, kEnvTrace, kITrace, kShiftedIQ, kArrayCount
};
const char* const kNames[kArrayCount] = {"eye",       "constI",    "constQ",   "bits",
                                         "symbols",   "evm",       "phaseErr", "magErr",
                                         "phaseTrace", "freqTrace", "envTrace", "iTrace",
                                         "shiftedIQ"};

// The record is packed: its pointer fields are assigned by name only.
void setNull(DisplayData& r, int a) {
    switch (a) {
    case kEye: r.eye = nullptr; break;
    case kConstI: r.constI = nullptr; break;
    case kConstQ: r.constQ = nullptr; break;
    case kBits: r.bits = nullptr; break;
    case kSymbols: r.symbols = nullptr; break;
    case kEvm: r.evm = nullptr; break;
    case kPhaseErr: r.phaseErr = nullptr; break;
    case kMagErr: r.magErr = nullptr; break;
    case kPhaseTrace: r.phaseTrace = nullptr; break;
    case kFreqTrace: r.freqTrace = nullptr; break;
    case kEnvTrace: r.envTrace = nullptr; break;
    case kITrace: r.iTrace = nullptr; break;
    case kShiftedIQ: r.shiftedIQ = nullptr; break;
    }
}

// Arrays large enough for any record, pre-filled with a marker; written()
// tells which of them a call changed.
struct Marked {
    static constexpr size_t kLen = 2 * reliability::kSamples + 16;
    static constexpr double kMark = -987654.25;
    static constexpr uint32_t kMarkU = 0xA5A5A5A5u;
    std::vector<double> d[kArrayCount];
    std::vector<uint32_t> u[kArrayCount];
    DisplayData rec{};

    Marked() {
        for (int a = 0; a < kArrayCount; ++a) {
            if (a == kBits || a == kSymbols)
                u[a].assign(kLen, kMarkU);
            else
                d[a].assign(kLen, kMark);
        }
        rec.eye = d[kEye].data();
        rec.constI = d[kConstI].data();
        rec.constQ = d[kConstQ].data();
        rec.bits = u[kBits].data();
        rec.symbols = u[kSymbols].data();
        rec.evm = d[kEvm].data();
        rec.phaseErr = d[kPhaseErr].data();
        rec.magErr = d[kMagErr].data();
        rec.phaseTrace = d[kPhaseTrace].data();
        rec.freqTrace = d[kFreqTrace].data();
        rec.envTrace = d[kEnvTrace].data();
        rec.iTrace = d[kITrace].data();
        rec.shiftedIQ = d[kShiftedIQ].data();
    }
    bool written(int a) const {
        if (a == kBits || a == kSymbols) {
            for (uint32_t v : u[a])
                if (v != kMarkU) return true;
            return false;
        }
        for (double v : d[a])
            if (v != kMark) return true;
        return false;
    }
};

int call(int handle, const vantrel::siggen::Result& c, DisplayData& rec) {
    ExParamOut p = makeParam(c.config.Rb, static_cast<uint32_t>(c.config.mode),
                             c.config.rolloff, static_cast<uint32_t>(c.config.filterType));
    return VantrelExcute(handle, c.I.data(), c.Q.data(), static_cast<uint32_t>(c.I.size()), &p,
                         false, false, &rec, 0.0, c.fs);
}

class HostMistakes : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override { handle = VantrelObjCreatSelfEncode(); }
    void TearDown() override { VantrelObjRelease(handle); }
    int handle = -1;
};

TEST_P(HostMistakes, NullArraysTheModeWritesAreRefusedOthersAreNeverTouched) {
    const int mode = GetParam();
    const vantrel::siggen::Result c = reliability::captureOf(mode);
    Marked reference;
    ASSERT_EQ(call(handle, c, reference.rec), 0);
    const std::vector<uint64_t> figures = reliability::snapshot(reference.rec);

    bool writes[kArrayCount];
    for (int a = 0; a < kArrayCount; ++a) writes[a] = reference.written(a);

    // Every array the mode writes, null in turn: -1 and not one byte of the
    // record (counts, figures, the other pointers) or of the arrays changes.
    for (int a = 0; a < kArrayCount; ++a) {
        if (!writes[a]) continue;
        Marked host;
        host.rec = reference.rec;  // a record holding the previous call's results
        setNull(host.rec, a);
        DisplayData before;
        std::memcpy(&before, &host.rec, sizeof before);
        EXPECT_EQ(call(handle, c, host.rec), -1) << kNames[a] << " null";
        EXPECT_EQ(std::memcmp(&before, &host.rec, sizeof before), 0) << kNames[a] << " null";
    }

    // Every array the mode does not write, null at once: the same figures.
    Marked host;
    for (int a = 0; a < kArrayCount; ++a)
        if (!writes[a]) setNull(host.rec, a);
    ASSERT_EQ(call(handle, c, host.rec), 0);
    EXPECT_TRUE(reliability::snapshot(host.rec) == figures);
}

INSTANTIATE_TEST_SUITE_P(EveryCode, HostMistakes,
                         ::testing::Range(reliability::kFirstCode, reliability::kLastCode + 1),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return "code" + std::to_string(info.param);
                         });

}  // namespace
