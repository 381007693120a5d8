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

bool MultipathZPLLinux::canFormatWWPN(const std::string& wwpn) {
    NA_TRACE_ENTER("canFormatWWPN()");
    bool fits = wwpn.size() >= kMinWwpnChars;
    NA_TRACE_EXIT("Exit: %s, WWPN = %s, fits = %d\n", "canFormatWWPN()", NA_STR(wwpn), fits ? 1 : 0);
    return fits;
}

std::string MultipathZPLLinux::formatWWPN(const std::string& wwpn) {
    NA_TRACE_ENTER("formatWWPN()");
    std::string formatted;
    if (canFormatWWPN(wwpn)) {
        for (size_t pos = 0; pos < kMinWwpnChars; pos += 2) {
            formatted += wwpn.substr(pos, 2);
            formatted += ':';
        }
        // Only the last pair is taken, so a trailing blank or extra characters never
        // reach lunctl's search.
        formatted += wwpn.substr(kMinWwpnChars, 2);
    }
    NA_TRACE_EXIT("Exit: %s, formattedWWPN = %s\n", "formatWWPN()", NA_STR(formatted));
    return formatted;
}

int32_t MultipathZPLLinux::performDynamicReconfiguration() {
    NA_TRACE_ENTER("performDynamicReconfiguration()");
    CommandResult result = runWords({kReconfigure});
    int32_t rc = RC_OK;
    if (result.notRun()) {
        reportNotRun(result, "performDynamicReconfiguration()");
        rc = RC_RECONFIG_NOT_RUN;
    } else if (result.rc != RC_OK) {
        NA_TRACE_MIN("%s: Error running '%s', exit code %d: %s\n", "performDynamicReconfiguration()",
                     NA_STR(result.cmdLine), result.rc, NA_STR(errorText(result)));
        rc = RC_DRIVER_CMD_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "performDynamicReconfiguration()", rc);
    return rc;
}
