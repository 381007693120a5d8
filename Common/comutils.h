// Portable helpers of the agent: file copies, system and installation facts, text
// case and trimming. The platform's file and directory calls are in
// Common/unix/psnautil.h. Each operation traces its entry and exit where it can fail.
#ifndef COMMON_COMUTILS_H
#define COMMON_COMUTILS_H

#include <cstdint>
#include <string>
#include <vector>

int32_t psCopyDirectoryTree(const std::string& from, const std::string& to);
int32_t copyFile(const std::string& from, const std::string& to);

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
void psToUpper(std::string* text);
void psToLower(std::string* text);
void psToUpper(char* text);
void psToLower(char* text);
std::string& psTrim(std::string& text);
// The words joined by single blanks, in order.
std::string joinWords(const std::vector<std::string>& words);
std::string psHexText(const unsigned char* data, size_t length);

#endif
