// Capture files the analyzer reads, turned into the int16 I/Q blocks one
// library call takes.
//
//   raw     interleaved native int16 I, Q (the generator's .bin files)
//   SigMF   NAME.sigmf-meta + NAME.sigmf-data, datatypes ci16_le, ci8,
//           cf32_le, cf64_le; sample rate and annotations from the metadata
//   replay  the library's own debug capture in a directory: the parameter
//           line of "Vantrel_Parameter.txt" and the last block of
//           "Vantrel_IQData.bin"
//
// Every problem a user can cause (missing or short file, odd byte count,
// unknown datatype, missing sample rate, block outside the limits of a call)
// is reported as an InputError whose text names the problem and the fix.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace vantrel::analyzer {

struct InputError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The smallest and largest block one call accepts.
constexpr uint64_t kMinBlock = 16384;
constexpr uint64_t kMaxBlock = 320000;

// What the user asked for on the command line about the input.
struct InputRequest {
    std::string in;                    // --in: raw file, SigMF meta/data/base name
    std::string replayDir;             // --replay DIR
    std::optional<uint64_t> offset;    // --offset: first sample of the first block
    std::optional<uint64_t> count;     // --count: samples per block
    bool blocks = false;               // --blocks: every whole block from offset on
    std::optional<long> annotation;    // --annotation N (SigMF)
    std::optional<double> scale;       // --scale: int16 = round(sample * scale)
};

// The parameters a debug capture recorded.
struct ReplayParameters {
    uint32_t inLen = 0;
    double fsIn = 0, Rb = 0;
    int mode = 0, filterType = 0, init = 0;
};

// The samples selected for analysis and where they came from.
struct Capture {
    std::string kind;       // "raw", "sigmf", "replay"
    std::string dataPath;   // the sample file
    std::string metaPath;   // SigMF metadata or replay parameter file, else empty
    std::string datatype;   // "ci16" (native), "ci16_le", "ci8", "cf32_le", "cf64_le"
    uint64_t fileSamples = 0;  // complex samples in the data file
    uint64_t offset = 0;       // first selected sample
    uint64_t count = 0;        // samples per block
    uint64_t numBlocks = 1;
    long annotation = -1;      // SigMF annotation used, or -1
    double fs = 0;             // from the metadata, 0 when the file carries none
    double scale = 1;          // int16 = round(sample * scale), clamped
    std::string scaleRule;     // how the scale was chosen
    uint64_t clipped = 0;      // values clamped to the int16 range
    std::optional<ReplayParameters> replay;
    // numBlocks * count samples, block b at [b*count, (b+1)*count).
    std::vector<int16_t> I, Q;
};

// Reads the input described by the request; throws InputError.
Capture loadCapture(const InputRequest& request);

// Parses the parameter line the library writes with its debug capture;
// throws InputError when the line does not have that layout.
ReplayParameters parseReplayLine(const std::string& line, const std::string& path);

}  // namespace vantrel::analyzer
