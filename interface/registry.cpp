// The process-wide instance registry and the exported lifecycle functions.
//
// Handles are small integers handed out in creation order and never reused.
// Lookups go through the map's index operator on purpose: looking up an
// unknown handle inserts a null entry and yields null, and null simply means
// "no instance". Such entries are harmless; creation later stores into them.
#include <climits>
#include <cstring>
#include <new>

#include "VantrelClass.h"
#include "registry.h"
#include "work_pool.h"

std::map<int, VantrelClass*> VantrelObjCounter;
int objcount = 0;

VantrelClass* lookupInstance(int handle) { return VantrelObjCounter[handle]; }

extern "C" VANTREL_API int VantrelObjCreatSelfEncode(void) {
    // An exception must never reach a C host, so an allocation failure is
    // reported as -1 (never a valid handle) and nothing is registered. The
    // same holds once every non-negative handle has been given out.
    if (objcount == INT_MAX) return -1;
    try {
        VantrelClass* inst = new VantrelClass();
        try {
            VantrelObjCounter[objcount] = inst;
        } catch (...) {
            delete inst;
            return -1;
        }
        ++objcount;
        return objcount - 1;
    } catch (...) {
        return -1;
    }
}

// "Reset" is only a liveness check: every analysis call rebuilds the
// instance's per-call state anyway.
extern "C" VANTREL_API int VantrelObjReset(int handle) {
    try {
        return lookupInstance(handle) != nullptr ? 0 : -1;
    } catch (...) {
        return -1;
    }
}

extern "C" VANTREL_API int VantrelObjRelease(int handle) {
    try {
        VantrelClass* inst = lookupInstance(handle);
        if (inst == nullptr) return -1;
        VantrelObjCounter.erase(handle);
        delete inst;
        // With no live instance left, the recycled work blocks go back too.
        bool anyLive = false;
        for (const auto& entry : VantrelObjCounter) anyLive = anyLive || entry.second != nullptr;
        if (!anyLive) {
            heap_recycled_clear();
            vantrel::meas::work_pool_clear();
        }
        return 0;
    } catch (...) {
        return -1;
    }
}

extern "C" VANTREL_API int GetALGVersion(char* dst) {
    // The text is a fixed literal, platform words included, on every platform.
    static const char kVersion[] = "V1.0.0.202600811_X86_WIN64";
    std::memcpy(dst, kVersion, sizeof kVersion);
    return static_cast<int>(sizeof kVersion) - 1;
}
