// The agent's bridge to the trace facility: its five trace classes and three
// aggregates, the guarded string arguments of trace records, and trace set-up.
#ifndef COMMON_AGENTTRACE_H
#define COMMON_AGENTTRACE_H

#include <cstdint>
#include <string>

#include "BKVlib/common/ut/trace.h"

// Own flag bytes of NA_MIN, NA_MID and NA_MAX; NA_ENTER and NA_EXIT share the
// library's ENTER and EXIT bytes.
extern unsigned char naTraceMin;
extern unsigned char naTraceMid;
extern unsigned char naTraceMax;
extern const TraceClass naTraceClasses[];
extern const TraceAggregate naTraceAggregates[];

// One byte test at the call site, then the record with the caller's file and line.
#define NA_TRACE(flag, ...)                                         \
    do {                                                            \
        if (flag) trPrintf(__FILE__, __LINE__, __VA_ARGS__);        \
    } while (0)
#define NA_TRACE_MIN(...) NA_TRACE(naTraceMin, __VA_ARGS__)
#define NA_TRACE_MID(...) NA_TRACE(naTraceMid, __VA_ARGS__)
#define NA_TRACE_MAX(...) NA_TRACE(naTraceMax, __VA_ARGS__)
#define NA_TRACE_ENTER(name) NA_TRACE(trFlags[TR_ENTER], "Enter: %s\n", name)
#define NA_TRACE_EXIT(...) NA_TRACE(trFlags[TR_EXIT], __VA_ARGS__)

// Longest string argument of a trace record or message insert.
constexpr size_t kMaxTraceArg = 4604;

// A string argument as traces and message inserts print it: an empty string as
// "<NULL>", a longer one cut to its first kMaxTraceArg characters, with a line
// feed written as backslash-n and other control characters as backslash-x and two
// hex digits, so that no argument can start a line of its own. The object
// lives to the end of the full expression, so NA_STR(s) is safe in a call.
class TraceText {
public:
    explicit TraceText(const std::string& text);
    explicit TraceText(const char* text);
    const char* c_str() const { return text_.c_str(); }

private:
    std::string text_;
};
#define NA_STR(s) (TraceText(s).c_str())

// Cuts the caller's own string to kMaxTraceArg characters in place, then
// returns what a trace prints for it.
const char* naCutInPlace(std::string& text);

// The trace size limit in MB for a size in KB: rounded down, at least 1.
int32_t naTraceSizeMB(int32_t maxSizeKB);

// Starts tracing for the agent: 0, RC_TRACE_FAILED (set-up or directory) or
// RC_TRACE_BEGIN_FAILED (the file could not be opened). An empty traceFile
// initialises the facility and traces nothing.
int32_t initTrace(const std::string& traceFile, const std::string& traceFlags, int32_t maxSizeKB);
// Stops tracing, closes the trace file and releases the trace state.
void endTrace();

#endif
