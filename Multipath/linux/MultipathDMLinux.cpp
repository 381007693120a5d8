#include "Multipath/linux/MultipathDMLinux.h"

#include <memory>
#include <new>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/CmdExecer.h"

namespace {

constexpr char kNotInstalledMarker[] = "multipath-tools is not installed";
constexpr char kMultipathTool[] = "multipath";

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
std::string failedCommandText(const CmdExecer& exec) {
    std::string text = exec.getCommand();
    if (!exec.sysErr.empty()) text += ": " + exec.sysErr;
    return text;
}

// The package line when it says the tools are installed, else empty.
std::string versionFromQuery(const CmdExecer& exec) {
    std::string line = firstLine(exec.sysOut);
    std::string version;
    // Some packagers print a sentence ending in the marker instead of failing; a
    // line that begins with the marker is taken as a package name (kept as the
    // tool has always behaved).
    std::string::size_type marker = line.find(kNotInstalledMarker);
    if (marker != std::string::npos && marker > 0) {
        NA_TRACE_MID("No multipath tools version installed.\n");
    } else if (exec.sysErr.empty()) {
        version = line;
    } else {
        NA_TRACE_MIN("Error getting Multipath version: %s\n", NA_STR(exec.sysErr));
    }
    return version;
}

}  // namespace

MultipathDMLinux::MultipathDMLinux(const std::string& toolDir) : toolDir_(toolDir) {}

std::string MultipathDMLinux::getVersion() {
    NA_TRACE_ENTER("getVersion()");
    if (version_.empty()) {
        CmdExecer exec(packageQueryCommand());
        int32_t rc = exec.runCommand();
        if (rc != RC_OK) {
            logMsg(activityLog, STA0356E, NA_STR(exec.getCommand()));
            NA_TRACE_MIN("Execute command %s failed.\n", NA_STR(failedCommandText(exec)));
        } else {
            version_ = versionFromQuery(exec);
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
        CmdExecer exec({toolDir_ + kMultipathTool});
        int32_t cmdRc = exec.runCommand();
        if (cmdRc == RC_NOT_RUN) {
            logMsg(activityLog, STA0356E, NA_STR(exec.getCommand()));
            NA_TRACE_MIN("Execute command %s failed.\n", NA_STR(exec.getCommand()));
            rc = RC_DRIVER_CMD_FAILED;
        } else if (cmdRc != RC_OK) {
            NA_TRACE_MIN("Invocation of %s returned: %s\n", NA_STR(exec.getCommand()), NA_STR(exec.sysOut));
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

std::vector<std::string> MultipathDMLinux::getErrorDevices() {
    return std::vector<std::string>();
}

std::vector<std::string> MultipathDMLinux::getErrorWWPNs() {
    return std::vector<std::string>();
}

int32_t MultipathDMLinux::performDynamicReconfiguration() {
    NA_TRACE_ENTER("performDynamicReconfiguration()");
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "performDynamicReconfiguration()", RC_OK);
    return RC_OK;
}
