#include "PathPlanner/topology/PathSwitch.h"

#include <dirent.h>
#include <pwd.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <set>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Multipath/linux/MultipathDMLinux.h"
#include "PathPlanner/topology/TopologyFormat.h"

namespace {

constexpr char kFailedState[] = "failed";
constexpr char kActiveState[] = "active";
constexpr char kReadyChecker[] = "ready";

// One selected path with the map it belongs to.
struct Selected {
    const DmViewMap* map;
    const DmViewPath* path;
};

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

bool readPortName(const std::string& file, std::string* wwpn) {
    std::ifstream in(file);
    std::string text;
    return in && std::getline(in, text) && dmNormalizeWwpn(text, wwpn);
}

bool adapterPortExists(const std::string& fcHostDir, const std::string& wwpn) {
    NA_TRACE_ENTER("adapterPortExists()");
    std::unique_ptr<DIR, DirCloser> dir(opendir(fcHostDir.c_str()));
    bool found = false;
    while (dir && !found) {
        const dirent* entry = readdir(dir.get());
        if (!entry) break;
        std::string port;
        found = readPortName(fcHostDir + "/" + entry->d_name + "/port_name", &port) && port == wwpn;
    }
    NA_TRACE_EXIT("Exit: %s, found = %d\n", "adapterPortExists()", found ? 1 : 0);
    return found;
}

// The account that asked, so the log tells who changed a path.
std::string requester() {
    const passwd* pw = getpwuid(getuid());
    return pw ? pw->pw_name : "uid " + std::to_string(getuid());
}

// A path is usable when the kernel sends I/O down it and its checker agrees.
bool usable(const DmViewPath& path) {
    return path.dmState == kActiveState && path.checkerState == kReadyChecker;
}

bool inRequestedState(const DmViewPath& path, bool offline) {
    return path.dmState == (offline ? kFailedState : kActiveState);
}

PathOutcome outcome(const Selected& s, const std::string& reason = std::string()) {
    return PathOutcome{s.map->name, s.path->device, s.path->dmState.value_or(""), reason};
}

bool wanted(const DmViewMap& map, const std::vector<std::string>& names) {
    if (names.empty()) return true;
    for (const std::string& name : names) {
        if (name == map.name) return true;
    }
    return false;
}

std::vector<Selected> selectPaths(const std::vector<DmViewMap>& maps, const PathSwitchRequest& request) {
    std::vector<Selected> selected;
    for (const DmViewMap& map : maps) {
        if (!wanted(map, request.maps)) continue;
        for (const DmViewGroup& group : map.groups) {
            for (const DmViewPath& path : group.paths) {
                if (path.adapterWwpn == request.wwpn) selected.push_back({&map, &path});
            }
        }
    }
    return selected;
}

// Maps that would have no usable path once the selected paths are failed.
std::vector<std::string> strandedMaps(const std::vector<Selected>& selected) {
    std::set<const DmViewPath*> leaving;
    std::vector<const DmViewMap*> affected;
    for (const Selected& s : selected) {
        leaving.insert(s.path);
        if (affected.empty() || affected.back() != s.map) affected.push_back(s.map);
    }
    std::vector<std::string> stranded;
    for (const DmViewMap* map : affected) {
        int32_t left = 0;
        for (const DmViewGroup& group : map->groups) {
            for (const DmViewPath& path : group.paths) {
                if (usable(path) && leaving.count(&path) == 0) ++left;
            }
        }
        if (left == 0) stranded.push_back(map->name);
    }
    return stranded;
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
    return text;
}

// Reads the view with every path's adapter port; *error says why when it fails.
int32_t readView(MultipathDMLinux* driver, const std::string& fcHostDir, std::vector<DmViewMap>* maps,
                 std::string* error) {
    NA_TRACE_ENTER("readView()");
    DmListingResult listing;
    driver->getMapView(maps, &listing);
    bool noMaps = listing.status == DmListingStatus::kEmpty && listing.exitCode == RC_OK;
    int32_t rc = RC_OK;
    if (listing.status != DmListingStatus::kParsed && !noMaps) {
        *error = topologyListingError(listing);
        rc = RC_DRIVER_CMD_FAILED;
    } else {
        attachAdapterPorts(fcHostDir, maps);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "readView()", rc);
    return rc;
}

int32_t checkRequest(const std::vector<DmViewMap>& maps, const PathSwitchRequest& request,
                     const std::vector<Selected>& selected, std::string* error) {
    int32_t rc = RC_OK;
    for (const std::string& name : request.maps) {
        bool known = false;
        for (const DmViewMap& map : maps) known = known || map.name == name;
        if (!known && rc == RC_OK) {
            *error = "no multipath map is named " + name;
            rc = RC_NO_MATCHING_PATH;
        }
    }
    if (rc == RC_OK && !adapterPortExists(request.fcHostDir, request.wwpn)) {
        *error = "no adapter port has the WWPN " + request.wwpn;
        rc = RC_NO_MATCHING_PATH;
    } else if (rc == RC_OK && selected.empty()) {
        *error = "no multipath path runs through the adapter port " + request.wwpn;
        rc = RC_NO_MATCHING_PATH;
    }
    return rc;
}

void logChange(const Selected& s, const PathSwitchRequest& request) {
    if (request.offline) {
        logMsg(activityLog, AGT0470I, NA_STR(requester()), NA_STR(s.path->device), NA_STR(s.map->name),
               NA_STR(request.wwpn));
    } else {
        logMsg(activityLog, AGT0471I, NA_STR(requester()), NA_STR(s.path->device), NA_STR(s.map->name),
               NA_STR(request.wwpn));
    }
}

void logFailure(const PathOutcome& failed, const PathSwitchRequest& request) {
    logMsg(activityLog, AGT0472E, NA_STR(requester()), NA_STR(failed.device), NA_STR(failed.map),
           request.offline ? "offline" : "online", NA_STR(failed.reason));
}

void runChanges(MultipathDMLinux* driver, const std::vector<Selected>& toChange, const PathSwitchRequest& request,
                PathSwitchResult* result) {
    NA_TRACE_ENTER("runChanges()");
    for (const Selected& s : toChange) {
        CommandResult run;
        int32_t rc = driver->changePathState(s.path->device, request.offline, &run);
        if (rc == RC_OK) {
            logChange(s, request);
            result->changed.push_back(outcome(s));
        } else {
            std::string said = topologyExplainingLine(run.err.empty() ? run.out : run.err);
            std::string reason = rc == RC_BAD_ARGS ? "not a plain device name"
                                 : said.empty()    ? "multipathd failed"
                                                   : "multipathd: " + said;
            result->failed.push_back(outcome(s, reason));
            logFailure(result->failed.back(), request);
        }
    }
    NA_TRACE_EXIT("Exit: %s, changed = %d\n", "runChanges()", static_cast<int>(result->changed.size()));
}

// Reads the maps again: a path counts as changed only when the kernel says so.
void verifyChanges(MultipathDMLinux* driver, const PathSwitchRequest& request, PathSwitchResult* result) {
    NA_TRACE_ENTER("verifyChanges()");
    std::vector<DmViewMap> maps;
    std::string error;
    std::map<std::string, std::string> states;
    if (readView(driver, request.fcHostDir, &maps, &error) == RC_OK) {
        for (const DmViewMap& map : maps) {
            for (const DmViewGroup& group : map.groups) {
                for (const DmViewPath& path : group.paths) states[path.device] = path.dmState.value_or("");
            }
        }
    }
    std::vector<PathOutcome> confirmed;
    for (PathOutcome& change : result->changed) {
        auto now = states.find(change.device);
        change.dmState = now == states.end() ? "" : now->second;
        if (change.dmState == (request.offline ? kFailedState : kActiveState)) {
            confirmed.push_back(change);
        } else {
            change.reason = "the kernel reports the path " + (change.dmState.empty() ? "missing" : change.dmState);
            result->failed.push_back(change);
            logFailure(change, request);
        }
    }
    result->changed = confirmed;
    NA_TRACE_EXIT("Exit: %s, confirmed = %d\n", "verifyChanges()", static_cast<int>(confirmed.size()));
}

void refuseAll(const std::vector<Selected>& toChange, const std::vector<std::string>& stranded,
               PathSwitchResult* result) {
    for (const Selected& s : toChange) {
        bool last = false;
        for (const std::string& name : stranded) last = last || name == s.map->name;
        result->refused.push_back(outcome(s, last ? "last usable path of its map" : "request refused"));
    }
}

}  // namespace

