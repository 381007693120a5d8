// The path planner's one pass: check the multipath request, run its one action
// (policy change, path state change or bus rescan) and report the result as the
// process exit status.
#ifndef PATHPLANNER_EXECPATHPLANNER_H
#define PATHPLANNER_EXECPATHPLANNER_H

#include <cstdint>
#include <string>
#include <vector>

class PPlannerDriver;

// The request, set by validateArgs and read by the actions (process-wide; the
// tool is single-threaded). validateArgs appends to the two lists.
extern int32_t multipathSetting;
extern std::vector<std::string> multipathDevices;
extern std::vector<std::string> multipathWwpns;

// Component name of the tool's messages and its version text.
extern const char kPathPlannerComponent[];
extern const char kPathPlannerVersion[];

// Checks the tokens of the "multipath" option and stores the request:
// RC_OK, RC_BAD_ARGS (token 1 not a number), RC_UNKNOWN_SETTING or
// RC_MISSING_VALUE (no tokens, or devices/WWPNs missing for the setting).
int32_t validateArgs(const std::vector<std::string>& options);

// The three actions. Each borrows the planner driver and returns the result that
// becomes the exit status: the driver's or vehicle's own result unchanged,
// RC_NO_MULTIPATH_DRIVER when the host has no multipath driver (policy and state),
// RC_CANCELLED when a stop was requested before the rescan.
int32_t setMultipathPolicy(PPlannerDriver* plannerDriver);
int32_t setMultipathState(PPlannerDriver* plannerDriver);
int32_t walkTheBus(PPlannerDriver* plannerDriver);

// "Load Balancing", "Round Robin", "Failover", or "Unknown" for other settings.
const char* policyName(int32_t setting);

// The whole run of the program: set-up, validation, action, job file, clean-up.
// Returns the exit status. Lives in its own file (RunPathPlanner.cpp) because it
// is the one caller of the platform's getPlannerDriver.
int32_t runPathPlanner(int argc, const char* const* argv);

#endif
