// Test helpers for the device-mapper driver: captured tool output, fake tools in a
// temporary directory, and the trace and activity log read back as text.
#ifndef TESTS_MULTIPATH_LINUX_DMTESTSUPPORT_H
#define TESTS_MULTIPATH_LINUX_DMTESTSUPPORT_H

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/LogManager.h"
#include "tests/support/TestCatalog.h"

namespace dmtest {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// A captured output file of tests/Multipath/linux/data.
inline std::string fixture(const std::string& name) {
    return readFile(std::string(PP_SOURCE_DIR) + "/tests/Multipath/linux/data/" + name);
}

inline std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/dmtestXXXXXX";
        path_ = mkdtemp(name) ? name : "";
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A directory of fake tools: each is a link to tests/fakes/dm/dm-fake-tool that
// records its arguments and answers from files set with answer().
class FakeTools {
public:
    // The tool directory as the driver wants it, ending in "/".
    std::string dir() const { return dir_.path() + "/"; }
    void install(const std::string& name) {
        std::string target = std::string(PP_SOURCE_DIR) + "/tests/fakes/dm/dm-fake-tool";
        symlink(target.c_str(), (dir() + name).c_str());
    }
    // call is the tool name, optionally followed by "." and its arguments joined by ".".
    void answer(const std::string& call, const std::string& out, int status = 0, const std::string& err = "") {
        writeFile(dir() + call + ".stdout", out);
        writeFile(dir() + call + ".status", std::to_string(status));
        if (err.empty()) {
            unlink((dir() + call + ".stderr").c_str());
        } else {
            writeFile(dir() + call + ".stderr", err);
        }
    }
    // The argument lines of every call of a tool, in order.
    std::vector<std::string> calls(const std::string& name) const { return splitLines(readFile(dir() + name + ".args")); }

private:
    TempDir dir_;
};

// Puts a directory first on PATH for the life of the object.
class PathPrefix {
public:
    explicit PathPrefix(const std::string& dir) : saved_(getenv("PATH") ? getenv("PATH") : "") {
        setenv("PATH", (dir + ":" + saved_).c_str(), 1);
    }
    ~PathPrefix() { setenv("PATH", saved_.c_str(), 1); }
    PathPrefix(const PathPrefix&) = delete;
    PathPrefix& operator=(const PathPrefix&) = delete;

private:
    std::string saved_;
};

// Traces every agent class into a temporary file; text() ends the trace and returns it.
class TraceCapture {
public:
    TraceCapture() : file_(dir_.path() + "/dm.trace") { active_ = initTrace(file_, "MAX", 1024) == 0; }
    ~TraceCapture() { stop(); }
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;
    std::string text() {
        stop();
        return readFile(file_);
    }

private:
    void stop() {
        if (active_) endTrace();
        active_ = false;
    }
    TempDir dir_;
    std::string file_;
    bool active_ = false;
};

// Publishes an activity log in a temporary file while the object lives.
class ActivityLogCapture {
public:
    ActivityLogCapture() : file_(dir_.path() + "/multipath.log"), log_(file_) {
        useBuiltCatalog();
        activityLog = &log_;
    }
    ~ActivityLogCapture() { activityLog = nullptr; }
    ActivityLogCapture(const ActivityLogCapture&) = delete;
    ActivityLogCapture& operator=(const ActivityLogCapture&) = delete;
    std::string text() const { return readFile(file_); }

private:
    TempDir dir_;
    std::string file_;
    LogManager log_;
};

}  // namespace dmtest

#endif
