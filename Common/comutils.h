// Thin file, directory and system queries that the agent calls instead of the C
// library. Names may come wrapped in one pair of double quotes, which is removed.
// Each operation traces its entry and exit and reports failure by its result.
#ifndef COMMON_COMUTILS_H
#define COMMON_COMUTILS_H

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
int32_t psCopyDirectoryTree(const std::string& from, const std::string& to);
int32_t copyFile(const std::string& from, const std::string& to);
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

bool isKernel26OrGreater(const std::string& release);
struct OsVersion {
    int32_t major;
    int32_t minor;
    int32_t level;
};
OsVersion getOsVersion();
// "qlxna.cat"
std::string getMessageCatalogName();
// The agent directory under the installation location: "/opt/ZOR/QLX/agent".
std::string getInstallLocation();
// Full path of a program found along PATH, or empty.
std::string psFindExecutable(const std::string& program);
void psSleep(uint32_t seconds);
void psToUpper(std::string* text);
void psToLower(std::string* text);
void psToUpper(char* text);
void psToLower(char* text);
std::string& psTrim(std::string& text);
// The words joined by single blanks, in order.
std::string joinWords(const std::vector<std::string>& words);
std::string psHexText(const unsigned char* data, size_t length);

#endif
