// Shared helpers of the test suite: a host-side result record with guarded
// arrays, and a scratch directory for tests that write the debug files.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "wrapperVantrelClass.h"

// A DisplayData whose arrays are owned by the test, each followed by guard
// values so that a write past its capacity is detected. The record is
// packed, so its pointer fields are reached through their byte offsets and
// copied, never dereferenced as members.
class HostRecord {
public:
    static constexpr double kGuard = -123456.75;
    static constexpr uint32_t kGuardU = 0xDEADBEEFu;
    static constexpr size_t kGuardCount = 16;
    // The record's arrays: eleven of doubles, then the two of words.
    enum Array { kEye, kConstI, kConstQ, kEvm, kPhaseErr, kMagErr, kPhaseTrace, kFreqTrace,
                 kEnvTrace, kITrace, kShiftedIQ, kBits, kSymbols, kArrays };

    // Every array holds `capacity` values (shiftedIQ twice as many).
    explicit HostRecord(size_t capacity = 400000) {
        const size_t c = capacity;
        init({c, c, c, c, c, c, c, c, c, c, 2 * c, c, c});
    }

    // Every array holds exactly the capacity the public header publishes for
    // a block of inLen samples analysed as `mode`.
    HostRecord(uint32_t inLen, uint32_t mode) {
        const size_t pts = vantrel_capacity_constellation(mode);
        const size_t sym = vantrel_capacity_symbols(inLen, mode);
        const size_t trace = vantrel_capacity_trace(inLen, mode);
        init({vantrel_capacity_eye(inLen, mode), pts, pts, sym, sym, sym, trace, trace, trace,
              trace, vantrel_capacity_shifted_iq(inLen, mode), vantrel_capacity_bits(inLen, mode),
              sym});
    }

    HostRecord(const HostRecord&) = delete;
    HostRecord& operator=(const HostRecord&) = delete;

    // True when no array pointer was replaced and every guard is intact.
    bool intact() const {
        for (int a = 0; a < kArrays; ++a)
            if (pointer(a) != base(a) || !unchanged(a, caps_[a])) return false;
        return true;
    }
    // True when the call wrote anything into array a (all of it was guard).
    bool written(int a) const { return !unchanged(a, 0); }
    void setPointer(int a, const void* p) {
        std::memcpy(reinterpret_cast<char*>(&rec) + kOffsets[a], &p, sizeof p);
    }

    DisplayData rec{};

private:
    static constexpr size_t kOffsets[kArrays] = {
        offsetof(DisplayData, eye),        offsetof(DisplayData, constI),
        offsetof(DisplayData, constQ),     offsetof(DisplayData, evm),
        offsetof(DisplayData, phaseErr),   offsetof(DisplayData, magErr),
        offsetof(DisplayData, phaseTrace), offsetof(DisplayData, freqTrace),
        offsetof(DisplayData, envTrace),   offsetof(DisplayData, iTrace),
        offsetof(DisplayData, shiftedIQ),  offsetof(DisplayData, bits),
        offsetof(DisplayData, symbols)};

    void init(const std::array<size_t, kArrays>& caps) {
        caps_ = caps;
        for (int a = 0; a < kArrays; ++a) {
            if (a < kBits)
                doubles_[a].assign(caps[a] + kGuardCount, kGuard);
            else
                words_[a - kBits].assign(caps[a] + kGuardCount, kGuardU);
            setPointer(a, base(a));
        }
    }
    const void* base(int a) const {
        return a < kBits ? static_cast<const void*>(doubles_[a].data()) : words_[a - kBits].data();
    }
    const void* pointer(int a) const {
        const void* p;
        std::memcpy(&p, reinterpret_cast<const char*>(&rec) + kOffsets[a], sizeof p);
        return p;
    }
    bool unchanged(int a, size_t from) const {
        if (a < kBits)
            return std::all_of(doubles_[a].begin() + from, doubles_[a].end(),
                               [](double v) { return v == kGuard; });
        const std::vector<uint32_t>& w = words_[a - kBits];
        return std::all_of(w.begin() + from, w.end(), [](uint32_t v) { return v == kGuardU; });
    }

    std::array<size_t, kArrays> caps_{};
    std::vector<double> doubles_[kBits];
    std::vector<uint32_t> words_[2];
};

inline ExParamOut makeParam(double rb, uint32_t mode, double rolloff = 0.35,
                            uint32_t filterType = FILTER_RRC) {
    ExParamOut p{};
    p.Rb = rb;
    p.mode = mode;
    p.rolloff = rolloff;
    p.filterType = filterType;
    return p;
}

// Changes into a fresh temporary directory for the lifetime of the object, so
// that tests writing the fixed-name debug files never share them.
class ScratchDir {
public:
    ScratchDir();
    ~ScratchDir();
    const std::string& path() const { return path_; }

private:
    std::string path_;
    std::string previous_;
};
