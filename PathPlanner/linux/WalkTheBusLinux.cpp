#include "PathPlanner/linux/WalkTheBusLinux.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <utility>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentTrace.h"
#include "Common/CmdExecer.h"
#include "Common/FailureNote.h"
#include "Common/unix/ScopedFd.h"

namespace {

const char kRescanFilePrefix[] = "/tmp/rescanScript";
constexpr uint32_t kSettleSeconds = 60;

// The name is predictable and /tmp is shared, so whatever another user put there
// first (a file they own and can rewrite, a FIFO that would block the open, a
// link) is removed, and the script is created anew. O_EXCL makes the open fail,
// never block, when something reappears under the name in between.
int createExclusive(const std::string& path) {
    unlink(path.c_str());
    return open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRWXU);
}

}  // namespace

#ifdef PP_PRIVATE_RESCAN_SCRIPT
const mode_t kRescanScriptMode = S_IRWXU;
#else
// Decimal 755 is octal 1363 (sticky; owner wx, group rw, others wx), not 0755.
// The value is deliberate: keep it decimal. It lets any local user rewrite the
// script before it runs; PP_PRIVATE_RESCAN_SCRIPT builds it 0700 instead.
const mode_t kRescanScriptMode = 755;
#endif

void waitThrough(std::chrono::milliseconds duration) {
    timespec left;
    left.tv_sec = static_cast<time_t>(duration.count() / 1000);
    left.tv_nsec = static_cast<long>(duration.count() % 1000) * 1000000L;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

void waitSeconds(uint32_t seconds) { waitThrough(std::chrono::seconds(seconds)); }

WalkTheBusLinux::WalkTheBusLinux(std::unique_ptr<MultipathDriver> driver, Sleeper sleeper, std::string script)
    : WalkTheBus(std::move(driver)), sleeper_(std::move(sleeper)), script_(std::move(script)) {
    rescanFile = getRescanFile();
}

std::string WalkTheBusLinux::getRescanFile() {
    NA_TRACE_ENTER("getRescanFile()");
    std::string name = kRescanFilePrefix + std::to_string(getpid());
    NA_TRACE_EXIT("Exit: %s\n", "getRescanFile()");
    return name;
}

int32_t WalkTheBusLinux::writeScript() {
    NA_TRACE_ENTER("writeScript()");
    int32_t rc = RC_CANCELLED;
    ScopedFd fd(createExclusive(rescanFile));
    if (fd.get() < 0) {
        NA_TRACE_MIN("%s Unable to create rescan script.\n", "writeScript()");
    } else if (!fd.writeAll(script_)) {
        unlink(rescanFile.c_str());
        NA_TRACE_MIN("%s Unable to write to rescan script.\n", "writeScript()");
    } else {
        // The mode goes on the open descriptor, so no second lookup of the name.
        rc = fchmod(fd.get(), kRescanScriptMode);
        if (fd.close() != 0) {
            unlink(rescanFile.c_str());
            NA_TRACE_MIN("%s Unable to write to rescan script.\n", "writeScript()");
            rc = RC_CANCELLED;
        }
    }
    NA_TRACE_EXIT("Exit: %s, rc=%d\n", "writeScript()", rc);
    return rc;
}

int32_t WalkTheBusLinux::runScript() {
    CmdExecer exec({rescanFile});
    int32_t rc = exec.runCommand();
    if (rc == RC_OK) {
        NA_TRACE_MID("Rescan output: %s\n", NA_STR(exec.sysOut));
        if (multipathDriver) {
            NA_TRACE_MID("Waiting 60 seconds for system refresh...\n");
            sleeper_(kSettleSeconds);
            rc = multipathDriver->performDynamicReconfiguration();
        }
    } else {
        NA_TRACE_MIN("%s Rescan output: %s\n", "walkTheBus()", NA_STR(exec.sysOut));
        // The script explains a refusal on its standard output ("Error: SCSI subsystem
        // not active"); anything else that stops it speaks on standard error.
        noteFailure(exec.sysOut.empty() ? exec.sysErr : exec.sysOut);
    }
    return rc;
}

int32_t WalkTheBusLinux::walkTheBus() {
    NA_TRACE_ENTER("walkTheBus()");
    int32_t rc = writeScript();
    if (rc == RC_OK) rc = runScript();
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "walkTheBus()", rc);
    return rc;
}
