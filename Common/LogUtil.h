// Numbered log files ("<prefix>_NNNNNN<ext>"): choosing the next name under a size
// limit and purging old files by count and age. Called at start-up only; unlocked.
#ifndef COMMON_LOGUTIL_H
#define COMMON_LOGUTIL_H

#include <cstdint>
#include <map>
#include <string>

struct LogPurgeSettings {
    int32_t countLimitAged = 0;   // files kept when purging with the age rule
    int32_t countLimitPlain = 0;  // files kept when purging without it
    int32_t maxDays = 0;          // age limit in days (age rule, when > 0)
    int32_t maxSize = 0;          // size limit of one file in KB
    bool newLogStarted = false;   // set when getNextLogName chose a new number
};

// Returns prefix + "_" + "%06d" + ext (no directory).
std::string getNextLogName(LogPurgeSettings& settings, const std::string& dir, const std::string& prefix,
                           const std::string& ext, bool checkSize);
void purgeLogFiles(const LogPurgeSettings& settings, std::map<int32_t, std::string>& files, bool useAge);
std::map<int32_t, std::string> getMatchingFilesMap(const std::string& dir, const std::string& component,
                                                   const std::string& ext);
std::map<int32_t, std::string> getMatchingFilesMap(const std::string& dir, const std::string& jobName,
                                                   int32_t runNum, const std::string& component);

#endif
