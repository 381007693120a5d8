// The trace and thread tests share one process-wide trace facility, reset between tests.
#ifndef TESTS_BKVLIB_COMMON_UT_TRACETESTUTIL_H
#define TESTS_BKVLIB_COMMON_UT_TRACETESTUTIL_H

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

#include <gtest/gtest.h>

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

// Every trace test starts and ends with the facility reset, and writes into its own directory.
class TraceTestBase : public ::testing::Test {
protected:
    void SetUp() override { resetTrace(); }
    void TearDown() override { resetTrace(); }
    TempDir dir_;
};

// The next-write offset recorded in a wrapping file's header.
inline unsigned long recordedOffset(const std::string& file) {
    return file.size() >= 24 ? std::stoul(file.substr(12, 12)) : 0;
}

// Runs body in a forked child; returns what testfiles::exitCodeOf says of it. With a
// tmpfsDir the child first mounts a tmpfs of tmpfsOptions there in a private mount
// namespace, so tests can fill a disk; 77 means that was refused (no root).
inline int runInChild(const std::function<int()>& body, const std::string& tmpfsDir = "",
                      const char* tmpfsOptions = nullptr) {
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        alarm(60);
        if (!tmpfsDir.empty() && (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                                  mount("tmpfs", tmpfsDir.c_str(), "tmpfs", 0, tmpfsOptions) != 0)) {
            _exit(77);
        }
        int rc = body();
        fflush(stdout);
        _exit(rc);
    }
    return testfiles::exitCodeOf(child);
}

#endif
