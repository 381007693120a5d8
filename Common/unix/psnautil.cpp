// The platform primitives of the file utilities: each one unquotes its names,
// calls the C library once, and reports failure through its result and a trace.
#include "Common/unix/psnautil.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"

namespace {

const char kTempTemplate[] = "/tmp/hkaXXXXXX";

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};
typedef std::unique_ptr<DIR, DirCloser> DirPtr;

bool isDirectory(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isDotEntry(const char* name) {
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Collects the entries of dir that pass keep(fullPath), skipping "." and "..".
template <typename Keep>
int32_t listEntries(const std::string& dir, std::vector<std::string>* names, Keep keep) {
    DirPtr handle(opendir(psUnquote(dir).c_str()));
    if (!handle) return -1;
    while (struct dirent* entry = readdir(handle.get())) {
        if (isDotEntry(entry->d_name)) continue;
        if (keep(psUnquote(dir) + "/" + entry->d_name)) names->push_back(entry->d_name);
    }
    return RC_OK;
}

}  // namespace

std::string psUnquote(const std::string& name) {
    if (name.size() > 2 && name.front() == '"' && name.back() == '"') return name.substr(1, name.size() - 2);
    return name;
}

bool psFileExist(const std::string& name) {
    NA_TRACE_ENTER("psFileExist()");
    std::string path = psUnquote(name);
    bool exists = access(path.c_str(), F_OK) == 0;
    if (exists) {
        NA_TRACE_MAX("File %s exists\n", NA_STR(path));
    } else {
        NA_TRACE_MAX("Files %s does not exists\n", NA_STR(path));
    }
    NA_TRACE_EXIT("Exit: %s\n", "psFileExist()");
    return exists;
}

bool psFileReadAccess(const std::string& name) {
    NA_TRACE_ENTER("psFileReadAccess()");
    bool ok = access(psUnquote(name).c_str(), R_OK) == 0;
    NA_TRACE_EXIT("Exit: %s, rc = %s\n", "psFileReadAccess()", ok ? "true" : "false");
    return ok;
}

bool psFileExecAccess(const std::string& name) {
    NA_TRACE_ENTER("psFileExecAccess()");
    bool ok = access(psUnquote(name).c_str(), X_OK) == 0;
    NA_TRACE_EXIT("Exit: %s, rc = %s\n", "psFileExecAccess()", ok ? "true" : "false");
    return ok;
}

int32_t psRemoveFile(const std::string& name) {
    std::string path = psUnquote(name);
    NA_TRACE(trFlags[TR_ENTER], "Enter: %s - %s\n", "psRemoveFile()", NA_STR(path));
    int32_t rc = unlink(path.c_str()) == 0 ? RC_OK : -1;
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psRemoveFile()", rc);
    return rc;
}

int32_t psRemoveDirectory(const std::string& name) {
    NA_TRACE_ENTER("psRemoveDirectory()");
    int32_t rc = rmdir(psUnquote(name).c_str());
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psRemoveDirectory()", rc);
    return rc;
}

int32_t psRemoveDirectoryTree(const std::string& dir) {
    NA_TRACE_ENTER("psRemoveDirectoryTree()");
    std::string root = psUnquote(dir);
    int32_t rc = RC_OK;
    DirPtr handle(opendir(root.c_str()));
    if (!handle) {
        rc = errno;
        NA_TRACE_MIN("Error accessing %s, rc = %d", NA_STR(root), rc);
    }
    while (handle && rc == RC_OK) {
        struct dirent* entry = readdir(handle.get());
        if (!entry) break;
        if (isDotEntry(entry->d_name)) continue;
        std::string path = root + "/" + entry->d_name;
        struct stat st;
        if (lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            rc = psRemoveDirectoryTree(path);
        } else if (unlink(path.c_str()) != 0) {
            NA_TRACE_MIN("Unable to remove: %s\n", NA_STR(path));
            rc = errno;
        }
    }
    handle.reset();
    if (rc == RC_OK && rmdir(root.c_str()) != 0) {
        rc = errno;
        NA_TRACE_MIN("psFileRemoveDir: error %d\n", rc);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psRemoveDirectoryTree()", rc);
    return rc;
}

bool psIsDirectoryEmpty(const std::string& dir) {
    NA_TRACE_ENTER("psIsDirectoryEmpty()");
    std::vector<std::string> names;
    listEntries(dir, &names, [](const std::string&) { return true; });
    bool empty = names.empty();
    if (!empty) NA_TRACE_MAX("Directory %s is not empty\n", NA_STR(psUnquote(dir)));
    NA_TRACE_EXIT("Exit: %s, rc = %s\n", "psIsDirectoryEmpty()", empty ? "true" : "false");
    return empty;
}

int32_t psListDirectoryFiles(const std::string& dir, std::vector<std::string>* names) {
    NA_TRACE_ENTER("psListDirectoryFiles()");
    int32_t rc = listEntries(dir, names, [](const std::string& path) {
        struct stat st;
        return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
    });
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psListDirectoryFiles()", rc);
    return rc;
}

int32_t psListDirectories(const std::string& dir, std::vector<std::string>* names) {
    NA_TRACE_ENTER("psListDirectories()");
    int32_t rc = listEntries(dir, names, isDirectory);
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psListDirectories()", rc);
    return rc;
}

int32_t psChdir(const std::string& dir) {
    NA_TRACE_ENTER("psChdir()");
    int32_t rc = chdir(psUnquote(dir).c_str());
    if (rc != 0) {
        NA_TRACE_MIN("Unable to chdir to %s\n", NA_STR(dir));
    } else {
        NA_TRACE_MAX("successfully chdir to %s\n", NA_STR(dir));
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psChdir()", rc);
    return rc;
}

int32_t psMkdir(const std::string& dir) {
    NA_TRACE_ENTER("psMkdir()");
    int32_t rc = mkdir(psUnquote(dir).c_str(), 0755);
    if (rc != 0) {
        NA_TRACE_MIN("Unable to create dir %s\n", NA_STR(dir));
    } else {
        NA_TRACE_MAX("Created dir %s\n", NA_STR(dir));
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psMkdir()", rc);
    return rc;
}

int32_t psOpen(const std::string& name, int flags) {
    NA_TRACE_ENTER("psOpen()");
    int32_t fd = open(psUnquote(name).c_str(), flags | O_CLOEXEC, 0600);
    if (fd < 0) NA_TRACE_MIN("psOpen( %s) failed, %s\n", NA_STR(name), strerror(errno));
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psOpen()", fd);
    return fd;
}

int32_t psClose(int fd) {
    NA_TRACE_ENTER("psClose()");
    int32_t rc = close(fd);
    if (rc != 0) NA_TRACE_MIN("psClose( %d) failed, %s\n", fd, strerror(errno));
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psClose()", rc);
    return rc;
}

int32_t psFileSize(const std::string& name, int64_t* size) {
    NA_TRACE_ENTER("psFileSize()");
    struct stat st;
    int32_t rc = stat(psUnquote(name).c_str(), &st);
    if (rc == 0) *size = static_cast<int64_t>(st.st_size);
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psFileSize()", rc);
    return rc;
}

std::string psGetTempFileName(const std::string& suffix) {
    NA_TRACE_ENTER("psGetTempFileName()");
    std::string name = std::string(kTempTemplate) + suffix;
    std::vector<char> buf(name.begin(), name.end());
    buf.push_back('\0');
    int fd = suffix.empty() ? mkostemp(buf.data(), O_CLOEXEC)
                            : mkostemps(buf.data(), static_cast<int>(suffix.size()), O_CLOEXEC);
    if (fd >= 0) close(fd);
    name = buf.data();
    NA_TRACE_MAX("name: %s\n", NA_STR(name));
    NA_TRACE_EXIT("Exit: %s\n", "psGetTempFileName()");
    return name;
}

std::string psGetTempFileName() {
    return psGetTempFileName(std::string());
}

int32_t psGetDiskSpaceInfo(const std::string& path, DiskSpaceInfo* info) {
    NA_TRACE_ENTER("psGetDiskSpaceInfo()");
    NA_TRACE_MAX("Calling statvfs( %s )\n", NA_STR(path));
    struct statvfs vfsBuf;
    int32_t rc = statvfs(psUnquote(path).c_str(), &vfsBuf);
    if (rc != 0) {
        rc = errno;
        NA_TRACE_MIN("statvfs( %s ) failed, errno = %d\n", NA_STR(path), rc);
    } else {
        NA_TRACE_MAX("statvfs() was successful.\n  vfsBuf.f_bavail: %u\n  vfsBuf.f_frsize: %u\n"
                     "  vfsBuf.f_blocks: %u\n  vfsBuf.f_bfree : %u\n",
                     static_cast<unsigned>(vfsBuf.f_bavail), static_cast<unsigned>(vfsBuf.f_frsize),
                     static_cast<unsigned>(vfsBuf.f_blocks), static_cast<unsigned>(vfsBuf.f_bfree));
        info->availableBytes = static_cast<uint64_t>(vfsBuf.f_bavail) * vfsBuf.f_frsize;
        info->totalBytes = static_cast<uint64_t>(vfsBuf.f_blocks) * vfsBuf.f_frsize;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psGetDiskSpaceInfo()", rc);
    return rc;
}

void psSleep(uint32_t seconds) {
    NA_TRACE_ENTER("psSleep()");
    sleep(seconds);
    NA_TRACE_EXIT("Exit: %s\n", "psSleep()");
}
