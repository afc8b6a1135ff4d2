#include "capture_input.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

namespace vantrel::analyzer {

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

std::string str(uint64_t v) { return std::to_string(v); }

bool endsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

uint64_t fileBytes(const std::string& path) {
    std::error_code ec;
    if (!fs::exists(path, ec))
        throw InputError(path + ": no such file; check the path given to the analyzer");
    if (!fs::is_regular_file(path, ec)) throw InputError(path + ": not a regular file");
    const uint64_t n = fs::file_size(path, ec);
    if (ec) throw InputError(path + ": cannot read its size (" + ec.message() + ")");
    return n;
}

std::string readText(const std::string& path) {
    fileBytes(path);
    std::ifstream f(path);
    if (!f) throw InputError(path + ": cannot open (" + std::strerror(errno) + ")");
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

// Reads `bytes` bytes starting at `from`; the caller has checked the size.
std::vector<unsigned char> readBytes(const std::string& path, uint64_t from, uint64_t bytes) {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) throw InputError(path + ": cannot open (" + std::strerror(errno) + ")");
    std::vector<unsigned char> buf(bytes);
    const bool ok = fseeko(f, static_cast<off_t>(from), SEEK_SET) == 0 &&
                    std::fread(buf.data(), 1, bytes, f) == bytes;
    std::fclose(f);
    if (!ok) throw InputError(path + ": truncated while reading; the file changed or is damaged");
    return buf;
}

// One complex sample's storage in a data file.
struct SampleFormat {
    const char* name;
    unsigned bytes;    // per complex sample
    bool isFloat;
    bool nativeOrder;  // raw files: the host's byte order (x86-64: little)
};

const SampleFormat kRaw{"ci16", 4, false, true};
const SampleFormat kSigmf[] = {{"ci16_le", 4, false, false},
                               {"ci8", 2, false, false},
                               {"cf32_le", 8, true, false},
                               {"cf64_le", 16, true, false}};

// The n-th component (I = even, Q = odd) of the buffer, as a double.
double component(const SampleFormat& f, const unsigned char* p, size_t n) {
    if (f.bytes == 2) return static_cast<double>(static_cast<int8_t>(p[n]));
    if (f.bytes == 4) {
        int16_t v;
        if (f.nativeOrder) {
            std::memcpy(&v, p + 2 * n, 2);
        } else {
            const uint16_t u = static_cast<uint16_t>(p[2 * n] | (p[2 * n + 1] << 8));
            std::memcpy(&v, &u, 2);
        }
        return v;
    }
    if (f.bytes == 8) {
        uint32_t u = 0;
        for (int k = 3; k >= 0; --k) u = (u << 8) | p[4 * n + k];
        float v;
        std::memcpy(&v, &u, 4);
        return v;
    }
    uint64_t u = 0;
    for (int k = 7; k >= 0; --k) u = (u << 8) | p[8 * n + k];
    double v;
    std::memcpy(&v, &u, 8);
    return v;
}

// Where the samples to analyse may lie in the data file: [start, start+avail).
struct Region {
    uint64_t start = 0, avail = 0;
};

// Applies --offset, --count and --blocks to a region and fills the
// selection fields of the capture.
void select(const InputRequest& rq, const Region& region, Capture& c) {
    const uint64_t off = rq.offset.value_or(0);
    if (off >= region.avail)
        throw InputError("--offset " + str(off) + " is beyond the " + str(region.avail) +
                         " samples of the input; give an offset below that");
    const uint64_t rest = region.avail - off;
    uint64_t count = rq.count.value_or(rest);
    if (rq.count && *rq.count == 0) throw InputError("--count must be at least 1");
    if (!rq.blocks && count > rest)
        throw InputError("the input holds " + str(rest) + " samples from offset " + str(off) +
                         ", fewer than --count " + str(count) +
                         "; the file is truncated or the count is too large");
    if (count < kMinBlock)
        throw InputError("a block of " + str(count) + " samples is shorter than " +
                         str(kMinBlock) + ", the least one call analyses; " +
                         "use a longer capture or a larger --count");
    if (count > kMaxBlock)
        throw InputError("a block of " + str(count) + " samples is longer than " +
                         str(kMaxBlock) + ", the most one call analyses; " +
                         "choose a block with --offset N --count N, or --blocks --count N");
    c.offset = region.start + off;
    c.count = count;
    c.numBlocks = rq.blocks ? rest / count : 1;
    if (c.numBlocks == 0)
        throw InputError("the input holds " + str(rest) + " samples from offset " + str(off) +
                         ", not one whole block of --count " + str(count));
}

// Reads the selected samples and converts them to int16 by the scale rule.
void convert(const InputRequest& rq, const SampleFormat& f, Capture& c) {
    const uint64_t total = c.count * c.numBlocks;
    const std::vector<unsigned char> buf =
        readBytes(c.dataPath, c.offset * f.bytes, total * f.bytes);
    std::vector<double> v(2 * total);
    double peak = 0;
    for (size_t n = 0; n < v.size(); ++n) {
        v[n] = component(f, buf.data(), n);
        if (!std::isfinite(v[n]))
            throw InputError(c.dataPath + ": sample " + str(c.offset + n / 2) +
                             " is not a finite number; the data is damaged or of another type");
        peak = std::max(peak, std::fabs(v[n]));
    }
    c.datatype = f.name;
    bool exact = false;
    if (rq.scale) {
        c.scale = *rq.scale;
        c.scaleRule = "--scale";
    } else if (!f.isFloat) {
        // Integers keep their values: ci16 as they are, ci8 moved to the top
        // byte so that a full-scale ci8 capture is full scale in int16 too.
        c.scale = f.bytes == 2 ? 256.0 : 1.0;
        c.scaleRule = f.bytes == 2 ? "ci8 value * 256" : "none (int16 as stored)";
        exact = true;
    } else {
        // Floating-point captures have no natural int16 scale: the largest
        // |I| or |Q| of the analysed samples goes to 0.9 of full scale, which
        // keeps 10 % headroom and uses all but the top bit of resolution.
        c.scale = peak > 0 ? 0.9 * 32767.0 / peak : 1.0;
        c.scaleRule = "peak |I|,|Q| to 0.9*32767";
    }
    c.I.resize(total);
    c.Q.resize(total);
    for (size_t n = 0; n < v.size(); ++n) {
        double x = exact ? v[n] : std::round(v[n] * c.scale);  // half away from zero
        if (x > 32767.0 || x < -32768.0) {
            ++c.clipped;
            x = std::clamp(x, -32768.0, 32767.0);
        }
        (n % 2 == 0 ? c.I : c.Q)[n / 2] = static_cast<int16_t>(x);
    }
}

uint64_t wholeSamples(const std::string& path, uint64_t bytes, unsigned perSample,
                      const char* what) {
    if (bytes % perSample != 0)
        throw InputError(path + ": odd byte count " + str(bytes) + ", not a whole number of " +
                         what + " samples (" + str(perSample) +
                         " bytes each); the file is truncated or of another type");
    return bytes / perSample;
}

Capture loadRaw(const InputRequest& rq) {
    Capture c;
    c.kind = "raw";
    c.dataPath = rq.in;
    if (rq.annotation) throw InputError("--annotation needs a SigMF input (NAME.sigmf-meta)");
    c.fileSamples = wholeSamples(rq.in, fileBytes(rq.in), 4, "interleaved int16 I,Q");
    select(rq, {0, c.fileSamples}, c);
    convert(rq, kRaw, c);
    return c;
}

uint64_t metaCount(const json& obj, const char* key, const std::string& path) {
    const json& v = obj.at(key);
    if (!v.is_number_unsigned() && !(v.is_number_integer() && v.get<long long>() >= 0))
        throw InputError(path + ": " + key + " is not a non-negative integer");
    return v.get<uint64_t>();
}

Capture loadSigmf(const InputRequest& rq, const std::string& base) {
    Capture c;
    c.kind = "sigmf";
    c.metaPath = base + ".sigmf-meta";
    c.dataPath = base + ".sigmf-data";
    json meta;
    try {
        meta = json::parse(readText(c.metaPath));
    } catch (const json::exception& e) {
        throw InputError(c.metaPath + ": not valid JSON (" + e.what() + ")");
    }
    const json global = meta.is_object() ? meta.value("global", json::object()) : json();
    if (!global.is_object() || !global.contains("core:datatype") ||
        !global["core:datatype"].is_string())
        throw InputError(c.metaPath + ": no global core:datatype; the metadata must name " +
                         "the sample type (ci16_le, ci8, cf32_le or cf64_le)");
    const std::string type = global["core:datatype"];
    const SampleFormat* f = nullptr;
    for (const SampleFormat& k : kSigmf)
        if (type == k.name) f = &k;
    if (!f)
        throw InputError(c.metaPath + ": unknown core:datatype \"" + type +
                         "\"; convert the capture to ci16_le, ci8, cf32_le or cf64_le");
    if (global.contains("core:sample_rate")) {
        if (!global["core:sample_rate"].is_number() || !(global["core:sample_rate"] > 0))
            throw InputError(c.metaPath + ": core:sample_rate is not a positive number");
        c.fs = global["core:sample_rate"];
    }
    c.fileSamples = wholeSamples(c.dataPath, fileBytes(c.dataPath), f->bytes, type.c_str());
    Region region{0, c.fileSamples};
    if (rq.annotation) {
        const json ann = meta.value("annotations", json::array());
        const long n = *rq.annotation;
        if (!ann.is_array() || n < 0 || n >= static_cast<long>(ann.size()))
            throw InputError(c.metaPath + ": no annotation " + std::to_string(n) + "; it has " +
                             std::to_string(ann.is_array() ? ann.size() : 0) +
                             " (numbered from 0)");
        const json& a = ann[static_cast<size_t>(n)];
        if (!a.is_object() || !a.contains("core:sample_start"))
            throw InputError(c.metaPath + ": annotation " + std::to_string(n) +
                             " has no core:sample_start");
        region.start = metaCount(a, "core:sample_start", c.metaPath);
        if (region.start >= c.fileSamples)
            throw InputError(c.dataPath + ": truncated, annotation " + std::to_string(n) +
                             " starts at sample " + str(region.start) + " but the file holds " +
                             str(c.fileSamples));
        region.avail = a.contains("core:sample_count")
                           ? metaCount(a, "core:sample_count", c.metaPath)
                           : c.fileSamples - region.start;
        if (region.avail > c.fileSamples - region.start)
            throw InputError(c.dataPath + ": truncated, annotation " + std::to_string(n) +
                             " ends at sample " + str(region.start + region.avail) +
                             " but the file holds " + str(c.fileSamples));
        c.annotation = n;
    }
    select(rq, region, c);
    convert(rq, *f, c);
    return c;
}

Capture loadReplay(const InputRequest& rq) {
    Capture c;
    c.kind = "replay";
    c.metaPath = (fs::path(rq.replayDir) / "Vantrel_Parameter.txt").string();
    c.dataPath = (fs::path(rq.replayDir) / "Vantrel_IQData.bin").string();
    if (rq.annotation) throw InputError("--annotation needs a SigMF input (NAME.sigmf-meta)");
    std::string text = readText(c.metaPath);
    text = text.substr(0, text.find('\n'));
    const ReplayParameters p = parseReplayLine(text, c.metaPath);
    c.replay = p;
    c.fs = p.fsIn;
    c.fileSamples = wholeSamples(c.dataPath, fileBytes(c.dataPath), 4, "interleaved int16 I,Q");
    if (c.fileSamples < p.inLen)
        throw InputError(c.dataPath + ": truncated, it holds " + str(c.fileSamples) +
                         " samples but the recorded call had inLen = " + str(p.inLen) +
                         "; the two files come from different runs");
    // The sample file is appended to by every captured call; the last block
    // is the one the parameter line (rewritten each time) describes.
    select(rq, {c.fileSamples - p.inLen, p.inLen}, c);
    convert(rq, kRaw, c);
    return c;
}

}  // namespace

