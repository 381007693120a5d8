#include "Multipath/linux/MultipathDMLinux.h"

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/CmdExecer.h"
#include "Common/comutils.h"

namespace {

constexpr char kNotInstalledMarker[] = "multipath-tools is not installed";
constexpr char kMultipathTool[] = "multipath";
constexpr char kDmsetupTool[] = "dmsetup";
constexpr char kMultipathdTool[] = "multipathd";
constexpr char kFailKeyword[] = "fail";
constexpr char kReinstateKeyword[] = "reinstate";
constexpr char kPathKeyword[] = "path";
// Older daemons answer a rejected command with this word and exit status 0.
constexpr char kMultipathdRefusal[] = "fail";
constexpr char kListKeyword[] = "ls";
constexpr char kTableKeyword[] = "table";
constexpr char kMessageKeyword[] = "message";
constexpr char kFailingFeature[] = "fail_if_no_path";

// rpm is asked twice: once for the whole package list, filtered by awk, and then by
// name for each match, so the answer carries the version the way rpm prints it. The
// pipeline travels as one shell word because CmdExecer quotes only the program.
std::vector<std::string> packageQueryCommand() {
    return {"rpm", "-qa | awk '/device-mapper-multipath|multipath-tools/ {system(\"rpm -q \"$1)}'"};
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

// The failed command as traced: the command line, and what it said when it said anything.
std::string failedCommandText(const CommandResult& run) {
    return run.err.empty() ? run.cmdLine : run.cmdLine + ": " + run.err;
}

// The package line when it says the tools are installed, else empty.
std::string versionFromQuery(const CommandResult& run) {
    std::string line = firstLine(run.out);
    std::string version;
    // Some packagers print a sentence ending in the marker instead of failing; a
    // line that begins with the marker is taken as a package name (kept as the
    // tool has always behaved).
    std::string::size_type marker = line.find(kNotInstalledMarker);
    if (marker != std::string::npos && marker > 0) {
        NA_TRACE_MID("No multipath tools version installed.\n");
    } else if (run.err.empty()) {
        version = line;
    } else {
        NA_TRACE_MIN("Error getting Multipath version: %s\n", NA_STR(run.err));
    }
    return version;
}

// Reports a dmsetup step that could not run and records the stop; the caller traces
// which step it was.
bool ranOrStop(const CommandResult& run, DmQueueingSwitchResult* result) {
    if (!run.notRun()) return true;
    reportNotRun(run);
    result->stopped = true;
    result->failedCommand = run.cmdLine;
    result->failedErr = run.err;
    return false;
}

void reportListing(const DmListingResult& result) {
    switch (result.status) {
        case DmListingStatus::kNotRun:
            reportNotRun(result.command, result.sysErr);
            break;
        case DmListingStatus::kEmpty:
            NA_TRACE_MIN("multipath -ll -v2 output is empty\n");
            break;
        case DmListingStatus::kNotLoaded:
            NA_TRACE_MIN("DM multipath driver is installed but not loaded.\n");
            logMsg(activityLog, AGT0463I);
            break;
        case DmListingStatus::kNoConfigFile:
            NA_TRACE_MIN("multipath.conf file does not exist.\n");
            logMsg(activityLog, AGT0464I);
            break;
        case DmListingStatus::kFailed:
            logMsg(activityLog, STA0523E, NA_STR(result.command));
            NA_TRACE_MIN("%s: Execute command multipath -ll -v2 failed.\n", "MultipathDMLinux::getMultipathConfig()");
            break;
        case DmListingStatus::kParsed:
        case DmListingStatus::kNoDriver:
            break;
    }
}

}  // namespace

MultipathDMLinux::MultipathDMLinux(const std::string& toolDir) : toolDir_(toolDir) {}

CommandResult MultipathDMLinux::runTool(const std::vector<std::string>& args) {
    return runCommandWords(args);
}

std::string MultipathDMLinux::getVersion() {
    NA_TRACE_ENTER("getVersion()");
    if (version_.empty()) {
        CommandResult run = runTool(packageQueryCommand());
        // rpm that runs and fails is reported as not run too: no version can be had.
        if (run.rc != RC_OK) {
            reportNotRun(run);
        } else {
            version_ = versionFromQuery(run);
        }
    }
    NA_TRACE_EXIT("Exit: %s, multipath driver version: %s\n", "getVersion()", NA_STR(version_));
    return version_;
}

int32_t MultipathDMLinux::setPolicy(int32_t setting, const std::vector<std::string>& devices) {
    NA_TRACE_ENTER("setPolicy()");
    int32_t rc = RC_OK;
    if (setting == kSettingRoundRobin) {
        // "multipath" without arguments rebuilds every map from multipath.conf, whose
        // selector is round robin; it cannot apply any other policy.
        CommandResult run = runTool({toolDir_ + kMultipathTool});
        if (run.notRun()) {
            reportNotRun(run);
            rc = RC_DRIVER_CMD_FAILED;
        } else if (run.rc != RC_OK) {
            NA_TRACE_MIN("Invocation of %s returned: %s\n", NA_STR(run.cmdLine), NA_STR(run.out));
            rc = RC_DRIVER_CMD_FAILED;
        }
    } else {
        logMsg(activityLog, AGT0454I);
        NA_TRACE_MIN("This multipath driver can not set policy to %d.\n", setting);
        rc = RC_SETTING_NOT_SUPPORTED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %i\n", "setPolicy()", rc);
    return rc;
}

int32_t MultipathDMLinux::setState(int32_t setting, const std::string& device, const std::vector<std::string>& wwpns) {
    NA_TRACE_ENTER("setState()");
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "setState()", RC_OK);
    return RC_OK;
}

// The tools change every map at once, so no single device or WWPN ever fails.
std::vector<std::string> MultipathDMLinux::getErrorDevices() {
    NA_TRACE_ENTER("getErrorDevices()");
    NA_TRACE_EXIT("Exit: %s\n", "getErrorDevices()");
    return std::vector<std::string>();
}

std::vector<std::string> MultipathDMLinux::getErrorWWPNs() {
    NA_TRACE_ENTER("getErrorWWPNs()");
    NA_TRACE_EXIT("Exit: %s\n", "getErrorWWPNs()");
    return std::vector<std::string>();
}

int32_t MultipathDMLinux::performDynamicReconfiguration() {
    NA_TRACE_ENTER("performDynamicReconfiguration()");
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "performDynamicReconfiguration()", RC_OK);
    return RC_OK;
}

