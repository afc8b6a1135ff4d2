// The test-signal generator is the suite's oracle. Its labels, pulses and
// carrier are proven by the end-to-end tests (zero decision errors against
// its truth, offsets found on the expected bins); what those cannot see is
// the noise level it claims and its clipping report, checked here.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "capture_runner.h"

namespace sg = vantrel::siggen;
using Cplx = std::complex<double>;

namespace {

Cplx sampleAt(const sg::Result& r, long n) { return {double(r.I[n]), double(r.Q[n])}; }


}  // namespace

// Tolerance 0.05 dB: over 200000 complex samples the noise power itself
// scatters by 0.014 dB RMS (0.036 dB at worst over 20 seeds).
TEST(SiggenNoise, RequestedEsN0AndSnrAreWhatTheSamplesShow) {
    struct Case { int mode; double sps, db; bool esn0; };
    for (const Case nc : {Case{5, 8, 10, true}, Case{7, 5.5, 20, true}, Case{4, 8, 6, false}}) {
        sg::Config c = captureConfig(nc.mode, nc.sps, 200000, 7);
        c.carrierOffsetHz = 1234.5;
        const sg::Result clean = sg::generate(c);
        (nc.esn0 ? c.esn0Db : c.snrDb) = nc.db;
        const sg::Result noisy = sg::generate(c);
        double ps = 0, pn = 0, pq = 0;
        for (std::size_t n = 0; n < clean.baseband.size(); ++n) {
            ps += std::norm(clean.baseband[n]);
            pn += std::norm(noisy.baseband[n] - clean.baseband[n]);
            pq += std::norm(sampleAt(noisy, long(n)) / noisy.scale - clean.baseband[n]);
        }
        EXPECT_NEAR(10 * std::log10(ps * (nc.esn0 ? c.sps : 1.0) / pn), nc.db, 0.05) << nc.mode;
        // The int16 samples carry the same noise, scaled.
        EXPECT_NEAR(10 * std::log10(pq / pn), 0.0, 0.05) << nc.mode;
    }
}

#if defined(VANTREL_SIGGEN_CLI) && defined(VANTREL_SIGGEN_CLI_CHECK)
// The script checks the demo capture and its sidecars, determinism across two
// runs, the clipping exit status and a rejected argument.
TEST(SiggenCli, DemoCaptureTruthDeterminismAndClipStatus) {
    ScratchDir dir;
    ASSERT_FALSE(dir.path().empty());
    const std::string cmd = std::string("bash ") + VANTREL_SIGGEN_CLI_CHECK + " " + VANTREL_SIGGEN_CLI +
                            " " + dir.path() + "/cli > " + dir.path() + "/log.txt 2>&1";
    const int status = std::system(cmd.c_str());
    std::ifstream log(dir.path() + "/log.txt");
    const std::string text((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
    EXPECT_EQ(status, 0) << text;
}
#endif
