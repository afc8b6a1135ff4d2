// The analyzer's command line end to end: capture formats that must give the
// same figures, the replay of a debug capture, block-wise analysis and the
// errors a user can cause. Runs the built tool in a scratch directory.
#ifdef VANTREL_ANALYZE_CLI

#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "capture_runner.h"
#include "siggen_writer.h"

namespace {

using json = nlohmann::json;
namespace sg = vantrel::siggen;

struct CliRun {
    int status;
    std::string err;
};

std::string slurp(const std::string& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

// Runs the analyzer in the current directory with the given arguments.
CliRun analyze(const std::string& args) {
    const int raw = std::system((std::string(VANTREL_ANALYZE_CLI) + " " + args + " > out.txt 2> err.txt").c_str());
    return CliRun{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp("err.txt")};
}

json readJson(const std::string& path) { return json::parse(slurp(path)); }

void writeBytes(const std::string& path, const void* data, size_t n) {
    std::ofstream(path, std::ios::binary).write(static_cast<const char*>(data), std::streamsize(n));
}

// QPSK at 8 samples per symbol with impairments; 24000 samples = 3000 symbols.
sg::Result qpsk(long samples, uint64_t seed = 7) {
    sg::Config c = captureConfig(MOD_QPSK, 8.0, samples, seed);
    c.esn0Db = 30.0;
    c.carrierOffsetHz = 200.0;
    c.gainImbalance = 1.02;
    c.dcI = 30.0;
    return sg::generate(c);
}

const char* kQpskArgs = " --fs 200000 --rb 25000 --mode QPSK";

// The SigMF pair of a capture as 32-bit floats, I/32768 and Q/32768 (exact).
void writeCf32(const sg::Result& r, const std::string& base) {
    std::vector<float> v;
    for (size_t n = 0; n < r.I.size(); ++n)
        v.insert(v.end(), {static_cast<float>(r.I[n] / 32768.0), static_cast<float>(r.Q[n] / 32768.0)});
    writeBytes(base + ".sigmf-data", v.data(), v.size() * sizeof(float));
    std::ofstream(base + ".sigmf-meta")
        << R"({"global":{"core:datatype":"cf32_le","core:sample_rate":200000,"core:version":"1.0.0"}})";
}

const json& first(const json& doc) { return doc["results"][0]; }

// ---- the same capture in three formats ---------------------------------------

struct FormatCase {
    const char* name;
    const char* args;  // input and scale
    bool exact;        // same int16 samples as the raw file
};

class AnalyzerFormats : public ::testing::TestWithParam<FormatCase> {};

TEST_P(AnalyzerFormats, GiveTheFiguresOfTheRawCapture) {
    ScratchDir dir;
    const sg::Result r = qpsk(24000);
    sg::writeCapture(r, "cap", true, "");
    writeCf32(r, "float");
    ASSERT_EQ(analyze(std::string("--in cap.bin --json raw.json") + kQpskArgs).status, 0);
    const CliRun run = analyze(std::string(GetParam().args) + " --json f.json" + kQpskArgs);
    ASSERT_EQ(run.status, 0) << run.err;
    const json raw = readJson("raw.json"), got = readJson("f.json");
    const json &a = first(raw)["scalars"], &b = first(got)["scalars"];
    if (GetParam().exact) {
        EXPECT_EQ(a, b);
        EXPECT_EQ(first(raw)["arrays"], first(got)["arrays"]);
        return;
    }
    // Default float rule: the peak goes to 0.9 of full scale, so the samples
    // differ from the raw file by the scale and the rounding. Figures that do
    // not depend on the level agree within that rounding.
    int peak = 0;
    for (size_t n = 0; n < r.I.size(); ++n)
        peak = std::max({peak, std::abs(int(r.I[n])), std::abs(int(r.Q[n]))});
    EXPECT_NEAR(got["input"]["scale"].get<double>(), 0.9 * 32767.0 * 32768.0 / peak, 1e-6);
    const std::pair<const char*, double> close[] = {
        {"evmRms", 0.02}, {"magErrRms", 0.02}, {"phaseErrRms", 0.02}, {"snr", 0.05}, {"iqGainRatio", 1e-4}};
    for (const auto& [f, tol] : close)
        EXPECT_NEAR(a[f]["value"].get<double>(), b[f]["value"].get<double>(), tol) << f;
    EXPECT_EQ(a["freqOffset"], b["freqOffset"]);
}

INSTANTIATE_TEST_SUITE_P(Analyzer, AnalyzerFormats,
    ::testing::Values(FormatCase{"ci16_meta", "--in cap.sigmf-meta", true},
                      FormatCase{"ci16_base", "--in cap --fs 200000", true},
                      FormatCase{"cf32_scaled", "--in float.sigmf-data --scale 32768", true},
                      FormatCase{"cf32_peak_rule", "--in float.sigmf-meta", false}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- debug capture replay and block-wise analysis ----------------------------

TEST(AnalyzerReplay, ReproducesTheLastCapturedCallExactly) {
    ScratchDir dir;
    // Two captured calls: the sample file is appended to, the parameter file
    // rewritten, so the replay must take the last block with the last line.
    sg::writeCapture(qpsk(40000, 3), "older", false, "");
    sg::writeCapture(qpsk(24000, 9), "cap", false, "");
    ASSERT_NE(analyze("--in older.bin --dump --fs 200000 --rb 25000 --mode BPSK").status, 2);
    ASSERT_EQ(analyze(std::string("--in cap.bin --dump --json call.json") + kQpskArgs).status, 0);
    const CliRun run = analyze("--replay . --json replay.json");
    ASSERT_EQ(run.status, 0) << run.err;
    const json call = readJson("call.json"), replay = readJson("replay.json");
    EXPECT_EQ(first(call)["scalars"], first(replay)["scalars"]);
    EXPECT_EQ(first(call)["arrays"], first(replay)["arrays"]);
    EXPECT_EQ(call["parameters"], replay["parameters"]);
    EXPECT_EQ(replay["input"]["offset"], 40000);
}

TEST(AnalyzerBlocks, EachBlockMatchesASingleCall) {
    ScratchDir dir;
    sg::writeCapture(qpsk(3 * 20000 + 500), "long", false, "");
    const CliRun run = analyze(std::string("--in long.bin --blocks --count 20000 --json b.json") + kQpskArgs);
    ASSERT_EQ(run.status, 0) << run.err;
    const json blocks = readJson("b.json");
    ASSERT_EQ(blocks["results"].size(), 3u);
    for (int k = 0; k < 3; ++k) {
        const std::string sel = " --offset " + std::to_string(20000 * k) + " --count 20000";
        ASSERT_EQ(analyze("--in long.bin --json one.json" + sel + kQpskArgs).status, 0);
        EXPECT_EQ(blocks["results"][k], first(readJson("one.json"))) << "block " << k;
    }
    const json& snr = blocks["spread"]["snr"];
    EXPECT_LE(snr["min"].get<double>(), snr["max"].get<double>());
}

// ---- inputs a user gets wrong ------------------------------------------------

struct BadInput {
    const char* name;
    const char* args;
    const char* message;  // part of the one-line diagnostic
};

class AnalyzerErrors : public ::testing::TestWithParam<BadInput> {};

TEST_P(AnalyzerErrors, ExitTwoWithOneLineAndNoReport) {
    ScratchDir dir;
    const sg::Result r = qpsk(24000);
    sg::writeCapture(r, "cap", true, "");
    std::vector<int16_t> iq(2 * 24000 + 1, 0);  // one int16 too many
    writeBytes("odd.bin", iq.data(), iq.size() * 2);
    writeBytes("short.bin", iq.data(), 4 * 10000);
    const std::pair<const char*, const char*> metas[] = {
        {"notype", R"({"global":{"core:datatype":"ri16_le"}})"},
        {"norate", R"({"global":{"core:datatype":"ci16_le"}})"},
        {"cut", R"({"global":{"core:datatype":"ci16_le","core:sample_rate":200000},)"
                R"("annotations":[{"core:sample_start":10000,"core:sample_count":20000}]})"}};
    for (const auto& [base, meta] : metas) {
        std::ofstream(std::string(base) + ".sigmf-meta") << meta;
        std::ofstream(std::string(base) + ".sigmf-data", std::ios::binary) << slurp("cap.sigmf-data");
    }
    std::ofstream("Vantrel_Parameter.txt")
        << "inLen = 30000, fsIn = 200000.000000, Rb = 25000.000000,mode =  5,filterType= 1,  init=0 \n";
    writeBytes("Vantrel_IQData.bin", iq.data(), 4 * 24000);

    const CliRun run = analyze(std::string(GetParam().args) + " --json r.json");
    EXPECT_EQ(run.status, 2);
    EXPECT_NE(run.err.find(GetParam().message), std::string::npos) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_FALSE(std::ifstream("r.json").good());
}

INSTANTIATE_TEST_SUITE_P(Analyzer, AnalyzerErrors, ::testing::Values(
        BadInput{"missing", "--in nothing.bin --fs 200000 --rb 25000 --mode QPSK", "no such file"},
        BadInput{"odd_bytes", "--in odd.bin --fs 200000 --rb 25000 --mode QPSK", "odd byte count"},
        BadInput{"short", "--in short.bin --fs 200000 --rb 25000 --mode QPSK", "shorter than 16384"},
        BadInput{"datatype", "--in notype.sigmf-meta --fs 1e5 --rb 25000 --mode QPSK",
                 "unknown core:datatype"},
        BadInput{"no_rate", "--in norate --rb 25000 --mode QPSK", "no core:sample_rate"},
        BadInput{"annotation_cut", "--in cut --annotation 0 --rb 25000 --mode QPSK", "truncated"},
        BadInput{"replay_cut", "--replay .", "truncated"},
        BadInput{"mode_name", "--in cap.bin --fs 200000 --rb 25000 --mode QPSX", "unknown mode"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace

#endif  // VANTREL_ANALYZE_CLI
