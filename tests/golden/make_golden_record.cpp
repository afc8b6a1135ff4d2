// Writes the golden record: one line per case of the matrix, codes 1..18.
//   vantrel_golden_record > tests/golden/golden_record.txt
#include <cstdio>

#include "golden_cases.h"

int main() {
    std::printf("# mode sps samples filter returncode sha256-of-every-figure\n");
    for (int mode = 1; mode <= 18; ++mode) {
        for (const std::string& line : golden::runMode(mode)) std::printf("%s\n", line.c_str());
    }
    return 0;
}
