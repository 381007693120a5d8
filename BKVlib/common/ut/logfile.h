// The log file record the library keeps for each managed log, and the small pieces
// shared by the code that writes, prunes and converts such a log.
#ifndef BKVLIB_COMMON_UT_LOGFILE_H
#define BKVLIB_COMMON_UT_LOGFILE_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

class AppendFile;

// Retention that keeps entries for ever: the pruner never touches such a log.
constexpr uint32_t kLogKeepForever = 10000;
// pruneMode value that appends pruned entries to the save file; anything else drops them.
constexpr char kLogPruneSave = 'S';
constexpr char kLogPruneDiscard = 'D';

// Catalogue numbers and texts of the two marker lines of a wrapping log. They are
// fixed here rather than read from the catalogue, so that a log written under one
// language can still be read and converted under another.
constexpr uint16_t kLogEndMarkerMsg = 268;
constexpr const char* kLogEndMarker = "-------- END OF DATA --------";
constexpr uint16_t kLogWrapMarkerMsg = 269;
constexpr const char* kLogWrapMarker = "-------- LOG WRAPPED --------";

// The log file record: one per managed log.
struct LogFile {
    std::string path;              // the log file, up to 1024 characters
    uint32_t headerLen = 0;        // bytes of the header line with its newline
    uint32_t maxBytes = 0;         // wrap size; 0: the log does not wrap
    int32_t wrapping = 0;          // 1 while the open log is a wrapping log
    uint32_t nextWrite = 0;        // where the next entry goes in a wrapping log
    std::string saveName;          // pruned entries; no "/" means the log's directory
    uint32_t retentionDays = kLogKeepForever;
    char pruneMode = kLogPruneDiscard;
    int32_t binaryModes = 0;       // 1: "ab"/"wb+" instead of "a"/"w+"
    int32_t quiet = 0;             // 1: no conversion messages (233, 234) when opened
    FILE* stream = nullptr;        // the open log, owned by the record
    int32_t lastErrno = 0;         // errno of the last failed operation
    int32_t failed = 0;            // 1 after a failed operation
};

constexpr const char* kLogHeaderTag = "LOGHEADERREC";
constexpr size_t kLogHeaderTagLen = 12;
constexpr size_t kLogMaxHeaderLine = 4095;
// Characters of the date that starts every entry of a plain log.
constexpr size_t kLogDateTextLen = 10;

// The text of errno value err.
std::string utLogErrText(int err);

// Records err as the log's last error; returns -1 for the caller to pass on.
int32_t utLogFail(LogFile* log, int err);
// utLogFail with errno after a failed write to the log, traced.
int32_t utLogWriteFailed(LogFile* log);
// Puts a save file back to its size at opening; a failure is only traced, because the
// log itself is intact.
void utLogRollBack(AppendFile* save);
// Writes length bytes of text (none is fine); false on a short write.
bool utLogPut(FILE* out, const char* text, size_t length);

// fopen modes under the record's binary setting, all close-on-exec.
const char* utLogModeAppend(const LogFile* log);
const char* utLogModeRead(const LogFile* log);
const char* utLogModeUpdate(const LogFile* log);

#endif