void attachAdapterPorts(const std::string& fcHostDir, std::vector<DmViewMap>* maps) {
    NA_TRACE_ENTER("attachAdapterPorts()");
    std::map<uint32_t, std::string> ports;
    for (DmViewMap& map : *maps) {
        for (DmViewGroup& group : map.groups) {
            for (DmViewPath& path : group.paths) {
                auto known = ports.find(path.host);
                if (known == ports.end()) {
                    std::string wwpn;
                    readPortName(fcHostDir + "/host" + std::to_string(path.host) + "/port_name", &wwpn);
                    known = ports.emplace(path.host, wwpn).first;
                }
                if (!known->second.empty()) path.adapterWwpn = known->second;
            }
        }
    }
    NA_TRACE_EXIT("Exit: %s, hosts = %d\n", "attachAdapterPorts()", static_cast<int>(ports.size()));
}

int32_t switchPaths(MultipathDMLinux* driver, const PathSwitchRequest& request, PathSwitchResult* result,
                    std::string* error) {
    NA_TRACE_ENTER("switchPaths()");
    result->dryRun = request.dryRun;
    std::vector<DmViewMap> maps;
    int32_t rc = readView(driver, request.fcHostDir, &maps, error);
    std::vector<Selected> selected = selectPaths(maps, request);
    if (rc == RC_OK) rc = checkRequest(maps, request, selected, error);
    std::vector<Selected> toChange;
    for (const Selected& s : selected) {
        if (inRequestedState(*s.path, request.offline)) {
            result->unchanged.push_back(outcome(s));
        } else {
            toChange.push_back(s);
        }
    }
    std::vector<std::string> stranded = request.offline ? strandedMaps(selected) : std::vector<std::string>();
    if (rc == RC_OK && !stranded.empty() && !request.force) {
        refuseAll(toChange, stranded, result);
        logMsg(activityLog, AGT0473W, NA_STR(request.wwpn), NA_STR(joined(stranded)));
        *error = "refused, nothing changed: the maps " + joined(stranded) +
                 " would have no usable path left (--force overrides)";
        rc = RC_PATHS_REFUSED;
    } else if (rc == RC_OK && request.dryRun) {
        for (const Selected& s : toChange) result->changed.push_back(outcome(s));
    } else if (rc == RC_OK && !toChange.empty()) {
        runChanges(driver, toChange, request, result);
        verifyChanges(driver, request, result);
    }
    if (rc == RC_OK && !result->failed.empty()) {
        *error = std::to_string(result->failed.size()) + " of " + std::to_string(toChange.size()) +
                 " paths did not go " + (request.offline ? "offline" : "online") + ": " +
                 result->failed.front().device + ": " + result->failed.front().reason;
        rc = RC_DRIVER_CMD_FAILED;
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "switchPaths()", rc);
    return rc;
}
