#include "Multipath/linux/MultipathZPLLinux.h"

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"

namespace {

const char kPackageQuery[] = "rpm";
const char kPackageQueryArg[] = "-q ZORzpl";
const char kReconfigure[] = "cfglundev";

}  // namespace

std::vector<std::string> MultipathZPLLinux::getVersionCommand() {
    NA_TRACE_ENTER("getVersionCommand()");
    std::vector<std::string> words = {kPackageQuery, kPackageQueryArg};
    NA_TRACE_EXIT("Exit: %s\n", "getVersionCommand()");
    return words;
}

std::string MultipathZPLLinux::formatWWPN(const std::string& wwpn) {
    NA_TRACE_ENTER("formatWWPN()");
    std::string formatted;
    for (size_t pos = 0; pos < 14; pos += 2) {
        formatted += wwpn.substr(pos, 2);
        formatted += ':';
    }
    // A short WWPN throws here on purpose: the caller reports it, nothing is guessed.
    // Only the last pair is taken, so a trailing blank or extra characters never
    // reach lunctl's search.
    formatted += wwpn.substr(14, 2);
    NA_TRACE_EXIT("Exit: %s, formattedWWPN = %s\n", "formatWWPN()", NA_STR(formatted));
    return formatted;
}

int32_t MultipathZPLLinux::performDynamicReconfiguration() {
    NA_TRACE_ENTER("performDynamicReconfiguration()");
    ZplCommandResult result = runWords({kReconfigure});
    int32_t rc = RC_OK;
    if (result.rc == RC_NOT_RUN) {
        logMsg(activityLog, STA0356E, NA_STR(result.cmdLine));
        NA_TRACE_MIN("%s: Execute command %s failed.\n", "performDynamicReconfiguration()", NA_STR(result.cmdLine));
        rc = RC_RECONFIG_NOT_RUN;
    } else if (result.rc != RC_OK) {
        NA_TRACE_MIN("%s: Error running '%s', exit code %d: %s\n", "performDynamicReconfiguration()",
                     NA_STR(result.cmdLine), result.rc, NA_STR(errorText(result)));
        rc = RC_DRIVER_CMD_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "performDynamicReconfiguration()", rc);
    return rc;
}
