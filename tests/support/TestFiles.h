// Files for tests: a private temporary directory removed with everything in it,
// and whole-file reads and writes.
#ifndef TESTS_SUPPORT_TESTFILES_H
#define TESTS_SUPPORT_TESTFILES_H

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace testfiles {

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline bool fileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// An executable shell script, for fake outside tools.
inline void writeScript(const std::string& path, const std::string& body) {
    writeFile(path, "#!/bin/sh\n" + body);
    chmod(path.c_str(), 0755);
}

inline std::vector<std::string> splitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// A file of the source tree's tests/ folder, such as captured tool output.
inline std::string testData(const std::string& relative) {
    return readFile(std::string(PP_TESTS_ROOT) + "/" + relative);
}

class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/pptestXXXXXX";
        path_ = mkdtemp(name) ? name : "";
    }
    ~TempDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// The exit code of the child pid, 1000 + the signal that ended it, or -1 when it cannot be waited for.
inline int exitCodeOf(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Runs body() in a forked child, which leaves with body's result; returns exitCodeOf the child.
template <typename Body>
int inChild(Body body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return exitCodeOf(pid);
}

}  // namespace testfiles

#endif
