// PathPlannerTopology: prints the device-mapper multipath topology the way the path
// planner's driver reads it, or switches queueing maps to failing.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/comutils.h"
#include "Common/unix/ScopedFd.h"
#include "Multipath/linux/MultipathDMLinux.h"
#include "PathPlanner/topology/TopologyFormat.h"

namespace {

constexpr char kProgram[] = "PathPlannerTopology";
constexpr char kUsage[] =
    "Usage: PathPlannerTopology [--json | --table | --fail-if-no-path] [--trace FILE]\n"
    "Reads the device-mapper multipath topology with \"multipath -ll -v2\".\n"
    "  --json             one JSON array, one object per path, in device-name order (default)\n"
    "  --table            the same paths as an aligned table\n"
    "  --fail-if-no-path  switch every map that queues I/O without paths to failing it\n"
    "  --trace FILE       write a full trace to FILE\n"
    "  --help             show this text\n"
    "Exit status 0 on success; otherwise one line on standard error.\n";

enum class Mode { kJson, kTable, kFailIfNoPath, kHelp };

struct Options {
    Mode mode = Mode::kJson;
    std::string traceFile;
};

// The error line: the catalogue's text when the catalogue has it, else the fallback.
std::string messageText(const std::string& catalogued, const std::string& fallback) {
    return catalogued.empty() ? fallback : catalogued;
}

void printError(const std::string& text) {
    fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
}

int32_t parseOptions(int argc, char** argv, Options* options) {
    int32_t rc = RC_OK;
    for (int i = 1; i < argc && rc == RC_OK; ++i) {
        std::string arg = argv[i];
        if (arg == "--json") {
            options->mode = Mode::kJson;
        } else if (arg == "--table") {
            options->mode = Mode::kTable;
        } else if (arg == "--fail-if-no-path") {
            options->mode = Mode::kFailIfNoPath;
        } else if (arg == "--help" || arg == "-h") {
            options->mode = Mode::kHelp;
        } else if (arg == "--trace" && i + 1 < argc) {
            options->traceFile = argv[++i];
        } else {
            printError("unknown or incomplete option '" + arg + "'; see --help");
            rc = RC_BAD_ARGS;
        }
    }
    return rc;
}

// The shell the tools run in inherits standard error, and a missing rpm or an
// unwritable /proc setting makes it speak there. What the tools say is traced; the
// user gets the one line this program writes.
class QuietStderr {
public:
    QuietStderr() : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
        ScopedFd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
        if (saved_.isOpen() && null.isOpen()) dup2(null.get(), STDERR_FILENO);
    }
    ~QuietStderr() {
        if (saved_.isOpen()) dup2(saved_.get(), STDERR_FILENO);
    }

private:
    ScopedFd saved_;
};

// The command as a user would type it: the executor's redirections are dropped.
std::string shownCommand(const std::string& command) {
    return command.substr(0, command.find(" >>"));
}

std::string firstLine(const std::string& text) {
    return text.substr(0, text.find('\n'));
}

std::string listingError(const DmListingResult& result) {
    std::string command = shownCommand(result.command);
    std::string said = result.sysErr.empty() ? "" : " (" + firstLine(result.sysErr) + ")";
    switch (result.status) {
        case DmListingStatus::kNotRun:
            return messageText(getMsg(STA0356E, NA_STR(command)), "the command " + command + " could not be run");
        case DmListingStatus::kNotLoaded:
            return messageText(getMsg(AGT0463I), "the device-mapper multipath driver is not loaded");
        case DmListingStatus::kNoConfigFile:
            return messageText(getMsg(AGT0464I), "multipath.conf does not exist");
        default:
            return messageText(getMsg(STA0523E, NA_STR(command)), "the command " + command + " failed") + said;
    }
}

// Prints the topology; a listing that printed nothing and exited 0 has no maps.
int32_t showTopology(MultipathDMLinux* driver, Mode mode) {
    NA_TRACE_ENTER("showTopology()");
    Topology topology;
    DmListingResult result;
    {
        QuietStderr quiet;
        driver->getMultipathConfig(&topology, driver, &result);
    }
    bool noMaps = result.status == DmListingStatus::kEmpty && result.exitCode == RC_OK;
    int32_t rc = RC_OK;
    if (result.status == DmListingStatus::kParsed || noMaps) {
        fputs((mode == Mode::kTable ? topologyToTable(topology) : topologyToJson(topology)).c_str(), stdout);
    } else {
        printError(listingError(result));
        rc = RC_DRIVER_CMD_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "showTopology()", rc);
    return rc;
}

void printMaps(const std::vector<std::string>& names, const char* what) {
    for (const std::string& name : names) printf("%s: %s\n", name.c_str(), what);
}

int32_t switchQueueingMaps(MultipathDMLinux* driver) {
    NA_TRACE_ENTER("switchQueueingMaps()");
    DmQueueingSwitchResult result;
    {
        QuietStderr quiet;
        driver->setFailIfNoPath(&result);
    }
    printMaps(result.switched, "switched to fail_if_no_path");
    printMaps(result.refused, "dmsetup refused fail_if_no_path");
    printMaps(result.notQueueing, "not queueing, left alone");
    int32_t rc = RC_OK;
    if (result.stopped) {
        std::string command = shownCommand(result.failedCommand);
        printError(messageText(getMsg(STA0356E, NA_STR(command)), "the command " + command + " could not be run"));
        rc = RC_DRIVER_CMD_FAILED;
    } else if (result.switched.empty() && result.refused.empty() && result.notQueueing.empty()) {
        printf("no multipath maps\n");
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "switchQueueingMaps()", rc);
    return rc;
}

int32_t run(const Options& options) {
    NA_TRACE_ENTER("run()");
    MultipathDMLinux driver;
    std::string version;
    {
        QuietStderr quiet;
        version = driver.getVersion();
    }
    int32_t rc = RC_OK;
    if (version.empty()) {
        printError(messageText(getMsg(AGT0456E), "no device-mapper multipath driver was found"));
        rc = RC_NO_MULTIPATH_DRIVER;
    } else if (options.mode == Mode::kFailIfNoPath) {
        rc = switchQueueingMaps(&driver);
    } else {
        rc = showTopology(&driver, options.mode);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "run()", rc);
    return rc;
}

// The catalogue is optional here: without an installed agent the fallback texts serve.
bool startMessages() {
    std::string installDir = getInstallLocation();
    return !installDir.empty() && initMessages(installDir + "/nls", "", getMessageCatalogName(), "") == RC_OK;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int32_t rc = parseOptions(argc, argv, &options);
    bool messages = false;
    bool traced = false;
    if (rc == RC_OK && options.mode == Mode::kHelp) {
        fputs(kUsage, stdout);
    } else if (rc == RC_OK) {
        rc = initTrace(options.traceFile, "MAX", 1024);
        traced = rc == RC_OK;
        if (!traced) printError("the trace file " + options.traceFile + " could not be started");
    }
    if (traced) {
        messages = startMessages();
        rc = run(options);
    }
    fflush(stdout);
    if (messages) endMessages();
    if (traced) endTrace();
    return rc;
}
