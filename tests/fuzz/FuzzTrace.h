// The start-up of the fuzz targets that reach traced code: every trace record is
// formatted (into /dev/null), so a bad format argument shows up as a crash.
#ifndef TESTS_FUZZ_FUZZTRACE_H
#define TESTS_FUZZ_FUZZTRACE_H

#include "Common/AgentTrace.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    initTrace("/dev/null", "MAX", 1024);
    return 0;
}

#endif
