// Whole analysis calls timed side by side with the peer chain, alternately,
// in one sitting, on the same 320000-sample captures; and the peak heap of
// one call.
//
//   vantrel_peer_compare [--rounds R] [--reps N] [--peer SCRIPT] [--heap] [CASE ...]
//
// A CASE is MODE@SPS with the peer's modulation names (qpsk@8, 16qam@4, ...).
// Without cases the QPSK targets (3, 4, 8, 16 samples per symbol) and every
// family at 4 and 8 are run. For each case and round the library is timed
// over N calls on one instance (the median is kept), then the peer's script
// is run on the same capture written to a raw file and its "time reused"
// median is read. The table gives the medians over the rounds and their
// ratio. Without the peer (no script, or it fails) only our times are shown.
//
// --heap: instead of timing, runs each case once under a counting allocator
// and prints the largest heap held during the call beyond what was held
// before it, against the two work buffers of the front end.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <malloc.h>
#include <unistd.h>

#include "heap_array.h"
#include "siggen.h"
#include "wrapperVantrelClass.h"

// ---- counting allocator (glibc): every malloc family call goes through here ----
extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void __libc_free(void*);
}
namespace {
bool gCounting = false;
long long gHeld = 0, gPeak = 0;
void account(void* p, int sign) {
    if (p == nullptr || !gCounting) return;
    gHeld += sign * static_cast<long long>(malloc_usable_size(p));
    if (gHeld > gPeak) gPeak = gHeld;
}
}  // namespace
extern "C" {
void* malloc(size_t n) {
    void* p = __libc_malloc(n);
    account(p, +1);
    return p;
}
void* calloc(size_t a, size_t b) {
    void* p = __libc_calloc(a, b);
    account(p, +1);
    return p;
}
void* realloc(void* q, size_t n) {
    account(q, -1);
    void* p = __libc_realloc(q, n);
    account(p ? p : q, +1);
    return p;
}
void free(void* p) {
    account(p, -1);
    __libc_free(p);
}
}

namespace {

struct Case {
    std::string name;  // the peer's modulation name
    int mode;
    double sps;
};

struct ModeName {
    const char* name;
    int mode;
};
constexpr ModeName kModes[] = {{"2fsk", 1},   {"4fsk", 2},    {"bpsk", 4},   {"qpsk", 5},
                               {"8psk", 6},   {"16qam", 7},   {"ask2", 8},   {"64qam", 9},
                               {"am", 10},    {"fm", 11},     {"128qam", 16}, {"256qam", 17},
                               {"32qam", 18}};

constexpr double kRb = 25000.0;
constexpr std::uint32_t kLen = 320000;

bool parseCase(const std::string& s, Case* c) {
    const size_t at = s.find('@');
    if (at == std::string::npos) return false;
    c->name = s.substr(0, at);
    c->sps = std::atof(s.c_str() + at + 1);
    for (const ModeName& m : kModes) {
        if (c->name == m.name) {
            c->mode = m.mode;
            return c->sps > 0;
        }
    }
    return false;
}

bool analog(int mode) { return mode >= 10 && mode <= 15; }

vantrel::siggen::Result capture(const Case& c) {
    vantrel::siggen::Config cfg;
    cfg.mode = c.mode;
    cfg.Rb = kRb;
    cfg.sps = c.sps;
    cfg.numSamples = kLen;
    cfg.carrierOffsetHz = 300.0;
    if (analog(c.mode)) {
        cfg.snrDb = 30.0;
    } else {
        cfg.esn0Db = 30.0;
    }
    cfg.peak = 12000.0;
    return vantrel::siggen::generate(cfg);
}

// A host record whose arrays hold every count of a maximal block.
struct Host {
    std::vector<double> d[11];
    std::vector<std::uint32_t> bits, symbols;
    DisplayData rec{};
    Host() : bits(8 * kLen), symbols(kLen) {
        for (auto& v : d) v.assign(2 * kLen, 0.0);
        rec.eye = d[0].data();
        rec.constI = d[1].data();
        rec.constQ = d[2].data();
        rec.evm = d[3].data();
        rec.phaseErr = d[4].data();
        rec.magErr = d[5].data();
        rec.phaseTrace = d[6].data();
        rec.freqTrace = d[7].data();
        rec.envTrace = d[8].data();
        rec.iTrace = d[9].data();
        rec.shiftedIQ = d[10].data();
        rec.bits = bits.data();
        rec.symbols = symbols.data();
    }
};

double median(std::vector<double> v) {
    if (v.empty()) return NAN;
    std::sort(v.begin(), v.end());
    const size_t h = v.size() / 2;
    return v.size() % 2 ? v[h] : 0.5 * (v[h - 1] + v[h]);
}

ExParamOut paramsOf(const Case& c) {
    ExParamOut p{};
    p.Rb = kRb;
    p.mode = static_cast<std::uint32_t>(c.mode);
    p.rolloff = 0.35;
    p.filterType = FILTER_RRC;
    return p;
}

// Median milliseconds of `reps` calls on one instance, after one warm-up.
double timeOurs(const vantrel::siggen::Result& cap, const Case& c, Host& host, int reps,
                int* code) {
    const ExParamOut p = paramsOf(c);
    const int handle = VantrelObjCreatSelfEncode();
    *code = VantrelExcute(handle, cap.I.data(), cap.Q.data(), kLen, &p, false, false, &host.rec,
                          0.0, cap.fs);
    std::vector<double> ms;
    for (int r = 0; r < reps; ++r) {
        const auto t0 = std::chrono::steady_clock::now();
        VantrelExcute(handle, cap.I.data(), cap.Q.data(), kLen, &p, false, false, &host.rec, 0.0,
                      cap.fs);
        const auto t1 = std::chrono::steady_clock::now();
        ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
    }
    VantrelObjRelease(handle);
    return median(ms);
}

// The peer's "time reused" median on the raw capture file, or NaN.
double timePeer(const std::string& script, const std::string& file, const Case& c, double fs,
                int reps) {
    if (script.empty()) return NAN;
    char cmd[1024];
    std::snprintf(cmd, sizeof cmd, "bash '%s' '%s' %.17g %.17g %s %d 2>/dev/null", script.c_str(),
                  file.c_str(), fs, kRb, c.name.c_str(), reps);
    FILE* p = popen(cmd, "r");
    if (!p) return NAN;
    char line[4096];
    double v = NAN;
    while (std::fgets(line, sizeof line, p)) {
        const char* k = std::strstr(line, "reuse_med_ms=");
        if (k) v = std::atof(k + std::strlen("reuse_med_ms="));
    }
    pclose(p);
    return v;
}

std::string findPeer(const char* given) {
    if (given) return given;
    if (const char* env = std::getenv("VANTREL_PEER")) return env;
    for (const char* cand : {VANTREL_SOURCE_DIR "/../shared/peer/time-peer.sh",
                             VANTREL_SOURCE_DIR "/../../shared/peer/time-peer.sh"}) {
        if (access(cand, R_OK) == 0) return cand;
    }
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    int rounds = 5, reps = 9;
    bool heap = false;
    const char* peerArg = nullptr;
    std::vector<Case> cases;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--rounds" && i + 1 < argc) rounds = std::atoi(argv[++i]);
        else if (a == "--reps" && i + 1 < argc) reps = std::atoi(argv[++i]);
        else if (a == "--peer" && i + 1 < argc) peerArg = argv[++i];
        else if (a == "--heap") heap = true;
        else {
            Case c;
            if (!parseCase(a, &c)) {
                std::fprintf(stderr, "unknown case %s (MODE@SPS, e.g. qpsk@8)\n", a.c_str());
                return 2;
            }
            cases.push_back(c);
        }
    }
    if (cases.empty()) {
        for (const char* s : {"qpsk@3", "qpsk@4", "qpsk@8", "qpsk@16"}) {
            Case c;
            parseCase(s, &c);
            cases.push_back(c);
        }
        for (const ModeName& m : kModes) {
            if (m.mode == 5) continue;
            for (double sps : {4.0, 8.0}) cases.push_back(Case{m.name, m.mode, sps});
        }
    }

