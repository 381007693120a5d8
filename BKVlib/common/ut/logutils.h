// Keeping the library's message logs within bounds: a log either is pruned by age
// (old entries cut from the front, optionally saved elsewhere) or wraps inside a fixed
// number of bytes behind a "LOGHEADERREC" header; the same code converts a log from one
// policy to the other. Also the process-wide date and time formats that stamp and parse
// log entries.
//
// A LogFile is not guarded: its owner serialises every call on one record (the activity
// log holds its own mutex, the error log the NLS mutex). Every file is opened
// close-on-exec. A failed conversion or prune leaves the log as it was: new contents are
// written into a temporary file in the log's directory and renamed over the log.
//
// Library messages issued here (all with NL_NEWLINE | NL_ERRORLOG, never towards the
// activity log, so a caller may hold its log mutex), inserts in this order:
//   232 progress count (unsigned long)
//   233, 234 converting to a wrapping / plain log: path (const char*)
//   264, 265, 267 cannot open the log / write error / cannot open the save or temporary
//   file: path (const char*), errno (int), error text (const char*)
#ifndef BKVLIB_COMMON_UT_LOGUTILS_H
#define BKVLIB_COMMON_UT_LOGUTILS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>

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

// The settings operation, in this order: wrap size in bytes (0 = plain log), save file
// name (null or empty = none), retention days (kLogKeepForever = no pruning), prune
// mode (kLogPruneSave or another character), binary modes, quiet. Takes effect at the
// next utWrapFile.
void utSetLogSettings(LogFile* log, uint32_t maxBytes, const char* saveName, uint32_t retentionDays,
                      char pruneMode, int32_t binaryModes, int32_t quiet);

// Opens path under the record's policy, creating it when missing, converting between
// plain and wrapping or pruning as needed. On 0 log->stream is open: a plain log for
// appending, unbuffered; a wrapping log for update, positioned at nextWrite. On -1 the
// stream is closed, lastErrno is set and the file is as it was. A file whose header
// names an offset it cannot hold is refused (-1, EINVAL) and left alone.
int32_t utWrapFile(LogFile* log, const char* path, int32_t quiet);

// Cuts entries older than retentionDays from the front of the log at path. *stream
// (the log's stream, may be null) is closed first and set to null. Pruned entries are
// appended to saveName's last component in the log's directory when saveName is not
// null or empty. Uses the temporary file "kfwprune.log" in the log's directory.
// Returns 0 or -1 (log unchanged, nothing added to the save file).
int32_t utPruneLog(LogFile* log, const char* path, const char* saveName, FILE** stream,
                   uint32_t retentionDays);

// Before an entry of length bytes goes into a wrapping log: wraps to just after the
// header when the entry would not fit, padding the file to exactly maxBytes, and leaves
// the stream at nextWrite. 0, or -1 on a write error. Does nothing for a plain log.
int32_t utWrapCheck(LogFile* log, uint32_t length);

// After an entry went into a wrapping log: records the position in the header and
// writes the end-of-data marker there. 0 or -1. Does nothing for a plain log.
int32_t utSetNextWrite(LogFile* log);

// Writes one entry of length bytes with a single write: utWrapCheck, the text, flush,
// utSetNextWrite. 0, or -1 with lastErrno set (also when no stream is open).
int32_t utLogWrite(LogFile* log, const char* text, size_t length);

// Closes the stream (if any); 0, or -1 when the flush or close failed.
int32_t utCloseLog(LogFile* log);

// Removes path when it is a regular file of fewer than 10 bytes. 0 (removed or kept),
// -1 when the removal failed.
int32_t utRemoveIfEmpty(const char* path);

// The directory part of path ("." when it has none, "/" for a name in the root) and
// the part after the last "/".
std::string utDirName(const std::string& path);
std::string utBaseName(const std::string& path);

// A header line taken apart.
struct LogHeader {
    int32_t present = 0;      // the line starts with "LOGHEADERREC"
    int32_t valid = 0;        // the next-write offset could be read
    uint32_t nextWrite = 0;
    int32_t hasMax = 0;       // the recorded maximum could be read as well
    uint32_t maxBytes = 0;
};
// Parses the first line of a log (length bytes, no terminator needed).
LogHeader utParseLogHeader(const char* line, size_t length);
// The full header of a wrapping log: its line and the blank line after it.
std::string utFormatLogHeader(uint32_t nextWrite, uint32_t maxBytes);

// ---- Date and time formats (process-wide; set once at start, before threads) ----
// Date settings: 0 the locale's format when usable, else "%m/%d/%Y"; 1 "%m/%d/%Y";
// 2 "%d-%m-%Y"; 3 "%Y-%m-%d"; 4 "%d.%m.%Y"; 5 "%Y.%m.%d"; others leave it unchanged.
// Time settings: 0 the locale's format when usable, else "%H:%M:%S", with the locale's
// AM/PM words (at most 5 characters); 1 "%H:%M:%S"; 2 "%H,%M,%S"; 3 "%H.%M.%S";
// 4 "%I:%M:%S%p" with "AM"/"PM"; others leave it unchanged.
// The agent's choice, date 3 and time 1, is also the setting before any call.
void utSetDateFormat(int32_t setting);
void utSetTimeFormat(int32_t setting);
const char* utDateFormat();
const char* utTimeFormat();
// Third character of the current format.
char utDateSeparator();
char utTimeSeparator();
// A locale format is usable when its directives are only d, m, y, Y (date) or
// H, I, M, S, p (time).
bool utDateFormatUsable(const char* format);
bool utTimeFormatUsable(const char* format);

// Format when in the current date or time format; return the length written, 0 when
// buf is null or too small (buf then holds "").
size_t utFormatDate(const struct tm* when, char* buf, size_t size);
size_t utFormatTime(const struct tm* when, char* buf, size_t size);
// "date time " of the wall clock now, in the current formats: the stamp in front of a
// library log line or a stamped console message.
std::string utStampNow();
// Parses a date in the current date format from the first length characters of text
// (characters behind the date are ignored). Fills tm_year, tm_mon and tm_mday of
// *date. 0, or -1 when the text is not a real date in that format.
int32_t utParseDate(const char* text, size_t length, struct tm* date);
// Calendar days from *from to *to (negative when to is earlier); uses year, month, day.
int64_t utDaysBetween(const struct tm* from, const struct tm* to);
// Today's local date by the library clock.
void utToday(struct tm* today);
// The clock the pruner reads (time by default); returns the previous one. For tests.
typedef time_t (*UtClock)();
UtClock utSetClock(UtClock clock);

#endif