void MultipathDMLinux::getMultipathConfig(Topology* topology, MultipathDriver* driver, DmListingResult* result) {
    NA_TRACE_ENTER("MultipathDMLinux::getMultipathConfig()");
    DmListingResult listing;
    std::string version = (driver ? driver : this)->getVersion();
    if (version.empty()) {
        NA_TRACE_MID("No multipath driver to query.\n");
        listing.status = DmListingStatus::kNoDriver;
    } else {
        runListing(dmDriverText(version), topology, &listing);
    }
    NA_TRACE_EXIT("Exit: %s\n", "MultipathDMLinux::getMultipathConfig()");
    if (result) *result = listing;
}

void MultipathDMLinux::runListing(const std::string& driverText, Topology* topology, DmListingResult* result) {
    CommandResult run = runTool({toolDir_ + kMultipathTool, "-ll", "-v2"});
    result->command = run.cmdLine;
    result->exitCode = run.rc;
    result->sysErr = run.err;
    if (!run.created) {
        NA_TRACE_MIN("No stdOut from multipath -ll -v2 command!\n");
        result->status = DmListingStatus::kNotRun;
    } else {
        result->status = dmClassifyListing(run.rc, run.out);
        reportListing(*result);
    }
    if (result->status == DmListingStatus::kParsed) dmParseTopology(run.out, driverText, topology);
}

int32_t MultipathDMLinux::setFailIfNoPath(DmQueueingSwitchResult* result) {
    NA_TRACE_ENTER("MultipathDMLinux::setFailIfNoPath");
    DmQueueingSwitchResult done;
    std::vector<std::string> names;
    if (listMaps(&names, &done)) {
        for (const std::string& name : names) {
            if (!switchMap(name, &done)) break;
        }
    }
    NA_TRACE_EXIT("Exit: %s\n", "MultipathDMLinux::setFailIfNoPath");
    if (result) *result = std::move(done);
    return RC_OK;
}