ReplayParameters parseReplayLine(const std::string& line, const std::string& path) {
    // The library writes "inLen = %d, fsIn = %1f, Rb = %1f,mode = % d,
    // filterType= %d,  init=%d"; whitespace in a scanf format matches any run
    // of spaces, so the padding of "% d" and the double space are absorbed.
    long long inLen = 0;
    ReplayParameters p;
    int used = 0;
    const int got = std::sscanf(line.c_str(),
                                "inLen = %lld, fsIn = %lf, Rb = %lf,mode = %d,filterType= %d, "
                                "init=%d %n",
                                &inLen, &p.fsIn, &p.Rb, &p.mode, &p.filterType, &p.init, &used);
    if (got != 6 || static_cast<size_t>(used) != line.size())
        throw InputError(path + ": not a parameter line of the library's debug capture " +
                         "(expected \"inLen = N, fsIn = F, Rb = R,mode = M,filterType= T,  " +
                         "init=I\"); point --replay at the directory the call wrote into");
    // %d of an unsigned 32-bit count: values above 2^31 print negative.
    p.inLen = static_cast<uint32_t>(inLen < 0 ? inLen + 4294967296LL : inLen);
    return p;
}

Capture loadCapture(const InputRequest& rq) {
    if (!rq.replayDir.empty()) return loadReplay(rq);
    for (const char* tail : {".sigmf-meta", ".sigmf-data"})
        if (endsWith(rq.in, tail)) return loadSigmf(rq, rq.in.substr(0, rq.in.size() - 11));
    std::error_code ec;
    if (!fs::exists(rq.in, ec) && fs::exists(rq.in + ".sigmf-meta", ec))
        return loadSigmf(rq, rq.in);
    return loadRaw(rq);
}

}  // namespace vantrel::analyzer
