// The process-wide activity log: one time-stamped line per call, the file opened
// and closed around every line under the log's mutex, so the file may be moved,
// pruned or removed between lines and writers in one process never interleave.
#ifndef COMMON_LOGMANAGER_H
#define COMMON_LOGMANAGER_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/ut/logutils.h"

class LogManager {
public:
    explicit LogManager(const std::string& logName);
    ~LogManager();
    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

    // Appends "<date> <time>.<ms> <msgBuf>" and a newline unless msgBuf ends in one:
    // RC_OK (also when the write itself failed), RC_LOG_NO_NAME (no name) or
    // RC_LOG_OPEN_FAILED. A null msgBuf is an empty message. A log that does not end
    // in a newline (a run cut off mid-entry) gets one first. Takes the mutex, and an
    // exclusive flock on the file while it looks at the end and appends.
    int32_t LogActivityLog(const char* msgBuf);
    // Later lines go to newName; nothing is copied or closed. Takes the mutex.
    void setLogName(const std::string& newName);
    // Flushes and closes fp: RC_OK or RC_LOG_CLOSE_FAILED; a null fp does nothing.
    static int32_t CloseLogFile(FILE* fp);
    // Local time now as "%Y-%m-%d %H:%M:%S"; needs buf and size >= 20.
    static void getTimeStamp(char* buf, size_t size);

    const std::string& logName() const { return m_LogName; }

private:
    // Writes the entry to the open control block: RC_OK or RC_LOG_WRITE_FAILED.
    int32_t writeEntry(const char* msgBuf);

    std::string m_LogName;
    LogFile control_;              // open only while one line is written
    MutexHandle mutex_ = nullptr;  // guards m_LogName, control_ and every write
};

#endif
