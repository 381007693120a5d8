// PathPlannerTopology: prints the device-mapper multipath topology, switches queueing
// maps to failing, and takes the paths of one adapter port offline or back online.
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/LogManager.h"
#include "Common/comutils.h"
#include "Common/unix/ScopedFd.h"
#include "Multipath/linux/MultipathDMLinux.h"
#include "PathPlanner/topology/PathSwitch.h"
#include "PathPlanner/topology/TopologyFormat.h"
#include "PathPlannerVersion.h"

namespace {

constexpr char kProgram[] = "PathPlannerTopology";
constexpr char kActivityLogPath[] = "/log/multipath.log";
constexpr char kUsage[] =
    "Usage: PathPlannerTopology [--json | --records | --table] [--trace FILE]\n"
    "       PathPlannerTopology --offline WWPN | --online WWPN [--map NAME]... [--dry-run] [--force]\n"
    "                           [--json | --table] [--trace FILE]\n"
    "       PathPlannerTopology --fail-if-no-path [--json | --table] [--trace FILE]\n"
    "Reads the device-mapper multipath topology with \"multipath -ll -v2\".\n"
    "  --json             the maps, their path groups and paths as one JSON object, version 2 (default)\n"
    "  --records          one JSON array of flat path records, in device-name order\n"
    "  --table            the path records (or the result of a change) as an aligned table\n"
    "  --offline WWPN     fail every path through the adapter port WWPN (multipathd fail path)\n"
    "  --online WWPN      reinstate every path through the adapter port WWPN (multipathd reinstate path)\n"
    "  --map NAME         change only paths of map NAME (repeatable)\n"
    "  --dry-run          print what would be changed, change nothing\n"
    "  --force            take paths offline even when a map is left without a usable path\n"
    "  --fail-if-no-path  switch every map that queues I/O without paths to failing it\n"
    "  --trace FILE       write a full trace to FILE\n"
    "  --version          print the version\n"
    "  --help             show this text\n"
    "WWPN: 16 hex digits, with or without 0x and colons, any case.\n"
    "Exit status:\n"
    "  0    success: every requested path or map is in the requested state\n"
    "  1    the trace file could not be started\n"
    "  3    unknown, incomplete or conflicting options\n"
    "  169  no device-mapper multipath driver found (rpm reports no multipath package)\n"
    "  173  a command could not be run or failed, or a path or map did not change\n"
    "  174  --offline refused: a map would be left without a usable path; nothing changed\n"
    "  175  the WWPN matches no adapter port or no path, or --map names no map\n"
    "Every failure prints one line on standard error.\n";

enum class Action { kShow, kFailIfNoPath, kOffline, kOnline, kHelp, kVersion };
enum class Format { kJson, kRecords, kTable };

struct Options {
    Action action = Action::kShow;
    Format format = Format::kJson;
    std::string traceFile;
    std::string wwpnText;
    std::vector<std::string> maps;
    bool dryRun = false;
    bool force = false;
};

void printError(const std::string& text) {
    fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
}

enum OptionId { kOptJson = 256, kOptRecords, kOptTable, kOptFail, kOptOffline, kOptOnline, kOptMap, kOptDryRun,
                kOptForce, kOptTrace, kOptVersion, kOptHelp };

constexpr struct option kLongOptions[] = {
    {"json", no_argument, nullptr, kOptJson},
    {"records", no_argument, nullptr, kOptRecords},
    {"table", no_argument, nullptr, kOptTable},
    {"fail-if-no-path", no_argument, nullptr, kOptFail},
    {"offline", required_argument, nullptr, kOptOffline},
    {"online", required_argument, nullptr, kOptOnline},
    {"map", required_argument, nullptr, kOptMap},
    {"dry-run", no_argument, nullptr, kOptDryRun},
    {"force", no_argument, nullptr, kOptForce},
    {"trace", required_argument, nullptr, kOptTrace},
    {"version", no_argument, nullptr, kOptVersion},
    {"help", no_argument, nullptr, kOptHelp},
    {nullptr, 0, nullptr, 0},
};

// Two actions on one command line are a mistake, not a choice of the last one.
int32_t setAction(Action action, Options* options) {
    bool clash = options->action != Action::kShow && options->action != action;
    if (clash) printError("only one of --offline, --online and --fail-if-no-path may be given; see --help");
    options->action = action;
    return clash ? RC_BAD_ARGS : RC_OK;
}

int32_t takeOption(int id, Options* options) {
    int32_t rc = RC_OK;
    switch (id) {
        case kOptJson: options->format = Format::kJson; break;
        case kOptRecords: options->format = Format::kRecords; break;
        case kOptTable: options->format = Format::kTable; break;
        case kOptFail: rc = setAction(Action::kFailIfNoPath, options); break;
        case kOptOffline: rc = setAction(Action::kOffline, options); options->wwpnText = optarg; break;
        case kOptOnline: rc = setAction(Action::kOnline, options); options->wwpnText = optarg; break;
        case kOptMap: options->maps.emplace_back(optarg); break;
        case kOptDryRun: options->dryRun = true; break;
        case kOptForce: options->force = true; break;
        case kOptTrace: options->traceFile = optarg; break;
        case kOptVersion: options->action = Action::kVersion; break;
        case 'h':
        case kOptHelp: options->action = Action::kHelp; break;
        default:
            // getopt_long has already said what was wrong on standard error.
            rc = RC_BAD_ARGS;
            break;
    }
    return rc;
}

// The options that only make sense with --offline or --online, and names that could
// never be put into a command.
int32_t checkCombination(const Options& options) {
    bool changing = options.action == Action::kOffline || options.action == Action::kOnline;
    std::string problem;
    if (!changing && (!options.maps.empty() || options.dryRun || options.force)) {
        problem = "--map, --dry-run and --force need --offline or --online";
    } else if (options.action != Action::kShow && options.format == Format::kRecords) {
        problem = "--records only goes with the topology listing";
    }
    for (const std::string& name : options.maps) {
        if (problem.empty() && !dmSafeName(name)) problem = "'" + name + "' is not a multipath map name";
    }
    std::string wwpn;
    if (problem.empty() && changing && !dmNormalizeWwpn(options.wwpnText, &wwpn)) {
        problem = "'" + options.wwpnText + "' is not a WWPN (16 hex digits, with or without 0x and colons)";
    }
    if (!problem.empty()) printError(problem + "; see --help");
    return problem.empty() ? RC_OK : RC_BAD_ARGS;
}

int32_t parseOptions(int argc, char** argv, Options* options) {
    int32_t rc = RC_OK;
    opterr = 0;
    optind = 1;
    int id = 0;
    while (rc == RC_OK && (id = getopt_long(argc, argv, ":h", kLongOptions, nullptr)) != -1) {
        if (id == '?' || id == ':') {
            std::string arg = argv[optind - 1];
            printError("unknown or incomplete option '" + arg + "'; see --help");
            rc = RC_BAD_ARGS;
        } else {
            rc = takeOption(id, options);
        }
    }
    if (rc == RC_OK && optind < argc) {
        printError(std::string("unexpected argument '") + argv[optind] + "'; see --help");
        rc = RC_BAD_ARGS;
    }
    if (rc == RC_OK) rc = checkCombination(*options);
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

std::string commandFailure(const std::string& command, const std::string& err, bool ran) {
    std::string shown = command.substr(0, command.find(" >>"));
    std::string said = topologyExplainingLine(err);
    std::string text = ran ? getMsg(STA0523E, NA_STR(shown)) : getMsg(STA0356E, NA_STR(shown));
    if (text.empty()) text = "the command " + shown + (ran ? " failed" : " could not be run");
    return said.empty() ? text : text + " (" + said + ")";
}

// Prints the topology; a listing that printed nothing and exited 0 has no maps.
int32_t showTopology(MultipathDMLinux* driver, const Options& options, const std::string& driverText) {
    NA_TRACE_ENTER("showTopology()");
    Topology topology;
    std::vector<DmViewMap> maps;
    DmListingResult result;
    {
        QuietStderr quiet;
        if (options.format == Format::kJson) {
            driver->getMapView(&maps, &result);
            attachAdapterPorts(kFcHostDir, &maps);
        } else {
            driver->getMultipathConfig(&topology, driver, &result);
        }
    }
    bool noMaps = result.status == DmListingStatus::kEmpty && result.exitCode == RC_OK;
    int32_t rc = RC_OK;
    if (result.status != DmListingStatus::kParsed && !noMaps) {
        printError(topologyListingError(result));
        rc = RC_DRIVER_CMD_FAILED;
    } else if (options.format == Format::kJson) {
        fputs(mapViewToJson(maps, driverText).c_str(), stdout);
    } else {
        fputs((options.format == Format::kTable ? topologyToTable(topology) : topologyToJson(topology)).c_str(), stdout);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "showTopology()", rc);
    return rc;
}

void printResult(const PathSwitchResult& result, Format format) {
    fputs((format == Format::kTable ? switchResultToTable(result) : switchResultToJson(result)).c_str(), stdout);
}

int32_t switchQueueingMaps(MultipathDMLinux* driver, Format format) {
    NA_TRACE_ENTER("switchQueueingMaps()");
    DmQueueingSwitchResult done;
    {
        QuietStderr quiet;
        driver->setFailIfNoPath(&done);
    }
    PathSwitchResult result;
    for (const std::string& name : done.switched) result.changed.push_back({name, "", "", ""});
    for (const std::string& name : done.notQueueing) result.unchanged.push_back({name, "", "", ""});
    for (const std::string& name : done.refused) result.failed.push_back({name, "", "", "dmsetup refused fail_if_no_path"});
    int32_t rc = RC_OK;
    if (done.stopped) {
        printError(commandFailure(done.failedCommand, done.failedErr, done.failedRan));
        rc = RC_DRIVER_CMD_FAILED;
    } else {
        printResult(result, format);
        if (!done.refused.empty()) {
            printError("dmsetup refused fail_if_no_path for " + done.refused.front() +
                       (done.refused.size() > 1 ? " and other maps" : ""));
            rc = RC_DRIVER_CMD_FAILED;
        }
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "switchQueueingMaps()", rc);
    return rc;
}

int32_t changePaths(MultipathDMLinux* driver, const Options& options) {
    NA_TRACE_ENTER("changePaths()");
    PathSwitchRequest request;
    dmNormalizeWwpn(options.wwpnText, &request.wwpn);
    request.offline = options.action == Action::kOffline;
    request.maps = options.maps;
    request.dryRun = options.dryRun;
    request.force = options.force;
    PathSwitchResult result;
    std::string error;
    int32_t rc = RC_OK;
    {
        QuietStderr quiet;
        rc = switchPaths(driver, request, &result, &error);
    }
    // A refusal and a partial failure still show every path; a request that named
    // nothing, or a listing that failed, has nothing to show.
    if (rc == RC_OK || rc == RC_PATHS_REFUSED || !result.failed.empty()) printResult(result, options.format);
    if (rc != RC_OK) printError(error);
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "changePaths()", rc);
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
        std::string text = getMsg(AGT0456E);
        printError(text.empty() ? "no device-mapper multipath driver was found" : text);
        rc = RC_NO_MULTIPATH_DRIVER;
    } else if (options.action == Action::kFailIfNoPath) {
        rc = switchQueueingMaps(&driver, options.format);
    } else if (options.action == Action::kOffline || options.action == Action::kOnline) {
        rc = changePaths(&driver, options);
    } else {
        rc = showTopology(&driver, options, dmDriverText(version));
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "run()", rc);
    return rc;
}

