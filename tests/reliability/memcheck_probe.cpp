// One call of every mode code through the shipped shared library, for a run
// under valgrind's memcheck (label memcheck): uninitialised reads, invalid
// accesses and leaks anywhere in any chain show up as memcheck errors. The
// program itself checks that every clean capture is analysed (return code 0)
// and that no host array guard was written.
#include <cstdio>

#include "every_code.h"

int main() {
    int failures = 0;
    for (int mode = reliability::kFirstCode; mode <= reliability::kLastCode; ++mode) {
        const vantrel::siggen::Result c = reliability::captureOf(mode);
        HostRecord host(reliability::kSamples, static_cast<uint32_t>(mode));
        const int handle = VantrelObjCreatSelfEncode();
        const int code = reliability::analyse(handle, c, host);
        VantrelObjRelease(handle);
        const bool intact = host.intact();
        std::printf("code %2d: returned %d, %u points, guards %s\n", mode, code,
                    host.rec.constLen, intact ? "intact" : "WRITTEN");
        if (code != 0 || !intact) ++failures;
    }
    return failures == 0 ? 0 : 1;
}
