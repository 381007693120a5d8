#include "Common/AgentTrace.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "BKVlib/common/nls/amsglog.h"
#include "BKVlib/common/unx/psthread.h"
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

namespace {

// A value from the request or from another tool's output must not be able to start
// a line of its own in the activity log or the trace, where it would read as a
// genuine entry. Bytes from 0x80 up are left alone: they are text in a multibyte
// locale.
std::string escapeControls(const std::string& text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (char c : text) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if (byte == '\n') {
            escaped += "\\n";
        } else if (byte < 0x20 || byte == 0x7f) {
            char hex[5];
            snprintf(hex, sizeof(hex), "\\x%02X", byte);
            escaped += hex;
        } else {
            escaped += c;
        }
    }
    return escaped;
}

}  // namespace

TraceText::TraceText(const std::string& text)
    : text_(text.empty() ? std::string("<NULL>") : escapeControls(text.substr(0, kMaxTraceArg))) {}

TraceText::TraceText(const char* text) : TraceText(std::string(text ? text : "")) {}

const char* naCutInPlace(std::string& text) {
    if (text.size() > kMaxTraceArg) text.resize(kMaxTraceArg);
    return text.empty() ? "<NULL>" : text.c_str();
}

int32_t naTraceSizeMB(int32_t maxSizeKB) {
    int32_t sizeMB = maxSizeKB / 1024;
    return sizeMB < 1 ? 1 : sizeMB;
}

namespace {

// The trace's notices are the agent's messages like any other.
void issueTraceNotice(uint16_t msgNum, bool toErrorLog, const char* insert1, const char* insert2) {
    nlIssue(msgNum, NL_STDOUT | (toErrorLog ? NL_ERRORLOG : 0), insert1, insert2);
}

// The directory part of the trace file name; "" when the name has none.
int32_t makeTraceDirectory(const std::string& traceFile) {
    std::string::size_type slash = traceFile.rfind('/');
    int32_t rc = RC_OK;
    if (slash != std::string::npos && slash > 0) {
        if (mkdir(traceFile.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST) rc = RC_TRACE_FAILED;
    }
    return rc;
}

}  // namespace

int32_t initTrace(const std::string& traceFile, const std::string& traceFlags, int32_t maxSizeKB) {
    int32_t sizeMB = naTraceSizeMB(maxSizeKB);
    int32_t rc = RC_OK;
    trSetNoticeSink(issueTraceNotice);
    if (trInit(9, static_cast<unsigned long>(psThreadNumber()), trCallerThreadTag) != RC_OK) rc = RC_TRACE_FAILED;
    if (rc == RC_OK && !traceFile.empty()) {
        trSetMaxMB(static_cast<uint32_t>(sizeMB));
        rc = makeTraceDirectory(traceFile);
        if (rc == RC_OK) {
            trSetLibFlags("PID", 0);
            trSetLibFlags("TID", 0);
            trSetFlags(traceFlags.c_str(), 0, naTraceClasses, naTraceAggregates);
            if (trBegin(traceFile.c_str(), 1) != RC_OK) {
                trTerminate();
                rc = RC_TRACE_BEGIN_FAILED;
            }
        }
    }
    return rc;
}

void endTrace() {
    trEnd(1);
    trTerminate();
}