// The catalogue is optional here: without an installed agent the fallback texts serve.
bool startMessages(const std::string& installDir) {
    return !installDir.empty() && initMessages(installDir + "/nls", "", getMessageCatalogName(), "") == RC_OK;
}

// Changes go to the agent's activity log, so its history shows who changed a path;
// reading the topology writes nothing there.
std::unique_ptr<LogManager> openActivityLog(const std::string& installDir, const Options& options) {
    bool changing = options.action != Action::kShow && !options.dryRun;
    if (installDir.empty() || !changing) return nullptr;
    return std::make_unique<LogManager>(installDir + kActivityLogPath);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    int32_t rc = parseOptions(argc, argv, &options);
    bool messages = false;
    bool traced = false;
    if (rc == RC_OK && options.action == Action::kHelp) {
        fputs(kUsage, stdout);
    } else if (rc == RC_OK && options.action == Action::kVersion) {
        printf("%s %s\n", kProgram, PP_VERSION);
    } else if (rc == RC_OK) {
        traced = initTrace(options.traceFile, "MAX", 1024) == RC_OK;
        if (!traced) printError("the trace file " + options.traceFile + " could not be started");
        if (!traced) rc = RC_TRACE_BEGIN_FAILED;
    }
    std::unique_ptr<LogManager> log;
    if (traced) {
        std::string installDir = getInstallLocation();
        messages = startMessages(installDir);
        log = openActivityLog(installDir, options);
        activityLog = log.get();
        rc = run(options);
        activityLog = nullptr;
    }
    fflush(stdout);
    if (messages) endMessages();
    if (traced) endTrace();
    return rc;
}
