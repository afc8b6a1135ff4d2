/*
 * Minimal C host of the Vantrel library.
 *
 * Synthesises a QPSK capture (rectangular pulses, 8 samples per symbol, a
 * 1.5 kHz carrier offset), analyses it with one VantrelExcute call and prints
 * the return code and the figures an instrument would display.
 *
 * Buffer ownership: every array of DisplayData belongs to this program; the
 * library only fills them and sets the counts.
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "wrapperVantrelClass.h"

#define N_SAMPLES 32768u
#define SPS 8
#define FS 800000.0
#define RB (FS / SPS)
#define CAP 400000u

static unsigned lcg(unsigned* s) {
    *s = *s * 1103515245u + 12345u;
    return (*s >> 16) & 0x7fffu;
}

int main(void) {
    static int16_t I[N_SAMPLES], Q[N_SAMPLES];
    static const double level[2] = {-1.0, 1.0};
    unsigned seed = 1;
    double re = 0, im = 0;
    for (unsigned k = 0; k < N_SAMPLES; ++k) {
        if (k % SPS == 0) {
            unsigned sym = lcg(&seed) & 3u;
            re = level[sym & 1u];
            im = level[sym >> 1];
        }
        double phase = 2.0 * 3.141592653589793 * 1500.0 * k / FS;
        double c = cos(phase), s = sin(phase);
        I[k] = (int16_t)lrint(8000.0 * (re * c - im * s));
        Q[k] = (int16_t)lrint(8000.0 * (re * s + im * c));
    }

    ExParamOut param = {{0}, RB, MOD_QPSK, 0.35, FILTER_RECT};
    DisplayData out = {0};
    out.eye = calloc(CAP, sizeof(double));
    out.constI = calloc(CAP, sizeof(double));
    out.constQ = calloc(CAP, sizeof(double));
    out.bits = calloc(CAP, sizeof(uint32_t));
    out.symbols = calloc(CAP, sizeof(uint32_t));
    out.evm = calloc(CAP, sizeof(double));
    out.phaseErr = calloc(CAP, sizeof(double));
    out.magErr = calloc(CAP, sizeof(double));
    out.phaseTrace = calloc(CAP, sizeof(double));
    out.freqTrace = calloc(CAP, sizeof(double));
    out.envTrace = calloc(CAP, sizeof(double));
    out.iTrace = calloc(CAP, sizeof(double));
    out.shiftedIQ = calloc(2 * CAP, sizeof(double));

    char version[32];
    GetALGVersion(version);
    int handle = VantrelObjCreatSelfEncode();
    int rc = VantrelExcute(handle, I, Q, N_SAMPLES, &param, false, false, &out, 0.0, FS);

    printf("library      %s\n", version);
    printf("return code  %d\n", rc);
    printf("freqOffset   %.1f Hz\n", out.freqOffset);
    printf("peakLevel    %.2f dB\n", out.peakLevel);
    printf("iqOffset     %.3f\n", out.iqOffset);
    printf("iqGainRatio  %.5f\n", out.iqGainRatio);
    printf("quadError    %.5f rad\n", out.quadError);
    printf("snr          %.2f dB\n", out.snr);
    printf("constLen     %u\n", out.constLen);
    printf("evmRms       %.3f %%  (peak %.3f %%)\n", out.evmRms, out.evmPeak);
    printf("magErrRms    %.3f %%  (peak %.3f %%)\n", out.magErrRms, out.magErrPeak);
    printf("phaseErrRms  %.3f deg (peak %.3f deg)\n", out.phaseErrRms, out.phaseErrPeak);

    VantrelObjRelease(handle);
    free(out.eye); free(out.constI); free(out.constQ); free(out.bits); free(out.symbols);
    free(out.evm); free(out.phaseErr); free(out.magErr); free(out.phaseTrace);
    free(out.freqTrace); free(out.envTrace); free(out.iTrace); free(out.shiftedIQ);
    return 0;
}
