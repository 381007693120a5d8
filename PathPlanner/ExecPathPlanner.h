// The path planner's request and its one action: check the multipath request, then
// run the action its setting names (policy change, path state change or bus rescan)
// and return the result that becomes the process exit status.
#ifndef PATHPLANNER_EXECPATHPLANNER_H
#define PATHPLANNER_EXECPATHPLANNER_H

#include <cstdint>
#include <string>
#include <vector>

class PPlannerDriver;

// One multipath request as validateArgs leaves it and the actions read it.
struct MultipathRequest {
    int32_t setting = 0;
    std::vector<std::string> devices;
    std::vector<std::string> wwpns;  // state changes only
};

// The run's request (process-wide; the tool is single-threaded and runs one request).
extern MultipathRequest multipathRequest;

// Component name of the tool's messages and its version text.
extern const char kPathPlannerComponent[];
extern const char kPathPlannerVersion[];

// Checks the tokens of the "multipath" option and stores the request in *request
// (its lists are appended to): RC_OK, RC_BAD_ARGS (token 1 not a number),
// RC_UNKNOWN_SETTING or RC_MISSING_VALUE (no tokens, or devices/WWPNs missing for
// the setting).
int32_t validateArgs(const std::vector<std::string>& options, MultipathRequest* request);

// Runs the action of a validated request's setting, announcing it in the activity
// log first where the agent expects that (policy changes and rescans).
int32_t runRequestedAction(PPlannerDriver* plannerDriver, const MultipathRequest& request);

// The three actions. Each borrows the planner driver and returns the result that
// becomes the exit status: the driver's or vehicle's own result unchanged,
// RC_NO_MULTIPATH_DRIVER when the host has no multipath driver (policy and state),
// RC_CANCELLED when a stop was requested before the rescan.
int32_t setMultipathPolicy(PPlannerDriver* plannerDriver, const MultipathRequest& request);
int32_t setMultipathState(PPlannerDriver* plannerDriver, const MultipathRequest& request);
int32_t walkTheBus(PPlannerDriver* plannerDriver);

// "Load Balancing", "Round Robin", "Failover", or "Unknown" for other settings.
const char* policyName(int32_t setting);

#endif
