// Thin file, directory and system calls that the agent makes instead of the C
// library's. Names may come wrapped in one pair of double quotes, which is removed.
// Each operation traces its entry and exit and reports failure by its result.
#ifndef COMMON_UNIX_PSNAUTIL_H
#define COMMON_UNIX_PSNAUTIL_H

#include <cstdint>
#include <string>
#include <vector>

// Removes one pair of enclosing double quotes (only from names longer than 2).
std::string psUnquote(const std::string& name);

bool psFileExist(const std::string& name);
bool psFileReadAccess(const std::string& name);
bool psFileExecAccess(const std::string& name);
// 0, or -1 when unlink fails.
int32_t psRemoveFile(const std::string& name);
int32_t psRemoveDirectory(const std::string& name);
int32_t psRemoveDirectoryTree(const std::string& dir);
bool psIsDirectoryEmpty(const std::string& dir);
int32_t psListDirectoryFiles(const std::string& dir, std::vector<std::string>* names);
int32_t psListDirectories(const std::string& dir, std::vector<std::string>* names);
int32_t psChdir(const std::string& dir);
int32_t psMkdir(const std::string& dir);
int32_t psOpen(const std::string& name, int flags);
int32_t psClose(int fd);
// 0 with *size set, or the failing stat result.
int32_t psFileSize(const std::string& name, int64_t* size);
// A new empty file from "/tmp/hkaXXXXXX" (suffix appended to the template when given).
std::string psGetTempFileName();
std::string psGetTempFileName(const std::string& suffix);

struct DiskSpaceInfo {
    uint64_t availableBytes;
    uint64_t totalBytes;
};
int32_t psGetDiskSpaceInfo(const std::string& path, DiskSpaceInfo* info);

void psSleep(uint32_t seconds);

#endif
