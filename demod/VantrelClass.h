// VantrelClass: one demodulator instance.
//
// Holds the copy of the current call's parameter record and the instance's own
// signal toolkit. Each demodulator is a member function that resets the
// toolkit on entry, runs its chain and fills the host's DisplayData; it
// returns 0 on success and -1 on any failure (the driver judges the call by
// what was left in DisplayData, not by this result).
#pragma once

#include "CommonFun.h"
#include "wrapperVantrelClass.h"

class VantrelClass {
public:
    VantrelClass() = default;
    VantrelClass(const VantrelClass&) = delete;
    VantrelClass& operator=(const VantrelClass&) = delete;

    ExParamOut exParam;  // copy of the call's parameters, rewritten by every call
    CommonFun commonFun; // the toolkit the demodulators run on

    int demodPSK(const Complex* in, int n, double fs, ExParamOut param, DisplayData* out);
    int demodASK(Complex* in, int n, double fs, ExParamOut param, DisplayData* out);
    int demodFSK(Complex* in, int n, double fs, ExParamOut param, DisplayData* out);
    int demodQAM(const Complex* in, int n, double fs, ExParamOut param, DisplayData* out);
    int demodQAM128_256(const Complex* in, int n, double fs, ExParamOut param,
                        DisplayData* out);
    int demodANALOG(const Complex* in, int n, double fs, double bandwidth, ExParamOut param,
                    DisplayData* out);

    // Replaces the summary figures by statistics over the last 800 symbols.
    void calc_RMS_EVM(ModType family, DisplayData* out);
};
