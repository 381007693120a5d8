// Helpers shared by the trace and thread tests: a private temporary directory,
// file reading, and a trace facility reset between tests.
#ifndef TESTS_BKVLIB_COMMON_UT_TRACETESTUTIL_H
#define TESTS_BKVLIB_COMMON_UT_TRACETESTUTIL_H

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "BKVlib/common/ut/trace.h"

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/trtestXXXXXX";
        path_ = mkdtemp(pattern) ? pattern : "";
    }
    ~TempDir() {
        std::string command = "rm -rf '" + path_ + "'";
        if (!path_.empty() && system(command.c_str()) != 0) {
        }
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline size_t countOf(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++count;
    return count;
}

// Ends whatever an earlier test left running and starts a fresh facility.
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
