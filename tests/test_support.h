// Shared helpers of the test suite: a host-side result record with guarded
// arrays, and a scratch directory for tests that write the debug files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "wrapperVantrelClass.h"

// A DisplayData whose arrays are owned by the test, each followed by guard
// values so that a write past the capacity is detected.
class HostRecord {
public:
    static constexpr double kGuard = -123456.75;
    static constexpr uint32_t kGuardU = 0xDEADBEEFu;
    static constexpr size_t kGuardCount = 16;

    explicit HostRecord(size_t capacity = 400000) : cap_(capacity) {
        for (auto* v : {&eye_, &constI_, &constQ_, &evm_, &phaseErr_, &magErr_, &phaseTrace_,
                        &freqTrace_, &envTrace_, &iTrace_}) {
            v->assign(cap_ + kGuardCount, kGuard);
        }
        shiftedIQ_.assign(2 * cap_ + kGuardCount, kGuard);
        bits_.assign(cap_ + kGuardCount, kGuardU);
        symbols_.assign(cap_ + kGuardCount, kGuardU);
        rec = DisplayData{};
        rec.eye = eye_.data();
        rec.constI = constI_.data();
        rec.constQ = constQ_.data();
        rec.bits = bits_.data();
        rec.symbols = symbols_.data();
        rec.evm = evm_.data();
        rec.phaseErr = phaseErr_.data();
        rec.magErr = magErr_.data();
        rec.phaseTrace = phaseTrace_.data();
        rec.freqTrace = freqTrace_.data();
        rec.envTrace = envTrace_.data();
        rec.iTrace = iTrace_.data();
        rec.shiftedIQ = shiftedIQ_.data();
    }
    HostRecord(const HostRecord&) = delete;
    HostRecord& operator=(const HostRecord&) = delete;

    // True when no array pointer was replaced and every guard is intact.
    bool intact() const {
        auto guardsOk = [](const std::vector<double>& v, size_t from) {
            for (size_t i = from; i < v.size(); ++i)
                if (v[i] != kGuard) return false;
            return true;
        };
        auto guardsOkU = [](const std::vector<uint32_t>& v, size_t from) {
            for (size_t i = from; i < v.size(); ++i)
                if (v[i] != kGuardU) return false;
            return true;
        };
        return rec.eye == eye_.data() && rec.constI == constI_.data() &&
               rec.constQ == constQ_.data() && rec.bits == bits_.data() &&
               rec.symbols == symbols_.data() && rec.evm == evm_.data() &&
               rec.phaseErr == phaseErr_.data() && rec.magErr == magErr_.data() &&
               rec.phaseTrace == phaseTrace_.data() && rec.freqTrace == freqTrace_.data() &&
               rec.envTrace == envTrace_.data() && rec.iTrace == iTrace_.data() &&
               rec.shiftedIQ == shiftedIQ_.data() && guardsOk(eye_, cap_) &&
               guardsOk(constI_, cap_) && guardsOk(constQ_, cap_) && guardsOk(evm_, cap_) &&
               guardsOk(phaseErr_, cap_) && guardsOk(magErr_, cap_) &&
               guardsOk(phaseTrace_, cap_) && guardsOk(freqTrace_, cap_) &&
               guardsOk(envTrace_, cap_) && guardsOk(iTrace_, cap_) &&
               guardsOk(shiftedIQ_, 2 * cap_) && guardsOkU(bits_, cap_) &&
               guardsOkU(symbols_, cap_);
    }

    DisplayData rec;

private:
    size_t cap_;
    std::vector<double> eye_, constI_, constQ_, evm_, phaseErr_, magErr_, phaseTrace_,
        freqTrace_, envTrace_, iTrace_, shiftedIQ_;
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
