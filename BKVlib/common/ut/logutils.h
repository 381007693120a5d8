// Keeping the library's message logs within bounds: a log either is pruned by age
// (old entries cut from the front, optionally saved elsewhere) or wraps inside a fixed
// number of bytes behind a "LOGHEADERREC" header; the same code converts a log from one
// policy to the other.
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

#include "BKVlib/common/ut/datefmt.h"
#include "BKVlib/common/ut/logfile.h"
#include "BKVlib/common/ut/pathname.h"

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

#endif
