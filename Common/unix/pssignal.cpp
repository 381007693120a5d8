// A stop request must not abort the tool mid-command: the handler only records it,
// and the rescan looks at the record once, before it starts.
#include "Common/unix/pssignal.h"

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"

volatile sig_atomic_t agentStopRequested = 0;

void unxInterruptHandler(int sig) {
    NA_TRACE_ENTER("unxInterruptHandler()");
    if (sig == SIGINT || sig == SIGTERM) {
        NA_TRACE_MIN("Caught signal %d\n", sig);
        agentStopRequested = 1;
    }
    NA_TRACE_EXIT("Exit: %s\n", "unxInterruptHandler()");
}

int32_t installSignalHandlers() {
    NA_TRACE_ENTER("installSignalHandlers()");
    struct sigaction action;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGTERM);
    sigaddset(&action.sa_mask, SIGPIPE);
    sigaddset(&action.sa_mask, SIGHUP);
    action.sa_flags = 0;
    action.sa_handler = unxInterruptHandler;
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    // Our own process group, so a stop sent to the group reaches the commands we run.
    int32_t rc = setpgid(0, 0);
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "installSignalHandlers()", rc);
    return rc;
}

int32_t psSendInterrupt(int32_t pid, int32_t sig) {
    NA_TRACE_ENTER("psSendInterrupt()");
    NA_TRACE_MID("Send signal %d to %d\n", sig, pid);
    int32_t rc = kill(static_cast<pid_t>(pid), sig) == 0 ? RC_OK : -1;
    if (rc != RC_OK) {
        NA_TRACE_MIN("Failed to send signal.\n");
    } else {
        NA_TRACE_MID("Signal sent\n");
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psSendInterrupt()", rc);
    return rc;
}

int32_t psSendJobInterrupt(const std::string& pidText) {
    NA_TRACE_ENTER("psSendJobInterrupt()");
    int32_t rc = -1;
    long pid = strtol(pidText.c_str(), nullptr, 10);
    if (pid == 0) {
        NA_TRACE_MIN("Invalid pid %s\n", NA_STR(pidText));
    } else {
        rc = psSendInterrupt(static_cast<int32_t>(pid), SIGTERM);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "psSendJobInterrupt()", rc);
    return rc;
}
