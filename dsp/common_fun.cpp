// CommonFun lifecycle and the mode-code mapping.
#include "CommonFun.h"

CommonFun::CommonFun() : mixerPhase(0.0) {
    // Only the mixer phase is set here; the driver and the demodulators call
    // Reset() before any routine reads the rest. Starting from a defined state
    // anyway costs nothing and keeps a forgotten Reset harmless.
    Reset();
    mixerPhase = 0.0;
}

void CommonFun::Reset() {
    // Group 1: Farrow interpolator.
    farrowInitialised = 0;
    farrowNextIndex = 0;
    farrowMu = 0.0;
    for (Complex& h : farrowHistory) h = Complex{0.0, 0.0};

    // Group 2: Gardner carry-over. The tail is owned, so clearing the state
    // also frees it.
    gardnerContinue = 0;
    gardnerTailCount = 0;
    gardnerTail.reset();
    gardnerRms = 0.0;
    gardnerW = 0.0;
    gardnerLastErr = 0.0;
    gardnerMu = 0.0;
    gardnerStrobe = 0;
    gardnerNco = 0.0;
    gardnerYI[0] = gardnerYI[1] = 0.0;
    gardnerYQ[0] = gardnerYQ[1] = 0.0;

    // Group 3: phase loop.
    phaseLoopStarted = 0;
    phaseAcc = 0.0;
    phaseFreq = 0.0;
    phaseLastErr = 0.0;
    phaseLastI = 0.0;
    phaseLastQ = 0.0;

    // Group 4: matched-filter history.
    mfInitialised = 0;
    mfHistRe.reset();
    mfHistIm.reset();
    mfHistLen = 0;
    mfFilterLen = 0;

    // Group 5: frequency trace.
    freqHavePrev = 0;
    freqPrevRe = 0.0;
    freqPrevIm = 0.0;
    // mixerPhase deliberately untouched.
}

void CommonFun::getDiscriminatorType(modulationTypeOut mode, ModType* family, int* order) {
    // Codes 16..18 (the large and the cross QAM orders) were added after the
    // others, hence the out-of-order table. An unknown code is not rejected
    // here: it reads as PSK of order 1 and the caller decides what that means.
    switch (static_cast<int>(mode)) {
    case MOD_2FSK:         *family = MT_FSK;    *order = 2;   break;
    case MOD_4FSK:         *family = MT_FSK;    *order = 4;   break;
    case MOD_2FSK_B:       *family = MT_FSK;    *order = 2;   break;
    case MOD_BPSK:         *family = MT_PSK;    *order = 2;   break;
    case MOD_QPSK:         *family = MT_PSK;    *order = 4;   break;
    case MOD_8PSK:         *family = MT_PSK;    *order = 8;   break;
    case MOD_16QAM:        *family = MT_QAM;    *order = 16;  break;
    case MOD_ASK:          *family = MT_ASK;    *order = 2;   break;
    case MOD_64QAM:        *family = MT_QAM;    *order = 64;  break;
    case MOD_ANALOG_AM:
    case MOD_ANALOG_FM:
    case MOD_ANALOG_PM:
    case MOD_ANALOG_SHIFT:
    case MOD_ANALOG_I_A:
    case MOD_ANALOG_I_B:   *family = MT_ANALOG; *order = 0;   break;
    case MOD_128QAM:       *family = MT_QAM;    *order = 128; break;
    case MOD_256QAM:       *family = MT_QAM;    *order = 256; break;
    case MOD_32QAM:        *family = MT_QAM;    *order = 32;  break;
    default:               *family = MT_PSK;    *order = 1;   break;
    }
}

void initDisplay(DisplayData* d) {
    // Counts and the summary scalars are cleared; the array pointers are the
    // host's and stay, and the three I/Q figures are left for calcIQParams,
    // which always writes them for an accepted block.
    d->eyeLen = 0;
    d->constLen = 0;
    d->bitsLen = 0;
    d->symbolsLen = 0;
    d->evmLen = 0;
    d->phaseErrLen = 0;
    d->magErrLen = 0;
    d->evmRms = 0.0;
    d->evmPeak = 0.0;
    d->phaseErrRms = 0.0;
    d->phaseErrPeak = 0.0;
    d->magErrRms = 0.0;
    d->magErrPeak = 0.0;
    d->amDepth = 0.0;
    d->fmPeakDev = 0.0;
    d->freqOffset = 0.0;
    d->peakLevel = 0.0;
    d->modDepth = 0.0;
    d->freqDeviation = 0.0;
    d->phaseTraceLen = 0;
    d->freqTraceLen = 0;
    d->envTraceLen = 0;
    d->iTraceLen = 0;
    d->shiftedIQLen = 0;
    d->snr = 0.0;
}