    if (heap) {
        // First call of a fresh process (nothing recycled yet), then a second
        // call on the same instance, counting the recycled blocks it starts
        // with as held: both are what the call needs at its peak.
        std::printf("%-10s %6s %12s %12s %12s %8s\n", "case", "code", "first MB", "steady MB",
                    "2 buffers MB", "ratio");
        for (const Case& c : cases) {
            const vantrel::siggen::Result cap = capture(c);
            Host host;
            const ExParamOut p = paramsOf(c);
            const int handle = VantrelObjCreatSelfEncode();
            double peak[2] = {0, 0};
            int code = 0;
            for (int call = 0; call < 2; ++call) {
                gHeld = static_cast<long long>(heap_recycled_bytes());
                gPeak = gHeld;
                gCounting = true;
                code = VantrelExcute(handle, cap.I.data(), cap.Q.data(), kLen, &p, false, false,
                                     &host.rec, 0.0, cap.fs);
                gCounting = false;
                peak[call] = static_cast<double>(gPeak);
            }
            VantrelObjRelease(handle);
            // The front end's two buffers hold max(n, n * 4 / sps) samples each.
            const double cap4 = std::max<double>(kLen, std::ceil(kLen * 4.0 / c.sps));
            const double buffers = 2 * cap4 * 16;
            const double worst = std::max(peak[0], peak[1]);
            std::printf("%-10s %6d %12.2f %12.2f %12.2f %8.2f\n",
                        (c.name + "@" + std::to_string(static_cast<int>(c.sps))).c_str(), code,
                        peak[0] / 1e6, peak[1] / 1e6, buffers / 1e6, worst / buffers);
        }
        return 0;
    }

    const std::string peer = findPeer(peerArg);
    std::printf("rounds %d, %d calls per timing; peer: %s\n", rounds, reps,
                peer.empty() ? "not found" : peer.c_str());
    std::printf("%-10s %6s %12s %12s %8s\n", "case", "code", "ours ms", "peer ms", "ratio");
    char tmpl[] = "/tmp/vantrel_peer_capture_XXXXXX";
    const int fd = mkstemp(tmpl);
    if (fd < 0) return 1;
    close(fd);
    const std::string file = tmpl;
    Host host;
    for (const Case& c : cases) {
        const vantrel::siggen::Result cap = capture(c);
        {
            FILE* f = std::fopen(file.c_str(), "wb");
            if (!f) return 1;
            for (std::uint32_t i = 0; i < kLen; ++i) {
                const std::int16_t iq[2] = {cap.I[i], cap.Q[i]};
                std::fwrite(iq, sizeof iq, 1, f);
            }
            std::fclose(f);
        }
        std::vector<double> ours, theirs;
        int code = 0;
        for (int r = 0; r < rounds; ++r) {
            ours.push_back(timeOurs(cap, c, host, reps, &code));
            const double t = timePeer(peer, file, c, cap.fs, reps);
            if (!std::isnan(t)) theirs.push_back(t);
        }
        const double a = median(ours), b = median(theirs);
        std::printf("%-10s %6d %12.2f %12.2f %8.2f\n",
                    (c.name + "@" + std::to_string(static_cast<int>(c.sps))).c_str(), code, a, b,
                    a / b);
        std::fflush(stdout);
    }
    std::remove(file.c_str());
    return 0;
}
