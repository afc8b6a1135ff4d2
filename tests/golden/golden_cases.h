// The golden-record case matrix: fixed captures from the project's generator,
// analysed through the public entry, each result reduced to one line holding
// the return code and a SHA-256 of every figure the host receives.
//
// The record (golden_record.txt beside this file) was written by the
// unoptimised library; the test golden_record_test.cpp recomputes every line
// and requires it bit for bit. Any change that moves one bit of one figure
// fails it. A deliberate change of a figure regenerates the record with
// vantrel_golden_record, in a commit of its own that says why.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace golden {

struct Case {
    int mode;          // library mode code 1..18
    double sps;        // samples per symbol of the capture
    long samples;      // capture length in samples
    int filterType;    // shaping and matched filter (digital codes)
    double rolloff;    // roll-off, or BT for the Gaussian pulse
    std::uint64_t seed;
};

// Every case of one mode code, in the order they are analysed.
std::vector<Case> casesFor(int mode);

// Generates each case of `mode`, analyses them one after another on one
// instance (as a host analyses block after block) and returns one line per
// case: "mode sps samples filter returncode sha256".
std::vector<std::string> runMode(int mode);

}  // namespace golden
