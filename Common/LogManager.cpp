#include "Common/LogManager.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"

namespace {

// The activity log's policy, in the order of the settings operation: it never wraps,
// has no save file, is never pruned (the command line purges whole numbered files
// instead), drops what a pruner would cut ('D', 68), uses text modes and is not quiet.
constexpr uint32_t kWrapBytes = 0;
constexpr const char* kSaveName = nullptr;
constexpr uint32_t kRetentionDays = kLogKeepForever;
constexpr char kPruneMode = kLogPruneDiscard;
constexpr int32_t kBinaryModes = 0;
constexpr int32_t kQuiet = 0;

// Blank, full stop, three digits of milliseconds and blank around date and time.
constexpr size_t kStampExtra = 6;

// Other processes append to the same log. The look at its last byte and the append
// must not see half of one of their entries (a long write grows the file page by
// page), so both happen under an exclusive lock that every writer of the log takes.
// Where locks are not supported the entry is written anyway.
class ScopedFlock {
public:
    explicit ScopedFlock(FILE* stream) : fd_(stream ? fileno(stream) : -1) {
        while (fd_ >= 0 && flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~ScopedFlock() {
        if (fd_ >= 0) flock(fd_, LOCK_UN);
    }
    ScopedFlock(const ScopedFlock&) = delete;
    ScopedFlock& operator=(const ScopedFlock&) = delete;

private:
    int fd_;
};

// A run cut off in the middle of an entry (a full file system, a kill) leaves the
// log without its last line feed; the next entry must not be glued onto that half
// line. Only a plain log ends where the next entry goes.
bool endsMidLine(const LogFile& log) {
    char last = '\n';
    struct stat st;
    const int fd = log.stream ? fileno(log.stream) : -1;
    if (!log.wrapping && fd >= 0 && fstat(fd, &st) == 0 && st.st_size > 0) {
        if (pread(fd, &last, 1, st.st_size - 1) != 1) last = '\n';
    }
    return last != '\n';
}

}  // namespace

LogManager::LogManager(const std::string& logName) : m_LogName(logName) {
    pkCreateMutex(&mutex_);
}

LogManager::~LogManager() {
    pkDestroyMutex(&mutex_);
    utCloseLog(&control_);
}

int32_t LogManager::LogActivityLog(const char* msgBuf) {
    NA_TRACE(trFlags[TR_ENTER], "Enter %s, msgBuf : %s\n", "LogActivityLog()", NA_STR(msgBuf));
    if (m_LogName.empty()) {
        NA_TRACE_EXIT("Exit %s, m_LogName not defined.\n", "LogActivityLog()");
        return RC_LOG_NO_NAME;
    }
    int32_t rc = RC_OK;
    {
        MutexLock lock(mutex_);
        utSetLogSettings(&control_, kWrapBytes, kSaveName, kRetentionDays, kPruneMode, kBinaryModes, kQuiet);
        if (utWrapFile(&control_, m_LogName.c_str(), control_.quiet) != 0) {
            NA_TRACE_EXIT("Exit: %s, could not open %s.\n", "LogActivityLog()", m_LogName.c_str());
            rc = RC_LOG_OPEN_FAILED;
        } else {
            // A lost line must not stop the tool: the write and close results stay unused.
            {
                ScopedFlock entryLock(control_.stream);
                writeEntry(msgBuf);
            }
            CloseLogFile(control_.stream);
            control_.stream = nullptr;
            control_.wrapping = 0;
        }
    }
    if (rc == RC_OK) NA_TRACE_EXIT("Exit %s\n", "LogActivityLog()");
    return rc;
}

int32_t LogManager::writeEntry(const char* msgBuf) {
    if (!control_.stream) return RC_LOG_WRITE_FAILED;
    const char* message = msgBuf ? msgBuf : "";
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    localtime_r(&now.tv_sec, &local);
    char date[64];
    char tod[64];
    utFormatDate(&local, date, sizeof(date));
    utFormatTime(&local, tod, sizeof(tod));
    size_t msgLen = strlen(message);
    std::string entry;
    entry.reserve(strlen(date) + strlen(tod) + msgLen + kStampExtra + 2);
    if (endsMidLine(control_)) entry += '\n';
    char stamp[160];
    snprintf(stamp, sizeof(stamp), "%s %s.%03lu ", date, tod, static_cast<unsigned long>(now.tv_usec / 1000));
    entry.append(stamp).append(message, msgLen);
    if (msgLen == 0 || message[msgLen - 1] != '\n') entry += '\n';
    // One write for the whole line, so writers in other processes cannot split it.
    return utLogWrite(&control_, entry.data(), entry.size()) == 0 ? RC_OK : RC_LOG_WRITE_FAILED;
}

void LogManager::setLogName(const std::string& newName) {
    MutexLock lock(mutex_);
    NA_TRACE_MID("Changing log from %s to %s\n", NA_STR(m_LogName), NA_STR(newName));
    m_LogName = newName;
}

int32_t LogManager::CloseLogFile(FILE* fp) {
    if (!fp) return RC_OK;
    bool flushed = fflush(fp) == 0;
    bool closed = fclose(fp) == 0;
    return flushed && closed ? RC_OK : RC_LOG_CLOSE_FAILED;
}

void LogManager::getTimeStamp(char* buf, size_t size) {
    if (!buf || size < 20) return;
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(buf, size, "%Y-%m-%d %H:%M:%S", &local);
}
