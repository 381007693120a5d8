// Test support for the vendor driver, the planner driver and the rescan vehicle:
// fake lunctl, rpm and cfglundev first on PATH, and capture of the trace and of
// the activity log, so tests can check the exact lines the tool writes.
#ifndef TESTS_FAKES_ZPL_FAKETOOLS_H
#define TESTS_FAKES_ZPL_FAKETOOLS_H

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/LogManager.h"
#include "tests/support/TestCatalog.h"

namespace zpltest {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

inline std::string makeTempDir(const std::string& base = "/tmp") {
    std::string pattern = base + "/zpltestXXXXXX";
    const char* made = mkdtemp(&pattern[0]);
    return made ? std::string(made) : std::string();
}

// The fake tools of tests/fakes/zpl first on PATH, answering from a private
// directory (see the comment in tests/fakes/zpl/faketool).
class FakeTools {
public:
    FakeTools() : dir_(makeTempDir()), oldPath_(getenv("PATH") ? getenv("PATH") : "") {
        setenv("FAKE_TOOL_DIR", dir_.c_str(), 1);
        setenv("PATH", (std::string(PP_SOURCE_DIR "/tests/fakes/zpl:") + oldPath_).c_str(), 1);
    }
    ~FakeTools() {
        setenv("PATH", oldPath_.c_str(), 1);
        unsetenv("FAKE_TOOL_DIR");
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    FakeTools(const FakeTools&) = delete;
    FakeTools& operator=(const FakeTools&) = delete;

    // key: the tool, or the tool and its arguments joined by "_" ("lunctl.query_device").
    void answer(const std::string& key, const std::string& out, int rc = 0, const std::string& err = "") {
        writeFile(dir_ + "/" + key + ".out", out);
        writeFile(dir_ + "/" + key + ".rc", std::to_string(rc) + "\n");
        if (!err.empty()) writeFile(dir_ + "/" + key + ".err", err);
    }
    void answerFromFile(const std::string& key, const std::string& fixture, int rc = 0) {
        answer(key, readFile(fixture), rc);
    }
    // Shell text the fake sources before it answers.
    void hook(const std::string& key, const std::string& shellText) { writeFile(dir_ + "/" + key + ".sh", shellText); }
    // Every call so far, "<tool> <args>", in order.
    std::vector<std::string> calls() const {
        std::vector<std::string> lines;
        std::istringstream in(readFile(dir_ + "/calls.log"));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }
    const std::string& dir() const { return dir_; }

private:
    std::string dir_;
    std::string oldPath_;
};

// Traces everything (MAX) into a private file while it lives.
class TraceCapture {
public:
    TraceCapture() : file_(makeTempDir() + "/trace.out") { initTrace(file_, "MAX", 1024); }
    ~TraceCapture() {
        endTrace();
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(file_).parent_path(), ignored);
    }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;
    std::string text() const { return readFile(file_); }
    bool has(const std::string& line) const { return text().find(line) != std::string::npos; }

private:
    std::string file_;
};

// Publishes a private activity log as the process-wide one, with the built
// catalogue open, while it lives.
class LogCapture {
public:
    LogCapture() : file_(makeTempDir() + "/activity.log"), log_(file_) {
        useBuiltCatalog();
        activityLog = &log_;
    }
    ~LogCapture() {
        activityLog = nullptr;
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(file_).parent_path(), ignored);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::string text() const { return readFile(file_); }

private:
    std::string file_;
    LogManager log_;
};

}  // namespace zpltest

#endif
