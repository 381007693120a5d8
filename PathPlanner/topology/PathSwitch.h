// Takes every multipath path that runs through one adapter port offline, or brings
// them back, through multipathd; refuses an offline request that would leave a map
// without a usable path. Also reads the adapter port of each path from sysfs.
#ifndef PATHPLANNER_TOPOLOGY_PATHSWITCH_H
#define PATHPLANNER_TOPOLOGY_PATHSWITCH_H

#include <cstdint>
#include <string>
#include <vector>

#include "Multipath/linux/DMMapView.h"

class MultipathDMLinux;

inline constexpr char kFcHostDir[] = "/sys/class/fc_host";

// One path (or, for the queueing switch, one map: device empty) in a result list.
struct PathOutcome {
    std::string map;
    std::string device;
    std::string dmState;  // the path's state when last read; empty when unknown
    std::string reason;   // why it was refused or failed
};

struct PathSwitchResult {
    bool dryRun = false;
    std::vector<PathOutcome> changed;    // reached the requested state (dry run: would be changed)
    std::vector<PathOutcome> unchanged;  // were in the requested state already
    std::vector<PathOutcome> refused;    // not touched: the request was refused
    std::vector<PathOutcome> failed;     // tried, and not in the requested state afterwards
};

struct PathSwitchRequest {
    std::string wwpn;              // 16 lower-case hex digits
    bool offline = true;           // false: online
    std::vector<std::string> maps; // only these maps; empty: every map
    bool dryRun = false;
    bool force = false;            // take the last usable path of a map offline too
    std::string fcHostDir = kFcHostDir;
};

// Sets adapterWwpn of every path whose SCSI host has a readable, valid
// fcHostDir/host<N>/port_name.
void attachAdapterPorts(const std::string& fcHostDir, std::vector<DmViewMap>* maps);

// Runs the request. RC_OK when every selected path is in the requested state (or
// would be, on a dry run); RC_NO_MATCHING_PATH (no such adapter port, no path
// through it, or a --map that names no map), RC_PATHS_REFUSED (nothing changed),
// RC_DRIVER_CMD_FAILED (listing failed, or a path did not change), with *error
// set to the one line that says why.
int32_t switchPaths(MultipathDMLinux* driver, const PathSwitchRequest& request, PathSwitchResult* result,
                    std::string* error);

#endif
