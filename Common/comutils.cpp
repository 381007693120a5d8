// Portable helpers of the agent: copying, the kernel release test, the install
// location, executable search and small text utilities.
#include "Common/comutils.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/logutils.h"
#include "Common/AgentTrace.h"
#include "Common/unix/ScopedFd.h"
#include "Common/unix/psnautil.h"

namespace {

const char kInstallLocation[] = "/opt/ZOR/QLX";
const char kAgentDirectory[] = "agent";
const size_t kCopyBlock = 65536;

// Creates every missing directory of path.
bool makePath(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    if (path != "/" && !makePath(utDirName(path))) return false;
    return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

// Copies every block from one descriptor to the other.
int32_t copyBlocks(int in, int out, const std::string& from, const std::string& to) {
    std::vector<char> block(kCopyBlock);
    while (true) {
        ssize_t got = read(in, block.data(), block.size());
        if (got == 0) return RC_OK;
        if (got < 0) {
            if (errno == EINTR) continue;
            NA_TRACE_MIN("Read from %s failed\n", NA_STR(from));
            return -1;
        }
        for (ssize_t done = 0; done < got;) {
            ssize_t put = write(out, block.data() + done, static_cast<size_t>(got - done));
            if (put < 0 && errno == EINTR) continue;
            if (put <= 0) {
                NA_TRACE_MIN("Write to %s\n failed\n", NA_STR(to));
                return -1;
            }
            done += put;
        }
    }
}

}  // namespace

int32_t copyFile(const std::string& fromName, const std::string& toName) {
    NA_TRACE_ENTER("copyFile()");
    std::string from = psUnquote(fromName), to = psUnquote(toName);
    int32_t rc = RC_OK;
    if (from.empty() || to.empty()) {
        NA_TRACE_MIN("missing file name to copy\n");
        rc = -1;
    } else if (from[0] != '/' || to[0] != '/') {
        NA_TRACE_MIN("file does not specify a full path name: %s\n", NA_STR(from[0] != '/' ? from : to));
        rc = -1;
    } else if (!makePath(utDirName(to))) {
        NA_TRACE_MIN("Unable to create path %s\n", NA_STR(utDirName(to)));
        rc = -1;
    }
    if (rc == RC_OK) {
        NA_TRACE_MAX("Copying %s to %s\n", NA_STR(from), NA_STR(to));
        ScopedFd in(open(from.c_str(), O_RDONLY | O_CLOEXEC));
        ScopedFd out(in.get() < 0 ? -1 : open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (in.get() < 0 || out.get() < 0) {
            NA_TRACE_MIN("Unable to open %s\n", NA_STR(in.get() < 0 ? from : to));
            rc = -1;
        } else {
            rc = copyBlocks(in.get(), out.get(), from, to);
            if (out.close() != 0 && rc == RC_OK) rc = -1;
        }
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "copyFile()", rc);
    return rc;
}

int32_t psCopyDirectoryTree(const std::string& fromDir, const std::string& toDir) {
    NA_TRACE_ENTER("psCopyDirectoryTree()");
    std::string from = psUnquote(fromDir), to = psUnquote(toDir);
    NA_TRACE_MAX("copying directory %s to %s \n", NA_STR(from), NA_STR(to));
    int32_t rc = RC_OK;
    std::vector<std::string> files, dirs;
    if (!makePath(to)) {
        NA_TRACE_MIN("Unable to create path %s\n", NA_STR(to));
        rc = -1;
    } else if (psListDirectoryFiles(from, &files) != RC_OK || psListDirectories(from, &dirs) != RC_OK) {
        rc = -1;
    }
    for (size_t i = 0; rc == RC_OK && i < files.size(); ++i) {
        if (copyFile(from + "/" + files[i], to + "/" + files[i]) != RC_OK) {
            NA_TRACE_MIN("Copy %s to %s failed\n", NA_STR(from + "/" + files[i]), NA_STR(to + "/" + files[i]));
            rc = -1;
        }
    }
    for (size_t i = 0; rc == RC_OK && i < dirs.size(); ++i) {
        rc = psCopyDirectoryTree(from + "/" + dirs[i], to + "/" + dirs[i]);
    }
    if (rc != RC_OK) NA_TRACE_MIN("psCopyDirectoryTree: error %d\n", rc);
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psCopyDirectoryTree()", rc);
    return rc;
}

bool isKernel26OrGreater(const std::string& release) {
    NA_TRACE_ENTER("isKernel26OrGreater()");
    int major = 0, minor = 0;
    std::string::size_type dot = release.find('.');
    major = atoi(release.substr(0, dot).c_str());
    if (dot != std::string::npos) minor = atoi(release.substr(dot + 1).c_str());
    NA_TRACE_MID("Linux kernel %d.%d\n", major, minor);
    bool newer = major >= 3 || (major == 2 && minor > 5);
    NA_TRACE_EXIT("Exit: %s, rc = %s\n", "isKernel26OrGreater()", newer ? "TRUE" : "FALSE");
    return newer;
}

OsVersion getOsVersion() {
    return OsVersion{0, 0, 0};
}

std::string getMessageCatalogName() {
    return std::string("qlxna") + ".cat";
}

std::string getInstallLocation() {
    NA_TRACE_ENTER("getInstallLocation()");
    std::string dir = std::string(kInstallLocation) + "/" + kAgentDirectory;
    struct stat st;
    // A host where the agent is not installed has no installation location at all.
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) dir.clear();
    NA_TRACE_EXIT("Exit: %s, installLoc = %s\n", "getInstallLocation()", NA_STR(dir));
    return dir;
}

std::string psFindExecutable(const std::string& program) {
    NA_TRACE_ENTER("psFindExecutable()");
    std::string found;
    auto usable = [](const std::string& path) {
        struct stat st;
        return access(path.c_str(), X_OK) == 0 && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    };
    if (program.find('/') != std::string::npos) {
        if (usable(program)) found = program;
    } else if (const char* path = getenv("PATH")) {
        std::string dirs = path;
        for (std::string::size_type start = 0; found.empty() && start <= dirs.size();) {
            std::string::size_type colon = dirs.find(':', start);
            std::string dir = dirs.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
            std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + program;
            if (usable(candidate)) found = candidate;
            if (colon == std::string::npos) break;
            start = colon + 1;
        }
    }
    NA_TRACE_EXIT("Exit: %s, path = %s\n", "psFindExecutable()", NA_STR(found));
    return found;
}

void psToUpper(std::string* text) {
    for (char& c : *text) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
}

void psToLower(std::string* text) {
    for (char& c : *text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
}

void psToUpper(char* text) {
    for (; text && *text; ++text) *text = static_cast<char>(toupper(static_cast<unsigned char>(*text)));
}

void psToLower(char* text) {
    for (; text && *text; ++text) *text = static_cast<char>(tolower(static_cast<unsigned char>(*text)));
}

std::string& psTrim(std::string& text) {
    const char* blanks = "\t\n\r\f ";
    std::string::size_type last = text.find_last_not_of(blanks);
    text.erase(last == std::string::npos ? 0 : last + 1);
    text.erase(0, text.find_first_not_of(blanks) == std::string::npos ? text.size() : text.find_first_not_of(blanks));
    return text;
}

std::string joinWords(const std::vector<std::string>& words) {
    std::string text;
    for (size_t i = 0; i < words.size(); ++i) {
        if (i > 0) text += ' ';
        text += words[i];
    }
    return text;
}

std::string psHexText(const unsigned char* data, size_t length) {
    std::string text;
    char pair[3];
    for (size_t i = 0; i < length; ++i) {
        snprintf(pair, sizeof(pair), "%02x", data[i]);
        text += pair;
    }
    return text;
}
