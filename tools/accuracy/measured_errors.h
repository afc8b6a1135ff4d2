// Symbol errors of the measurement mode against a generated capture's truth.
#pragma once

#include "measurement.h"
#include "siggen.h"

namespace vantrel::accuracy {

struct MeasuredErrors {
    long compared = 0;  // settled symbols matched to a transmitted symbol
    long errors = 0;    // of those, decided wrongly (best symmetry of the constellation)
};

// Each settled symbol of the pipeline (p.instants, p.ideal or p.fskLevel) is
// matched to the transmitted symbol at its instant, under every rotation
// that maps the constellation onto itself (a carrier-recovering receiver
// cannot tell them apart), and the best rotation counts.
MeasuredErrors countMeasuredErrors(const vantrel::siggen::Result& r, const MeasurementPipeline& p);

}  // namespace vantrel::accuracy
