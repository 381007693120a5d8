#include "Common/RunFiles.h"

#include <climits>
#include <map>
#include <string>

#include "Common/AgentTrace.h"
#include "Common/CmdArgs.h"
#include "Common/JobFile.h"
#include "Common/LogUtil.h"

namespace {

constexpr const char* kLogDirName = "log";
constexpr const char* kLogPrefix = "multipath";
constexpr const char* kLogExt = ".log";
constexpr const char* kTraceExt = ".trace";

// The numbered log series is only used when the line asks for limits; the
// smaller of the two count limits wins, and 0 means "no limit".
LogPurgeSettings purgeSettingsFor(const CmdArgs& args) {
    LogPurgeSettings settings;
    int32_t countLimit = INT32_MAX;
    if ((args.logLimitsGiven & kGivenMaxNumLogs) && args.maxNumLogs > 0) countLimit = args.maxNumLogs;
    if ((args.logLimitsGiven & kGivenMaxNumRuns) && args.maxNumRuns > 0 && args.maxNumRuns < countLimit) {
        countLimit = args.maxNumRuns;
    }
    settings.countLimitAged = countLimit;
    settings.countLimitPlain = countLimit;
    settings.maxDays = (args.logLimitsGiven & kGivenMaxNumDays) ? args.maxNumDays : 0;
    settings.maxSize = args.maxLogSize;
    return settings;
}

void purgeSeries(const LogPurgeSettings& settings, const std::string& logDir, const char* ext) {
    std::map<int32_t, std::string> files = getMatchingFilesMap(logDir, kLogPrefix, ext);
    purgeLogFiles(settings, files, settings.maxDays > 0);
}

void buildLogFileName(CmdArgs* args) {
    NA_TRACE_ENTER("buildLogFileName()");
    std::string logDir = args->installDir + "/" + kLogDirName;
    if (args->logLimitsGiven != 0) {
        LogPurgeSettings settings = purgeSettingsFor(*args);
        bool checkSize = (args->logLimitsGiven & kGivenMaxLogSize) != 0;
        args->logFileName = logDir + "/" + getNextLogName(settings, logDir, kLogPrefix, kLogExt, checkSize);
        purgeSeries(settings, logDir, kLogExt);
        purgeSeries(settings, logDir, kTraceExt);
    }
    NA_TRACE_EXIT("Exit: %s, logFileName = %s\n", "buildLogFileName()", NA_STR(args->logFileName));
}

// The trace sits beside the activity log under the same base name.
std::string traceNameFor(const std::string& logFile) {
    std::string::size_type slash = logFile.rfind('/');
    std::string::size_type dot = logFile.rfind('.');
    bool hasExt = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    return (hasExt ? logFile.substr(0, dot) : logFile) + kTraceExt;
}

void nameTraceAndJobFiles(CmdArgs* args) {
    NA_TRACE_ENTER("nameTraceAndJobFiles()");
    std::string logDir = args->installDir + "/" + kLogDirName;
    if (!args->debugMode.empty()) {
        args->traceFileName = traceNameFor(args->logFileName.empty() ? logDir + "/" + kLogPrefix + kLogExt
                                                                     : args->logFileName);
    }
    if (args->jobRunNumber >= 0 && args->sidRunNumber >= 0) {
        args->jobFileName = buildJobFileName(logDir, args->jobName, args->jobRunNumber, args->sidRunNumber);
    }
    NA_TRACE_EXIT("Exit: %s, traceFileName = %s, jobFileName = %s\n", "nameTraceAndJobFiles()", NA_STR(args->traceFileName),
                  NA_STR(args->jobFileName));
}

}  // namespace

void settleRunFiles(CmdArgs* args) {
    NA_TRACE_ENTER("settleRunFiles()");
    buildLogFileName(args);
    nameTraceAndJobFiles(args);
    NA_TRACE_EXIT("Exit: %s\n", "settleRunFiles()");
}
