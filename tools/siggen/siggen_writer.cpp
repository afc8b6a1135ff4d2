// Capture files and their JSON truth, written with nlohmann::json.
#include "siggen_writer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace vantrel::siggen {

namespace {

using json = nlohmann::ordered_json;

// A double, or null when it is not a number (an impairment not applied).
json numberOrNull(double v) { return std::isfinite(v) ? json(v) : json(nullptr); }

const char* familyName(Family f) {
    switch (f) {
    case Family::PSK: return "PSK";
    case Family::QAM: return "QAM";
    case Family::ASK: return "ASK";
    case Family::FSK: return "FSK";
    default: return "ANALOG";
    }
}

bool hostIsLittleEndian() {
    const std::uint16_t probe = 1;
    unsigned char first;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

void writeFile(const std::string& name, const void* data, std::size_t bytes) {
    std::FILE* f = std::fopen(name.c_str(), "wb");
    if (!f) throw std::runtime_error("cannot open " + name + " for writing");
    const bool ok = std::fwrite(data, 1, bytes, f) == bytes;
    if (std::fclose(f) != 0 || !ok) throw std::runtime_error("cannot write " + name);
}

void writeText(const std::string& name, const std::string& text) {
    writeFile(name, text.data(), text.size());
}

// Interleaved I, Q; byte-swapped to little endian when asked on a
// big-endian host.
std::vector<std::int16_t> interleave(const Result& r, bool forceLittle) {
    std::vector<std::int16_t> iq(2 * r.I.size());
    const bool swap = forceLittle && !hostIsLittleEndian();
    for (std::size_t n = 0; n < r.I.size(); ++n) {
        std::int16_t a = r.I[n], b = r.Q[n];
        if (swap) {
            a = static_cast<std::int16_t>(static_cast<std::uint16_t>((a << 8) | ((a >> 8) & 0xff)));
            b = static_cast<std::int16_t>(static_cast<std::uint16_t>((b << 8) | ((b >> 8) & 0xff)));
        }
        iq[2 * n] = a;
        iq[2 * n + 1] = b;
    }
    return iq;
}

std::string baseName(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

std::string truthJson(const Result& r, const std::string& binName, const std::string& commandLine) {
    const Config& c = r.config;
    const bool analog = r.family == Family::Analog;
    int peakAbs = 0;
    for (std::size_t n = 0; n < r.I.size(); ++n)
        peakAbs = std::max({peakAbs, std::abs(int(r.I[n])), std::abs(int(r.Q[n]))});

    json doc;
    doc["generator"] = "vantrel-siggen";
    doc["format_version"] = 1;
    if (!commandLine.empty()) doc["command_line"] = commandLine;
    doc["capture"] = {{"file", binName},
                      {"layout", "interleaved int16 I,Q"},
                      {"byte_order", hostIsLittleEndian() ? "little" : "big"},
                      {"samples", r.I.size()},
                      {"sample_rate_hz", r.fs},
                      {"peak_abs", peakAbs}};
    json p = {{"mode", c.mode},
              {"mode_name", modeName(c.mode)},
              {"family", familyName(r.family)},
              {"symbol_rate_hz", c.Rb},
              {"samples_per_symbol", c.sps},
              {"sample_rate_hz", r.fs},
              {"symbols_requested", c.numSamples > 0 ? json(nullptr) : json(c.numSymbols)},
              {"samples_requested", c.numSamples > 0 ? json(c.numSamples) : json(nullptr)},
              {"seed", c.seed},
              {"peak", c.rms > 0.0 ? json(nullptr) : json(c.peak)},
              {"rms", c.rms > 0.0 ? json(c.rms) : json(nullptr)}};
    if (analog) {
        p["tone_hz"] = c.toneHz;
        if (c.mode == 10) p["am_depth"] = c.amDepth;
        if (c.mode == 11) p["fm_deviation_hz"] = c.fmDeviationHz;
        if (c.mode == 12) p["pm_peak_rad"] = c.pmPeakRad;
    } else {
        p["filter_type"] = c.filterType;
        p["filter_name"] = filterName(c.filterType);
        p["rolloff"] = c.rolloff;
        p["span_symbols"] = c.span;
        if (r.family == Family::FSK) p["fsk_deviation_hz"] = c.fskDeviationHz;
        if (r.family == Family::ASK) p["ask_low_level"] = c.askLowLevel;
    }
    doc["parameters"] = p;
    doc["impairments"] = {{"carrier_offset_hz", c.carrierOffsetHz},
                          {"carrier_phase_rad", c.carrierPhase},
                          {"esn0_db", numberOrNull(c.esn0Db)},
                          {"snr_db", numberOrNull(c.snrDb)},
                          {"signal_power", r.signalPower},
                          {"noise_variance", r.noiseVariance},
                          {"iq_gain_ratio", c.gainImbalance},
                          {"quad_skew_rad", c.quadSkew},
                          {"dc_i", c.dcI},
                          {"dc_q", c.dcQ},
                          {"timing_offset_symbols", c.timingOffset},
                          {"clock_offset_ppm", c.clockOffsetPpm},
                          {"scale", r.scale}};
    if (!analog) {
        doc["truth"] = {{"order", r.order},
                        {"bits_per_symbol", r.bitsPerSymbol},
                        {"internal_samples_per_symbol", r.internalSps},
                        {"resampled", r.resampled},
                        {"first_symbol_sample", r.firstSymbolSample},
                        {"symbol_period_samples", r.symbolPeriod},
                        {"symbol_count", r.symbols.size()},
                        {"symbols", "@SYMBOLS@"},
                        {"bits", "@BITS@"}};
    }
    // Pretty-printed, except that the two long truth arrays stay on one line
    // each: the placeholders are swapped for their compact rendering.
    std::string text = doc.dump(1);
    if (!analog) {
        const auto put = [&text](const std::string& key, const json& value) {
            const std::string mark = "\"" + key + "\"";
            const std::size_t at = text.find(mark);
            if (at != std::string::npos) text.replace(at, mark.size(), value.dump());
        };
        put("@SYMBOLS@", json(r.symbols));
        put("@BITS@", json(r.bits));
    }
    return text;
}

std::string sigmfMeta(const Result& r) {
    const std::string label = modeName(r.config.mode);
    json meta;
    meta["global"] = {{"core:datatype", "ci16_le"},
                      {"core:sample_rate", r.fs},
                      {"core:version", "1.0.0"},
                      {"core:recorder", "vantrel-siggen"},
                      {"core:description", label + " test signal with known truth"}};
    meta["captures"] = json::array({{{"core:sample_start", 0}}});
    meta["annotations"] = json::array({{{"core:sample_start", 0},
                                        {"core:sample_count", r.I.size()},
                                        {"core:label", label}}});
    return meta.dump(1);
}

std::vector<std::string> writeCapture(const Result& r, const std::string& prefix, bool sigmf,
                                      const std::string& commandLine) {
    std::vector<std::string> names;
    const std::vector<std::int16_t> native = interleave(r, false);
    names.push_back(prefix + ".bin");
    writeFile(names.back(), native.data(), native.size() * sizeof(std::int16_t));
    names.push_back(prefix + ".json");
    writeText(names.back(), truthJson(r, baseName(prefix + ".bin"), commandLine) + "\n");
    if (sigmf) {
        const std::vector<std::int16_t> little = interleave(r, true);
        names.push_back(prefix + ".sigmf-data");
        writeFile(names.back(), little.data(), little.size() * sizeof(std::int16_t));
        names.push_back(prefix + ".sigmf-meta");
        writeText(names.back(), sigmfMeta(r) + "\n");
    }
    return names;
}

}  // namespace vantrel::siggen
