// Minimal activity log; the library's log-file record (wrap settings, date and
// time formats) takes over behind these same calls.
#include "Common/LogManager.h"

#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"

LogManager::LogManager(const std::string& logName) : m_LogName(logName) {
    pkCreateMutex(&mutex_);
}

LogManager::~LogManager() {
    pkDestroyMutex(&mutex_);
}

int32_t LogManager::LogActivityLog(const char* msgBuf) {
    NA_TRACE(trFlags[TR_ENTER], "Enter %s, msgBuf : %s\n", "LogActivityLog()", NA_STR(msgBuf));
    if (m_LogName.empty()) {
        NA_TRACE_EXIT("Exit %s, m_LogName not defined.\n", "LogActivityLog()");
        return RC_LOG_NO_NAME;
    }
    MutexLock lock(mutex_);
    FILE* fp = fopen(m_LogName.c_str(), "ae");
    if (!fp) {
        NA_TRACE_EXIT("Exit: %s, could not open %s.\n", "LogActivityLog()", m_LogName.c_str());
        return RC_LOG_OPEN_FAILED;
    }
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char date[32], tod[32];
    strftime(date, sizeof(date), "%Y-%m-%d", &local);
    strftime(tod, sizeof(tod), "%H:%M:%S", &local);
    fprintf(fp, "%s %s.%03lu %s", date, tod, static_cast<unsigned long>(now.tv_usec / 1000), msgBuf);
    size_t len = strlen(msgBuf);
    if (len == 0 || msgBuf[len - 1] != '\n') fputc('\n', fp);
    CloseLogFile(fp);
    NA_TRACE_EXIT("Exit %s\n", "LogActivityLog()");
    return RC_OK;
}

void LogManager::setLogName(const std::string& newName) {
    MutexLock lock(mutex_);
    NA_TRACE_MID("Changing log from %s to %s\n", NA_STR(m_LogName), NA_STR(newName));
    m_LogName = newName;
}

int32_t LogManager::CloseLogFile(FILE* fp) {
    if (!fp) return RC_OK;
    int flushRc = fflush(fp);
    int closeRc = fclose(fp);
    return (flushRc == 0 && closeRc == 0) ? RC_OK : RC_LOG_CLOSE_FAILED;
}

void LogManager::getTimeStamp(char* buf, size_t size) {
    if (!buf || size < 20) return;
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(buf, size, "%Y-%m-%d %H:%M:%S", &local);
}
