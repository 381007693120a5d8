// The trace's reports: the status and class queries, the tables, the enabled classes
// written into the trace, and the status log.
#include "BKVlib/common/ut/trace.h"

#include <cstdio>
#include <string>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "BKVlib/common/ut/trstate.h"

namespace {

void appendEnabled(std::string* out, bool enabled) {
    for (const TraceClass* row = trLibClasses; row->name; ++row) {
        if ((*row->flag != 0) == enabled) *out += std::string("  ") + row->name + "\n";
    }
}

void appendAllClasses(std::string* out) {
    char cell[64];
    int column = 0;
    for (const TraceClass* row = trLibClasses; row->name; ++row) {
        snprintf(cell, sizeof(cell), *row->flag ? "  %-23sON " : "  %-23sOFF", row->name);
        *out += cell;
        *out += column == 0 ? "     " : "\n";
        column = 1 - column;
    }
    *out += "\n";
}

// The catalogue heading goes to standard output only: issuing a message hands no
// text back that could go into a caller's buffer.
void queryHeading(int32_t kind) {
    uint16_t msgNum = kind == TR_QUERY_ENABLED ? 226 : kind == TR_QUERY_DISABLED ? 225 : 224;
    trNotify(msgNum, false);
}

}  // namespace

int32_t trQuery(int32_t kind, char* buffer) {
    ErrnoSaver keepErrno;
    if (!buffer && !trIsActive()) return 0;
    char line[TR_PATH_BUFFER_SIZE + 64];
    snprintf(line, sizeof(line), "  TRACEFILE:    %s\n", trState.givenName.c_str());
    std::string status = line;
    snprintf(line, sizeof(line), "  TRACEMAX :    %lu\n", static_cast<unsigned long>(trState.maxMB));
    status += line;
    snprintf(line, sizeof(line), "  TRACESEGSIZE: %lu\n", static_cast<unsigned long>(trState.segSizeMB));
    status += line;
    snprintf(line, sizeof(line), "  TRACE STATUS: %s\n\n", trIsActive() ? "Enabled" : "Disabled");
    status += line;
    std::string classes;
    if (kind == TR_QUERY_ALL) {
        appendAllClasses(&classes);
    } else if (kind == TR_QUERY_ENABLED || kind == TR_QUERY_DISABLED) {
        appendEnabled(&classes, kind == TR_QUERY_ENABLED);
    }
    if (buffer) {
        snprintf(buffer, TR_QUERY_BUFFER_SIZE, "%s%s", status.c_str(), classes.c_str());
    } else {
        fputs(status.c_str(), stdout);
        fflush(stdout);
        if (!classes.empty()) queryHeading(kind);
        fputs(classes.c_str(), stdout);
        fflush(stdout);
    }
    return 0;
}

void trShowTables() {
    ErrnoSaver keepErrno;
    std::string out = "Trace Class Table:\n";
    for (const TraceClass* row = trLibClasses; row->name; ++row) {
        if (row != trLibClasses) out += ", ";
        out += row->name;
    }
    out += "\n\nTrace Aggregate Table:\n";
    for (const TraceAggregate* row = trLibAggregates; row->name; ++row) {
        out += std::string(row->name) + " = " + row->members + "\n";
    }
    fputs(out.c_str(), stdout);
}

void trLogEnabledClasses() {
    ErrnoSaver keepErrno;
    std::string out = "Current trace classes enabled: ";
    std::string names;
    for (const TraceClass* row = trLibClasses; row->name; ++row) {
        if (*row->flag) names += std::string(names.empty() ? " " : ",") + row->name;
    }
    FILE* stream = trState.stream;
    if (names.empty()) {
        out += "\nNone\n\nTracing not active.\n";
    } else if (stream == stderr || stream == stdout) {
        out += names + "\n\n" + (stream == stderr ? "Tracing is active to standard error.\n"
                                                  : "Tracing is active to standard output.\n");
    } else {
        out += names + "\n\nTracing is active to file '" + trState.fileName + "'.\n";
    }
    trWriteRaw(out.data(), out.size());
}

void trSetStatusLogPrefix(int32_t on) { trState.statusLogPrefix = on; }

int32_t trStatusLog(const char* directory, const char* fileName, char* resultPath) {
    ErrnoSaver keepErrno;
    if (!directory || !fileName) return RC_MISSING_ARG;
    int32_t rc = 0;
    if (trState.statusLogRunning) {
        trSetLibFlags("STATUSLOG", 1);
    } else {
        trState.statusLogPath = std::string(directory) + "/" + fileName;
        trSetLibFlags(trState.statusLogPrefix ? "STATUSLOG" : "STATUSLOG -PREFIX", 1);
        rc = trBegin(trState.statusLogPath.c_str(), 0);
        trState.statusLogRunning = rc == 0;
    }
    if (resultPath) snprintf(resultPath, TR_PATH_BUFFER_SIZE, "%s", trState.statusLogPath.c_str());
    return rc;
}
