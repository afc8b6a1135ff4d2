#include "json_report.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstddef>
#include <cstring>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace vantrel::analyzer {

namespace {

using json = nlohmann::ordered_json;

// Counts of the host arrays, with the unit of their values.
struct ArrayCount {
    const char* name;
    uint32_t DisplayData::*count;
    const char* unit;
};
const ArrayCount kArrays[] = {
    {"eye", &DisplayData::eyeLen, "normalised amplitude"},
    {"constellation", &DisplayData::constLen, "normalised I and Q (constI, constQ)"},
    {"bits", &DisplayData::bitsLen, "bit"},
    {"symbols", &DisplayData::symbolsLen, "symbol index"},
    {"evm", &DisplayData::evmLen, "%"},
    {"phaseErr", &DisplayData::phaseErrLen, "rad"},
    {"magErr", &DisplayData::magErrLen, "%"},
    {"phaseTrace", &DisplayData::phaseTraceLen, "rad"},
    {"freqTrace", &DisplayData::freqTraceLen, "Hz"},
    {"envTrace", &DisplayData::envTraceLen, "raw units"},
    {"iTrace", &DisplayData::iTraceLen, "raw units"},
    {"shiftedIQ", &DisplayData::shiftedIQLen, "values (2 per sample)"},
};

json input(const Capture& c) {
    json j;
    j["kind"] = c.kind;
    j["data_file"] = c.dataPath;
    j["meta_file"] = c.metaPath.empty() ? json(nullptr) : json(c.metaPath);
    j["datatype"] = c.datatype;
    j["samples_in_file"] = c.fileSamples;
    j["offset"] = c.offset;
    j["count"] = c.count;
    j["blocks"] = c.numBlocks;
    j["annotation"] = c.annotation >= 0 ? json(c.annotation) : json(nullptr);
    j["sample_rate_in_file_hz"] = c.fs > 0 ? json(c.fs) : json(nullptr);
    j["scale"] = c.scale;
    j["scale_rule"] = c.scaleRule;
    j["clipped_values"] = c.clipped;
    if (c.replay)
        j["recorded_call"] = {{"inLen", c.replay->inLen},  {"fsIn", c.replay->fsIn},
                              {"Rb", c.replay->Rb},        {"mode", c.replay->mode},
                              {"filterType", c.replay->filterType}, {"init", c.replay->init}};
    return j;
}

json result(const Result& r, uint64_t offset, uint64_t count) {
    json j;
    j["offset"] = offset;
    j["count"] = count;
    j["return_code"] = {{"value", r.code}, {"meaning", codeMeaning(r.code)}};
    json s = json::object();
    for (const Figure& f : figures()) s[f.name] = {{"value", valueOf(r.record, f)}, {"unit", f.unit}};
    j["scalars"] = s;
    json a = json::object();
    for (const ArrayCount& k : kArrays) a[k.name] = {{"count", r.record.*k.count}, {"unit", k.unit}};
    j["arrays"] = a;
    return j;
}

json spread(const std::vector<Result>& results) {
    json j = json::object();
    for (const Figure& f : figures()) {
        const Spread s = spreadOf(results, f);
        j[f.name] = s.n == 0 ? json(nullptr)
                             : json{{"min", s.min}, {"max", s.max}, {"mean", s.mean},
                                    {"std", s.std}, {"unit", f.unit}};
    }
    return j;
}

}  // namespace

const std::vector<Figure>& figures() {
    static const std::vector<Figure> all = {
        {"evmRms", offsetof(DisplayData, evmRms), "%"},
        {"evmPeak", offsetof(DisplayData, evmPeak), "%"},
        {"phaseErrRms", offsetof(DisplayData, phaseErrRms), "deg"},
        {"phaseErrPeak", offsetof(DisplayData, phaseErrPeak), "deg"},
        {"magErrRms", offsetof(DisplayData, magErrRms), "%"},
        {"magErrPeak", offsetof(DisplayData, magErrPeak), "%"},
        {"amDepth", offsetof(DisplayData, amDepth), "ratio"},
        {"fmPeakDev", offsetof(DisplayData, fmPeakDev), "Hz"},
        {"freqOffset", offsetof(DisplayData, freqOffset), "Hz"},
        {"peakLevel", offsetof(DisplayData, peakLevel), "dB"},
        {"modDepth", offsetof(DisplayData, modDepth), "ratio"},
        {"freqDeviation", offsetof(DisplayData, freqDeviation), "Hz"},
        {"iqOffset", offsetof(DisplayData, iqOffset), "raw units"},
        {"iqGainRatio", offsetof(DisplayData, iqGainRatio), "ratio"},
        {"quadError", offsetof(DisplayData, quadError), "rad"},
        {"snr", offsetof(DisplayData, snr), "dB"},
    };
    return all;
}

double valueOf(const DisplayData& record, const Figure& figure) {
    double v;
    std::memcpy(&v, reinterpret_cast<const unsigned char*>(&record) + figure.offset, sizeof v);
    return v;
}

Spread spreadOf(const std::vector<Result>& results, const Figure& figure) {
    Spread s;
    double sum = 0, sum2 = 0;
    s.min = INFINITY, s.max = -INFINITY;
    for (const Result& r : results) {
        if (r.code != 0) continue;
        const double v = valueOf(r.record, figure);
        s.min = std::min(s.min, v), s.max = std::max(s.max, v), sum += v, sum2 += v * v, ++s.n;
    }
    if (s.n == 0) return Spread{};
    s.mean = sum / double(s.n);
    // Population standard deviation: the blocks are the whole set measured.
    s.std = std::sqrt(std::max(0.0, sum2 / double(s.n) - s.mean * s.mean));
    return s;
}

std::string jsonReport(const Capture& capture, const Request& params,
                       const std::vector<Result>& results) {
    json doc;
    doc["format"] = kJsonFormat;
    doc["tool"] = "vantrel-analyze";
    doc["input"] = input(capture);
    // Copies: the packed record's doubles must not be bound by reference.
    const double rb = params.param.Rb, rolloff = params.param.rolloff;
    const uint32_t mode = params.param.mode, filterType = params.param.filterType;
    doc["parameters"] = {{"fs_hz", params.fs},
                         {"fs_min_hz", params.fsMin},
                         {"symbol_rate_hz", rb},
                         {"mode", mode},
                         {"mode_name", modeName(static_cast<int>(mode))},
                         {"filter_type", filterType},
                         {"rolloff", rolloff}};
    json list = json::array();
    for (size_t b = 0; b < results.size(); ++b)
        list.push_back(result(results[b], capture.offset + b * capture.count, capture.count));
    doc["results"] = list;
    doc["spread"] = results.size() > 1 ? spread(results) : json(nullptr);
    // NaN and infinite figures come out as null (JSON has no such numbers).
    return doc.dump(1) + "\n";
}

void writeReport(const std::string& path, const std::string& text) {
    if (path == "-") {
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
        return;
    }
    const std::string tmp = path + ".tmp" + std::to_string(::getpid());
    std::FILE* f = std::fopen(tmp.c_str(), "wb");
    if (!f)
        throw InputError(path + ": cannot write the JSON report (" + std::strerror(errno) +
                         "); check the directory exists and is writable");
    const bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (std::fclose(f) != 0 || !ok || std::rename(tmp.c_str(), path.c_str()) != 0) {
        std::remove(tmp.c_str());
        throw InputError(path + ": cannot write the JSON report (" + std::strerror(errno) + ")");
    }
}

}  // namespace vantrel::analyzer
