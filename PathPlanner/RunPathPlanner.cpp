// The program's one pass. The order of the steps is part of the tool's contract
// with the agent: what is logged, what is traced and which exit status wins all
// depend on it, so each step below runs only when the steps before it allow.
#include "PathPlanner/RunPathPlanner.h"

#include <cstdio>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/CmdArgs.h"
#include "Common/FailureNote.h"
#include "Common/JobFile.h"
#include "Common/LogManager.h"
#include "Common/RunFiles.h"
#include "Common/comutils.h"
#include "Common/unix/psnautil.h"
#include "Common/unix/pssignal.h"
#include "Multipath/MultipathDriver.h"
#include "PathPlanner/ExecPathPlanner.h"
#include "PathPlanner/ExitLine.h"
#include "PathPlanner/PPlannerDriver.h"

namespace {

const char kNlsDirName[] = "nls";
const char kLogDirName[] = "log";
const char kActivityLogName[] = "multipath.log";
const char kDriverLabelPrefix[] = "multipath_";

// What main owns for the run; cleanUp releases it in a fixed order.
struct RunState {
    int32_t rc = RC_OK;
    std::unique_ptr<CmdArgs> args;
    std::unique_ptr<LogManager> log;
    std::string installDir;
    std::string logPath;
    bool catalogStarted = false;
    bool traceStarted = false;
    bool afterRescan = false;  // rc is the result of a bus rescan
};

void createCmdArgs(int argc, const char* const* argv, RunState* run) {
    try {
        run->args.reset(new CmdArgs(argc, argv, kParseModePathPlanner));
    } catch (const std::bad_alloc&) {
        run->rc = RC_OUT_OF_MEMORY;
    }
}

// Without an installation directory there is neither a catalogue nor a log
// directory, so the catalogue is started only once the paths exist.
void startMessages(RunState* run) {
    if (run->args) run->installDir = run->args->getInstallDir();
    if (run->installDir.empty()) {
        if (run->rc == RC_OK) run->rc = RC_NO_INSTALL_DIR;
    } else {
        const std::string nlsDir = run->installDir + "/" + kNlsDirName;
        run->logPath = run->installDir + "/" + kLogDirName + "/" + kActivityLogName;
        const std::string language = messageLanguageFromEnvironment();
        if (initMessages(nlsDir, run->logPath, getMessageCatalogName(), language) == RC_OK) {
            run->catalogStarted = true;
        } else {
            run->rc = RC_CATALOG_FAILED;
        }
    }
}

void parseCommandLine(RunState* run) {
    if (run->rc == RC_OK) {
        run->rc = run->args->parse();
        if (run->rc == RC_OK) settleRunFiles(run->args.get());
        if (run->rc != RC_OK) noteFailure(run->args->errorText);
        if (!run->args->logFileName.empty()) run->logPath = run->args->logFileName;
    }
}

void publishActivityLog(RunState* run) {
    activityLog = nullptr;
    try {
        run->log.reset(new LogManager(run->logPath));
        activityLog = run->log.get();
    } catch (const std::bad_alloc&) {
        run->rc = RC_OUT_OF_MEMORY;
    }
    if (run->rc == RC_BAD_ARGS) logMsg(activityLog, AGT0412E, NA_STR(run->args->currentArg));
}

std::string commandLineEcho(int argc, const char* const* argv) {
    std::string echo;
    for (int i = 0; i < argc; ++i) {
        if (i > 0) echo += ' ';
        echo += argv[i] ? argv[i] : "";
    }
    return echo;
}

// The start message is written even when the trace failed to start: the agent
// still wants to see that the tool ran and with what.
void startTraceAndAnnounce(int argc, const char* const* argv, RunState* run) {
    if (run->rc == RC_OK) {
        const CmdArgs& args = *run->args;
        if (initTrace(args.traceFileName, args.debugMode, args.maxLogSize) == RC_OK) {
            run->traceStarted = true;
        } else {
            run->rc = RC_TRACE_FAILED;
        }
        logMsg(activityLog, AGT0429I, kPathPlannerComponent, NA_STR(commandLineEcho(argc, argv)));
    }
}

// The agent reads the end fields before the file goes; both steps are wanted.
void finishJobFile(const std::string& jobFile, int32_t rc) {
    if (!jobFile.empty()) {
        updateJobFile(jobFile, rc);
        if (psFileExist(jobFile)) {
            int32_t removeRc = psRemoveFile(jobFile);
            if (removeRc == RC_OK) {
                NA_TRACE_MID("Successfully deleted job file: %s\n", NA_STR(jobFile));
            } else {
                NA_TRACE_MIN("Unable to delete job file %s, rc %d\n", NA_STR(jobFile), removeRc);
            }
        }
    }
}

void runJob(RunState* run) {
    CmdArgs& args = *run->args;
    args.jobStartTime = time(nullptr);
    const std::string jobFile = createJobFile(run->installDir + "/" + kLogDirName, args, false);
    // getPlannerDriver ignores the label; it is kept so the call reads as the agent's.
    std::unique_ptr<PPlannerDriver> plannerDriver =
        getPlannerDriver(kDriverLabelPrefix + args.jobName, run->installDir);
    run->rc = runRequestedAction(plannerDriver.get(), multipathRequest);
    run->afterRescan = multipathRequest.setting == kSettingWalkTheBus;
    args.jobEndTime = time(nullptr);
    finishJobFile(jobFile, run->rc);
}

void runRequest(RunState* run) {
    if (run->args && run->args->commandCode == kCommandVersion) {
        fputs(kPathPlannerVersion, stdout);
        fputs("\n", stdout);
        fflush(stdout);
    } else if (run->rc == RC_OK) {
        run->rc = validateArgs(run->args->multipathOptions, &multipathRequest);
        if (run->rc == RC_OK) runJob(run);
    }
}

// The activity log outlives the command-line record and dies before the catalogue
// and the trace, so the last messages and traces of the run still have somewhere
// to go.
void cleanUp(RunState* run) {
    run->args.reset();
    activityLog = nullptr;
    run->log.reset();
    if (run->catalogStarted) {
        endMessages();
        if (run->traceStarted) endTrace();
    }
}

}  // namespace

int32_t runPathPlanner(int argc, const char* const* argv) {
    NA_TRACE_ENTER("main()");
    clearFailure();  // a run explains only its own failure
    RunState run;
    createCmdArgs(argc, argv, &run);
    startMessages(&run);
    parseCommandLine(&run);
    publishActivityLog(&run);
    startTraceAndAnnounce(argc, argv, &run);
    installSignalHandlers();
    runRequest(&run);
    logMsg(activityLog, AGT0430I, kPathPlannerComponent, static_cast<int>(run.rc));
    showExitLine(run.rc, run.afterRescan);
    cleanUp(&run);
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "main()", run.rc);
    return run.rc;
}
