#include "Common/AgentTrace.h"

#include <pthread.h>
#include <sys/stat.h>

#include <cerrno>

#include "BKVlib/common/ut/ReturnCodes.h"

unsigned char naTraceMin;
unsigned char naTraceMid;
unsigned char naTraceMax;

const TraceClass naTraceClasses[] = {
    {"NA_MIN", &naTraceMin, 0},
    {"NA_MID", &naTraceMid, 0},
    {"NA_MAX", &naTraceMax, 0},
    {"NA_ENTER", &trFlags[TR_ENTER], 0},
    {"NA_EXIT", &trFlags[TR_EXIT], 0},
    {nullptr, nullptr, 0},
};

const TraceAggregate naTraceAggregates[] = {
    {"MIN", "NA_MIN"},
    {"MID", "NA_MIN NA_MID"},
    {"MAX", "NA_ENTER NA_EXIT NA_MIN NA_MID NA_MAX"},
    {nullptr, nullptr},
};

TraceText::TraceText(const std::string& text)
    : text_(text.empty() ? std::string("<NULL>") : text.substr(0, kMaxTraceArg)) {}

TraceText::TraceText(const char* text) : TraceText(std::string(text ? text : "")) {}

const char* naCutInPlace(std::string& text) {
    if (text.size() > kMaxTraceArg) text.resize(kMaxTraceArg);
    return text.empty() ? "<NULL>" : text.c_str();
}

int32_t initTrace(const std::string& traceFile, const std::string& traceFlags, int32_t maxSizeKB) {
    int32_t sizeMB = maxSizeKB / 1024;
    if (sizeMB < 1) sizeMB = 1;
    if (trInit(9, static_cast<unsigned long>(pthread_self()), nullptr) != RC_OK) return RC_TRACE_FAILED;
    if (traceFile.empty()) return RC_OK;
    trSetMaxMB(static_cast<uint32_t>(sizeMB));
    std::string::size_type slash = traceFile.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        if (mkdir(traceFile.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) return RC_TRACE_FAILED;
    }
    trSetLibFlags("PID", 0);
    trSetLibFlags("TID", 0);
    trSetFlags(traceFlags.c_str(), 0, naTraceClasses, naTraceAggregates);
    if (trBegin(traceFile.c_str(), 1) != RC_OK) {
        trTerminate();
        return RC_TRACE_BEGIN_FAILED;
    }
    return RC_OK;
}

void endTrace() {
    trEnd(1);
    trTerminate();
}
