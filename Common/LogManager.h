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

class LogManager {
public:
    explicit LogManager(const std::string& logName);
    ~LogManager();
    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

    // Appends one line: RC_OK, RC_LOG_NO_NAME (no name) or RC_LOG_OPEN_FAILED.
    int32_t LogActivityLog(const char* msgBuf);
    // Later lines go to newName; nothing is copied or closed. Takes the mutex.
    void setLogName(const std::string& newName);
    // Flushes and closes fp: RC_OK or RC_LOG_CLOSE_FAILED; a null fp does nothing.
    static int32_t CloseLogFile(FILE* fp);
    // Local time now as "%Y-%m-%d %H:%M:%S"; needs buf and size >= 20.
    static void getTimeStamp(char* buf, size_t size);

    const std::string& logName() const { return m_LogName; }

private:
    std::string m_LogName;
    MutexHandle mutex_ = nullptr;  // guards m_LogName and every write
};

#endif
