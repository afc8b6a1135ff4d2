// The measurement-mode figures (VantrelMeasure) of one block, as text.
#pragma once

#include <string>

#include "analysis_report.h"

namespace vantrel::analyzer {

// Runs VantrelMeasure on the block (on an instance of its own) and returns
// the figures with their units, one per line; NaN figures read "-".
std::string measurementReport(const Request& request, int* code);

}  // namespace vantrel::analyzer
