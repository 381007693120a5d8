#include "BKVlib/common/ut/logfile.h"

#include <cerrno>
#include <cstring>

#include "BKVlib/common/ut/ownedfile.h"
#include "BKVlib/common/ut/trace.h"

std::string utLogErrText(int err) {
    char buf[128];
    return strerror_r(err, buf, sizeof(buf));
}

void utLogRollBack(AppendFile* save) {
    if (!save->rollBack()) TR_PRINTF(TR_ERROR, "Couldn't roll back <%s>. errno = %d\n", save->path().c_str(), errno);
}

int32_t utLogFail(LogFile* log, int err) {
    log->lastErrno = err;
    log->failed = 1;
    return -1;
}

int32_t utLogWriteFailed(LogFile* log) {
    int err = errno;
    TR_PRINTF(TR_ERROR, "error writing to log file.\nerrno = %d, %s\n", err, utLogErrText(err).c_str());
    return utLogFail(log, err);
}

bool utLogPut(FILE* out, const char* text, size_t length) {
    return length == 0 || fwrite(text, 1, length, out) == length;
}

const char* utLogModeAppend(const LogFile* log) { return log->binaryModes ? "abe" : "ae"; }
const char* utLogModeRead(const LogFile* log) { return log->binaryModes ? "rbe" : "re"; }
const char* utLogModeUpdate(const LogFile* log) { return log->binaryModes ? "rb+e" : "r+e"; }