bool MultipathDMLinux::listMaps(std::vector<std::string>* names, DmQueueingSwitchResult* result) {
    CommandResult run = runTool({toolDir_ + kDmsetupTool, kListKeyword});
    bool ran = ranOrStop(run, result);
    if (!run.created) {
        NA_TRACE_MIN("No stdOut from 'dmsetup ls' command!\n");
    } else if (!ran) {
        NA_TRACE_MIN("Unable to get the mpaths using ls command.\n");
    } else if (run.rc != RC_OK) {
        // Without the list no map can be judged; "no maps" would be a false all-clear.
        logMsg(activityLog, STA0523E, NA_STR(run.cmdLine));
        NA_TRACE_MIN("Execute command %s failed.\n", NA_STR(failedCommandText(run)));
        result->stopped = true;
        result->failedCommand = run.cmdLine;
        result->failedErr = run.err;
        result->failedRan = true;
        ran = false;
    } else {
        *names = dmMapNames(run.out);
    }
    return ran;
}

// One map: read its table and, when it queues, send it the failing feature. A
// message that runs but fails is not retried: the next map is still worth a try.
bool MultipathDMLinux::switchMap(const std::string& name, DmQueueingSwitchResult* result) {
    NA_TRACE_MID("checking configuration of multipath device %s\n", NA_STR(name));
    CommandResult table = runTool({toolDir_ + kDmsetupTool, kTableKeyword, name});
    bool ran = ranOrStop(table, result);
    if (!table.created) {
        NA_TRACE_MIN("No stdOut from 'dmsetup table [multipathName]' command!\n");
    } else if (!ran) {
        NA_TRACE_MIN("Unable to get the mpath's information using table command.\n");
    } else if (!dmTableQueues(table.out)) {
        NA_TRACE_MID("multipath device %s is not configured with queue_if_no_path.\n", NA_STR(name));
        result->notQueueing.push_back(name);
    } else {
        CommandResult message = runTool({toolDir_ + kDmsetupTool, kMessageKeyword, name, "0", kFailingFeature});
        ran = ranOrStop(message, result);
        if (!message.created) {
            NA_TRACE_MIN("'dmsetup message [multipathName] 0 \"fail_if_no_path\"' command failed!\n");
        } else if (!ran) {
            NA_TRACE_MIN("Unable to set the mpath to fail_if_no_path for multipath device %s.\n", NA_STR(name));
        } else {
            (message.rc == RC_OK ? result->switched : result->refused).push_back(name);
        }
    }
    return ran;
}

void MultipathDMLinux::getMapView(std::vector<DmViewMap>* maps, DmListingResult* result) {
    NA_TRACE_ENTER("MultipathDMLinux::getMapView()");
    CommandResult run = runTool({toolDir_ + kMultipathTool, "-ll", "-v2"});
    result->command = run.cmdLine;
    result->exitCode = run.rc;
    result->sysErr = run.err;
    result->status = run.created ? dmClassifyListing(run.rc, run.out) : DmListingStatus::kNotRun;
    reportListing(*result);
    if (result->status == DmListingStatus::kParsed) *maps = dmParseMapView(run.out);
    NA_TRACE_EXIT("Exit: %s, maps = %d\n", "MultipathDMLinux::getMapView()", static_cast<int>(maps->size()));
}

int32_t MultipathDMLinux::changePathState(const std::string& device, bool fail, CommandResult* run) {
    NA_TRACE_ENTER("MultipathDMLinux::changePathState()");
    int32_t rc = RC_OK;
    if (!dmSafeName(device)) {
        NA_TRACE_MIN("Device name %s refused: not a plain device name.\n", NA_STR(device));
        rc = RC_BAD_ARGS;
    } else {
        *run = runTool({toolDir_ + kMultipathdTool, fail ? kFailKeyword : kReinstateKeyword, kPathKeyword, device});
        if (run->notRun()) {
            reportNotRun(*run);
            rc = RC_DRIVER_CMD_FAILED;
        } else if (run->rc != RC_OK || firstLine(run->out) == kMultipathdRefusal) {
            logMsg(activityLog, STA0523E, NA_STR(run->cmdLine));
            NA_TRACE_MIN("Execute command %s failed.\n", NA_STR(failedCommandText(*run)));
            rc = RC_DRIVER_CMD_FAILED;
        }
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "MultipathDMLinux::changePathState()", rc);
    return rc;
}
