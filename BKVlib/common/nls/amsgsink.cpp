// The library's log sinks: the error log, the schedule log and the third log, each a
// log file record (plain, pruned by age, or wrapping). The error log is written under
// the NLS mutex; the schedule and third logs rely on their callers.
#include "BKVlib/common/nls/amsglog.h"

#include <cerrno>
#include <cstring>
#include <string>

#include "BKVlib/common/nls/amsgfmt.h"
#include "BKVlib/common/nls/amsgrtrv.h"
#include "BKVlib/common/thrd/pkthread.h"
#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/logutils.h"
#include "BKVlib/common/ut/trace.h"

namespace {

constexpr uint16_t kMsgLogWriteFailed = 250;
// Pruned entries of a log go beside it under its name with this suffix.
const char* const kPrunedSuffix = ".pruned";

struct Sink {
    LogFile log;
    bool open = false;
    bool lineEnded = true;  // the last text written ended with a newline
};

Sink gErrorLog;
Sink gSchedLog;
Sink gThirdLog;

int32_t openSink(Sink* sink, const char* path, uint32_t maxBytes, uint32_t retainDays, char pruneMode) {
    if (!path || !*path) return -1;
    nlCloseLog(sink == &gErrorLog ? NL_LOG_ERROR : sink == &gSchedLog ? NL_LOG_SCHED : NL_LOG_THIRD);
    std::string save = utBaseName(path) + kPrunedSuffix;
    utSetLogSettings(&sink->log, maxBytes, save.c_str(), retainDays, pruneMode, 0, 0);
    int32_t rc = utWrapFile(&sink->log, path, 0);
    sink->open = rc == 0;
    sink->lineEnded = true;
    TR_PRINTF(TR_NLS, "Library log %s %s\n", path, rc == 0 ? "opened" : "not opened");
    return rc;
}

bool endsWithNewline(const std::string& text) {
    return !text.empty() && text.back() == '\n';
}

int32_t writeLine(Sink* sink, const std::string& line) {
    return utLogWrite(&sink->log, line.data(), line.size());
}

// A third log that cannot be written is switched off and says so once.
int32_t thirdLogFailed() {
    int err = gThirdLog.log.lastErrno;
    std::string path = gThirdLog.log.path;
    utCloseLog(&gThirdLog.log);
    gThirdLog.open = false;
    char text[128];
    const char* errText = strerror_r(err, text, sizeof(text));
    nlIssue(kMsgLogWriteFailed, NL_NEWLINE | NL_ERRORLOG, errText, err, path.c_str());
    return RC_LOG_WRITE_FAILED;
}

}  // namespace

int32_t nlOpenLog(int32_t which, const char* path, uint32_t maxBytes) {
    NlsSettings settings = nlSettings();
    switch (which) {
        case NL_LOG_ERROR:
            return openSink(&gErrorLog, path, maxBytes, static_cast<uint32_t>(settings.errorLogRetain),
                            settings.errorLogPrune);
        case NL_LOG_SCHED:
            return openSink(&gSchedLog, path, maxBytes, static_cast<uint32_t>(settings.schedLogRetain),
                            settings.schedLogPrune);
        default:
            return openSink(&gThirdLog, path, maxBytes, kLogKeepForever, kLogPruneDiscard);
    }
}

void nlCloseLog(int32_t which) {
    Sink* sink = which == NL_LOG_ERROR ? &gErrorLog : which == NL_LOG_SCHED ? &gSchedLog : &gThirdLog;
    if (sink->open) utCloseLog(&sink->log);
    sink->open = false;
    sink->log = LogFile();
}

int32_t nlErrorLogWrite(const char* text) {
    if (!nlsStatus()) return RC_MISSING_ARG;
    MutexLock lock(nlsMutex());
    if (lock.status() != RC_OK) return RC_MISSING_ARG;
    if (!gErrorLog.open) return RC_OK;
    std::string line = utStampNow() + text;
    if (!endsWithNewline(line)) line += "\n";
    return writeLine(&gErrorLog, line) == 0 ? RC_OK : RC_LOG_WRITE_FAILED;
}

int32_t nlSchedLogWrite(const char* text) {
    if (!gSchedLog.open) return RC_OK;
    std::string body = text;
    std::string line = gSchedLog.lineEnded ? utStampNow() + body : body;
    gSchedLog.lineEnded = endsWithNewline(body);
    return writeLine(&gSchedLog, line) == 0 ? RC_OK : RC_LOG_WRITE_FAILED;
}

int32_t nlThirdLogWrite(const char* text) {
    if (!gThirdLog.open) return RC_OK;
    std::string body = text;
    if (endsWithNewline(body)) body.pop_back();
    return writeLine(&gThirdLog, utStampNow() + body + "\n") == 0 ? RC_OK : thirdLogFailed();
}

int32_t nlThirdLogWriteW(const wchar_t* text) {
    if (!gThirdLog.open) return RC_OK;
    nlsCharBuffer narrow;
    narrow.append(text, wcslen(text));
    return writeLine(&gThirdLog, utStampNow() + narrow.text() + "\n") == 0 ? RC_OK : thirdLogFailed();
}
