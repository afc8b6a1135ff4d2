// Files of a generated capture: the samples and their truth.
//
//   <prefix>.bin         interleaved int16 I, Q in native byte order, the
//                        layout of the library's own debug capture file;
//   <prefix>.json        every parameter, the applied impairments, the
//                        transmitted symbols and bits and where they sit;
//   <prefix>.sigmf-data  (optional) the same samples as ci16_le, with
//   <prefix>.sigmf-meta  its metadata, for common SDR tools.
#pragma once

#include <string>
#include <vector>

#include "siggen.h"

namespace vantrel::siggen {

// The sidecar document as text (pretty-printed JSON). binName is the sample
// file it describes; commandLine is recorded when not empty.
std::string truthJson(const Result& r, const std::string& binName, const std::string& commandLine);
// The SigMF metadata document as text.
std::string sigmfMeta(const Result& r);

// Writes the files of one capture and returns their names. Throws
// std::runtime_error when a file cannot be written.
std::vector<std::string> writeCapture(const Result& r, const std::string& prefix, bool sigmf,
                                      const std::string& commandLine);

}  // namespace vantrel::siggen
