// Comparing a demodulator's decisions with a capture's truth.
#pragma once

#include <cstddef>
#include <cstdint>

#include "siggen.h"

namespace vantrel::siggen {

// Where a run of decided symbols sits in the transmitted sequence and how many
// of them differ. A carrier-recovering demodulator may lock to any rotation
// of the constellation that maps it onto itself (multiples of 2*pi/M for PSK,
// of pi/2 for QAM, none for ASK and FSK), so every such rotation is tried and
// the best alignment wins.
struct Match {
    long offset = -1;   // decided[i] stands for truth symbol offset + i
    int rotation = 0;   // in steps of 2*pi/M (PSK) or pi/2 (QAM)
    long compared = 0;  // decisions compared (0: nothing to compare)
    long errors = 0;    // decisions that differ from the rotated truth
};

Match matchDecisions(const Result& capture, const std::uint32_t* decided, std::size_t count);

}  // namespace vantrel::siggen
