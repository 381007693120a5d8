#include "PathPlanner/ExitLine.h"

#include <unistd.h>

#include <cstdio>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"
#include "Common/FailureNote.h"

namespace {

struct Meaning {
    int32_t rc;
    const char* text;
};

const Meaning kMeanings[] = {
    {RC_OUT_OF_MEMORY, "out of memory at start"},
    {RC_BAD_ARGS, "the command line or the multipath setting was rejected"},
    {RC_UNKNOWN_SETTING, "unknown multipath setting; the settings are 0 to 5"},
    {RC_MISSING_VALUE, "the multipath request or an option's value is missing or incomplete"},
    {RC_CANCELLED, "the rescan was cancelled by a stop request, or its script could not be written"},
    {RC_TRACE_FAILED, "the trace could not be started"},
    {RC_NO_INSTALL_DIR, "the installation directory /opt/ZOR/QLX/agent does not exist"},
    {RC_RECONFIG_NOT_RUN, "the multipath driver's reconfiguration command could not be run"},
    {RC_CATALOG_FAILED, "the message catalogue could not be started"},
    {RC_NO_MULTIPATH_DRIVER, "no multipath driver was found on this host"},
    {RC_ZPL_DEVICE_NOT_FOUND, "the multipath driver does not know the device"},
    {RC_SETTING_NOT_SUPPORTED, "the multipath driver cannot apply this setting"},
    {RC_DRIVER_CMD_FAILED, "a multipath driver command could not be run or failed"},
};

// After a rescan only the vehicle's own codes keep their meaning; any other number is
// what the script said with its exit status (1 is its "cannot scan" answer, not a
// lack of memory).
const int32_t kRescanCodes[] = {RC_CANCELLED, RC_RECONFIG_NOT_RUN, RC_NO_MULTIPATH_DRIVER, RC_DRIVER_CMD_FAILED};

const char* tableMeaning(int32_t rc) {
    const char* text = nullptr;
    for (const Meaning& m : kMeanings) {
        if (m.rc == rc) text = m.text;
    }
    return text;
}

bool isRescanCode(int32_t rc) {
    bool found = false;
    for (int32_t code : kRescanCodes) found = found || code == rc;
    return found;
}

}  // namespace

const char* exitMeaning(int32_t rc, bool afterRescan) {
    const char* text = tableMeaning(rc);
    if (afterRescan && !isRescanCode(rc)) {
        text = rc == RC_NOT_RUN ? "the rescan script could not be run" : "the rescan script failed";
    }
    return text ? text : "the multipath driver reported this failure";
}

std::string exitLine(int32_t rc, bool afterRescan, const std::string& reason) {
    std::string line;
    if (rc != RC_OK) {
        // The shell sees only the low byte: -1 arrives as 255.
        line = "PathPlanner failed with exit status " + std::to_string(rc & 0xFF) + " (" +
               exitMeaning(rc, afterRescan) + ")";
        if (!reason.empty()) line += ": " + reason;
    }
    return line;
}

void showExitLine(int32_t rc, bool afterRescan) {
    NA_TRACE_ENTER("showExitLine()");
    const std::string line = exitLine(rc, afterRescan, lastFailure());
    bool shown = !line.empty() && isatty(STDERR_FILENO) == 1;
    if (shown) fprintf(stderr, "%s\n", line.c_str());
    NA_TRACE_EXIT("Exit: %s, shown = %d\n", "showExitLine()", shown ? 1 : 0);
}
