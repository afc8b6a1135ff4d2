// The analyzer's machine-readable report (layout: docs/analyzer-json.md).
#pragma once

#include <string>
#include <vector>

#include "analysis_report.h"
#include "capture_input.h"

namespace vantrel::analyzer {

// Version of the JSON layout; raised whenever a field changes meaning or
// disappears (adding a field keeps it).
constexpr int kJsonFormat = 1;

// One scalar of DisplayData with its unit. The record is packed to 4 bytes,
// so a double field may be misaligned: it is located by its offset and read
// by copying its bytes, never through a reference or a member pointer.
struct Figure {
    const char* name;
    size_t offset;
    const char* unit;
};
const std::vector<Figure>& figures();
double valueOf(const DisplayData& record, const Figure& figure);

// Spread of one figure over the blocks whose call returned 0 (n = 0: none).
struct Spread {
    double min = 0, max = 0, mean = 0, std = 0;
    size_t n = 0;
};
Spread spreadOf(const std::vector<Result>& results, const Figure& figure);

// The whole report as text: the input, the parameters, one result per block
// and, for more than one block, the spread of each figure.
std::string jsonReport(const Capture& capture, const Request& params,
                       const std::vector<Result>& results);

// Writes the text to `path` ("-": standard output) in one piece: a file is
// written beside its final name and renamed into place, so a reader never
// sees a partial report. Throws InputError when it cannot be written.
void writeReport(const std::string& path, const std::string& text);

}  // namespace vantrel::analyzer
