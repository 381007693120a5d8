// Test doubles for the drivers' outside world: fake tools, and the trace and the
// activity log read back as text.
#ifndef TESTS_FAKES_FAKETOOLS_H
#define TESTS_FAKES_FAKETOOLS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <initializer_list>
#include <string>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/LogManager.h"
#include "tests/support/TestFiles.h"

namespace fakes {

// A private directory of links to tests/fakes/faketool, first on PATH while the
// object lives. Each link records its calls and answers from files set with answer().
class FakeTools {
public:
    explicit FakeTools(std::initializer_list<const char*> tools = {}) : path_(getenv("PATH") ? getenv("PATH") : "") {
        for (const char* tool : tools) install(tool);
        setenv("PATH", (dir_.path() + ":" + path_).c_str(), 1);
    }
    ~FakeTools() { setenv("PATH", path_.c_str(), 1); }
    // The directory as the drivers take it, ending in "/".
    std::string dir() const { return dir_.path() + "/"; }
    void install(const std::string& tool) { symlink(PP_SOURCE_DIR "/tests/fakes/faketool", (dir() + tool).c_str()); }
    // call: the tool, optionally followed by its arguments, each after a ".".
    void answer(const std::string& call, const std::string& out, int status = 0, const std::string& err = "") {
        testfiles::writeFile(dir() + call + ".stdout", out);
        testfiles::writeFile(dir() + call + ".stderr", err);
        testfiles::writeFile(dir() + call + ".status", std::to_string(status));
    }
    // The arguments of every call of the tool, one line per call, in order.
    std::vector<std::string> calls(const std::string& tool) const {
        return testfiles::splitLines(testfiles::readFile(dir() + tool + ".args"));
    }

private:
    testfiles::TempDir dir_;
    std::string path_;
};

// Traces every class into a private file while it lives.
class TraceCapture {
public:
    TraceCapture() { initTrace(dir_.file("trace"), "MAX", 1024); }
    ~TraceCapture() { endTrace(); }
    std::string text() const { return testfiles::readFile(dir_.file("trace")); }

private:
    testfiles::TempDir dir_;
};

// Publishes a private activity log while it lives, with the catalogue the build made
// open (once per test process), as the installed tool opens its own.
class LogCapture {
public:
    LogCapture() : log_(dir_.file("activity.log")) {
        static const int catalogue = initMessages(std::string(PP_BINARY_DIR) + "/nls", "", "qlxna.cat", "en_US");
        (void)catalogue;
        activityLog = &log_;
    }
    ~LogCapture() { activityLog = nullptr; }
    std::string text() const { return testfiles::readFile(dir_.file("activity.log")); }

private:
    testfiles::TempDir dir_;
    LogManager log_;
};

}  // namespace fakes

#endif
