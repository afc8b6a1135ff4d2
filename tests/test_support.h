// Shared helpers of the test suite: a host-side result record with guarded
// arrays, and a scratch directory for tests that write the debug files.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "wrapperVantrelClass.h"

// A DisplayData whose arrays are owned by the test, each followed by guard
// values so that a write past its capacity is detected. The record is
// packed, so its pointer fields are only ever assigned and compared by name.
class HostRecord {
public:
    static constexpr double kGuard = -123456.75;
    static constexpr uint32_t kGuardU = 0xDEADBEEFu;
    static constexpr size_t kGuardCount = 16;

    // Every array holds `capacity` values (shiftedIQ twice as many).
    explicit HostRecord(size_t capacity = 400000)
        : HostRecord({capacity, capacity, capacity, capacity, capacity, capacity, capacity,
                      capacity, capacity, capacity, 2 * capacity},
                     capacity, capacity) {}

    // Every array holds exactly the capacity the public header publishes for
    // a block of inLen samples analysed as `mode`.
    HostRecord(uint32_t inLen, uint32_t mode)
        : HostRecord(publishedCapacities(inLen, mode), vantrel_capacity_bits(inLen, mode),
                     vantrel_capacity_symbols(inLen, mode)) {}

    HostRecord(const HostRecord&) = delete;
    HostRecord& operator=(const HostRecord&) = delete;

    // True when no array pointer was replaced and every guard is intact.
    bool intact() const {
        const double* now[kArrays] = {rec.eye,        rec.constI,    rec.constQ,   rec.evm,
                                      rec.phaseErr,   rec.magErr,    rec.phaseTrace,
                                      rec.freqTrace,  rec.envTrace,  rec.iTrace,   rec.shiftedIQ};
        for (size_t a = 0; a < kArrays; ++a) {
            if (now[a] != doubles_[a].data() || !guarded(doubles_[a], caps_[a], kGuard))
                return false;
        }
        return rec.bits == bits_.data() && rec.symbols == symbols_.data() &&
               guarded(bits_, bitsCap_, kGuardU) && guarded(symbols_, symbolsCap_, kGuardU);
    }

    DisplayData rec;

private:
    static constexpr size_t kArrays = 11;
    using Caps = std::array<size_t, kArrays>;

    static Caps publishedCapacities(uint32_t inLen, uint32_t mode) {
        const size_t pts = vantrel_capacity_constellation(mode);
        const size_t sym = vantrel_capacity_symbols(inLen, mode);
        const size_t trace = vantrel_capacity_trace(inLen, mode);
        return {vantrel_capacity_eye(inLen, mode), pts, pts, sym, sym, sym, trace, trace, trace,
                trace, vantrel_capacity_shifted_iq(inLen, mode)};
    }

    HostRecord(const Caps& caps, size_t bitsCap, size_t symbolsCap)
        : caps_(caps), bitsCap_(bitsCap), symbolsCap_(symbolsCap) {
        for (size_t a = 0; a < kArrays; ++a) doubles_[a].assign(caps[a] + kGuardCount, kGuard);
        bits_.assign(bitsCap + kGuardCount, kGuardU);
        symbols_.assign(symbolsCap + kGuardCount, kGuardU);
        rec = DisplayData{};
        rec.eye = doubles_[0].data();
        rec.constI = doubles_[1].data();
        rec.constQ = doubles_[2].data();
        rec.evm = doubles_[3].data();
        rec.phaseErr = doubles_[4].data();
        rec.magErr = doubles_[5].data();
        rec.phaseTrace = doubles_[6].data();
        rec.freqTrace = doubles_[7].data();
        rec.envTrace = doubles_[8].data();
        rec.iTrace = doubles_[9].data();
        rec.shiftedIQ = doubles_[10].data();
        rec.bits = bits_.data();
        rec.symbols = symbols_.data();
    }

    template <class T>
    static bool guarded(const std::vector<T>& v, size_t from, T guard) {
        for (size_t i = from; i < v.size(); ++i)
            if (v[i] != guard) return false;
        return true;
    }

    Caps caps_;
    size_t bitsCap_, symbolsCap_;
    std::vector<double> doubles_[kArrays];
    std::vector<uint32_t> bits_, symbols_;
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
