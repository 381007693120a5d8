// The trace and thread tests share one process-wide trace facility, reset between tests.
#ifndef TESTS_BKVLIB_COMMON_UT_TRACETESTUTIL_H
#define TESTS_BKVLIB_COMMON_UT_TRACETESTUTIL_H

#include <string>

#include "BKVlib/common/ut/trace.h"
#include "tests/support/TestFiles.h"

using testfiles::readFile;
using testfiles::TempDir;
using testfiles::writeFile;

inline size_t countOf(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++count;
    return count;
}

inline void resetTrace(int32_t clientType = 9, ThreadTagFn tagFn = nullptr) {
    trEnd(1);
    trTerminate();
    trFlags[TR_ERROR] = 0;  // the facility itself never clears ERROR
    trInit(clientType, 1, tagFn);
}

// The next-write offset recorded in a wrapping file's header.
inline unsigned long recordedOffset(const std::string& file) {
    return file.size() >= 24 ? std::stoul(file.substr(12, 12)) : 0;
}

#endif
