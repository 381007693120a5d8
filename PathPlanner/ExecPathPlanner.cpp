#include "PathPlanner/ExecPathPlanner.h"

#include <climits>
#include <cstdlib>
#include <memory>

#include "BKVlib/common/ut/ReturnCodes.h"
#include "Common/AgentMessageIds.h"
#include "Common/AgentMessages.h"
#include "Common/AgentTrace.h"
#include "Common/FailureNote.h"
#include "Common/comutils.h"
#include "Common/unix/pssignal.h"
#include "Multipath/MultipathDriver.h"
#include "PathPlanner/PPlannerDriver.h"
#include "PathPlanner/WalkTheBus.h"
#include "PathPlannerVersion.h"

MultipathRequest multipathRequest;

const char kPathPlannerComponent[] = "PathPlanner";
const char kPathPlannerVersion[] = PP_VERSION;

namespace {

// The agent has always read the setting like C's "%d": leading blanks skipped, a
// sign allowed, anything after the digits ignored ("3abc" is 3). strtol reads the
// same way but, unlike sscanf, has a defined result on overflow; an out-of-range
// value is clamped so that it stays an unknown setting instead of wrapping.
bool scanSetting(const std::string& token, int32_t* setting) {
    const char* text = token.c_str();
    char* end = nullptr;
    long value = strtol(text, &end, 10);
    bool found = end != text;
    if (found) {
        if (value > INT32_MAX) value = INT32_MAX;
        if (value < INT32_MIN) value = INT32_MIN;
        *setting = static_cast<int32_t>(value);
    }
    return found;
}

int32_t storeStateRequest(const std::vector<std::string>& options, MultipathRequest* request) {
    int32_t rc = RC_OK;
    if (options.size() > 2) {
        request->devices.push_back(options[1]);
        request->wwpns.insert(request->wwpns.end(), options.begin() + 2, options.end());
    } else {
        rc = RC_MISSING_VALUE;
        NA_TRACE_MIN("Multipath arguments are incomplete, lundev or its paths are missing.\n");
        noteFailure("a state change needs a device and at least one WWPN");
    }
    // Traced even for an incomplete request, so the trace shows what was attempted.
    NA_TRACE_MID("Multipath State Change Action\n");
    return rc;
}

int32_t storePolicyRequest(const std::vector<std::string>& options, MultipathRequest* request) {
    int32_t rc = RC_OK;
    if (options.size() > 1) {
        request->devices.insert(request->devices.end(), options.begin() + 1, options.end());
    } else {
        rc = RC_MISSING_VALUE;
        NA_TRACE_MIN("Multipath arguments are incomplete, lundevs are missing.\n");
        noteFailure("a policy change needs at least one device");
    }
    NA_TRACE_MID("Multipath Policy Change Action\n");
    return rc;
}

// Tokens after the setting mean nothing to a rescan.
int32_t storeWalkRequest(const std::vector<std::string>&, MultipathRequest*) {
    NA_TRACE_MID("Multipath Walk-The-Bus Action\n");
    return RC_OK;
}

// The agent is told which policy goes to which devices before the driver is asked.
int32_t announceAndSetPolicy(PPlannerDriver* plannerDriver, const MultipathRequest& request) {
    logMsg(activityLog, AGT0458I, policyName(request.setting), NA_STR(joinWords(request.devices)));
    return setMultipathPolicy(plannerDriver, request);
}

int32_t announceAndWalk(PPlannerDriver* plannerDriver, const MultipathRequest&) {
    logMsg(activityLog, AGT0459I);
    return walkTheBus(plannerDriver);
}

// Each setting range with what validation stores for it and the action it runs.
struct SettingKind {
    int32_t first;
    int32_t last;
    int32_t (*store)(const std::vector<std::string>& options, MultipathRequest* request);
    int32_t (*act)(PPlannerDriver* plannerDriver, const MultipathRequest& request);
};

const SettingKind kSettingKinds[] = {
    {kSettingOffline, kSettingOnline, storeStateRequest, setMultipathState},
    {kSettingLoadBalancing, kSettingFailover, storePolicyRequest, announceAndSetPolicy},
    {kSettingWalkTheBus, kSettingWalkTheBus, storeWalkRequest, announceAndWalk},
};

const SettingKind* findSettingKind(int32_t setting) {
    for (const SettingKind& kind : kSettingKinds) {
        if (setting >= kind.first && setting <= kind.last) return &kind;
    }
    return nullptr;
}

int32_t storeRequest(const std::vector<std::string>& options, MultipathRequest* request) {
    int32_t rc = RC_UNKNOWN_SETTING;
    const SettingKind* kind = findSettingKind(request->setting);
    if (kind) {
        rc = kind->store(options, request);
    } else {
        NA_TRACE_MIN("Unknown multipathSetting: %d\n", request->setting);
        noteFailure("the setting given is " + std::to_string(request->setting));
    }
    return rc;
}

struct PolicyName {
    int32_t setting;
    const char* name;
};

const PolicyName kPolicyNames[] = {
    {kSettingLoadBalancing, "Load Balancing"},
    {kSettingRoundRobin, "Round Robin"},
    {kSettingFailover, "Failover"},
};

// The host's multipath driver, or null after reporting that it has none.
std::unique_ptr<MultipathDriver> driverOrReport(PPlannerDriver* plannerDriver) {
    std::unique_ptr<MultipathDriver> driver = plannerDriver->getMultipathDriver();
    if (!driver) logMsg(activityLog, AGT0456E);
    return driver;
}

}  // namespace

const char* policyName(int32_t setting) {
    const char* name = "Unknown";
    for (const PolicyName& p : kPolicyNames) {
        if (p.setting == setting) name = p.name;
    }
    return name;
}

int32_t validateArgs(const std::vector<std::string>& options, MultipathRequest* request) {
    NA_TRACE_ENTER("validateArgs()");
    int32_t rc = RC_OK;
    if (options.empty()) {
        rc = RC_MISSING_VALUE;
        NA_TRACE_MIN("No multipath arguments to work with.\n");
        logMsg(activityLog, AGT0272E, "multipath", std::to_string(rc).c_str());
    } else if (!scanSetting(options[0], &request->setting)) {
        rc = RC_BAD_ARGS;
        logMsg(activityLog, AGT0398E, NA_STR(options[0]));
        NA_TRACE_MIN(" '%s' is not a valid multipath option.\n", NA_STR(options[0]));
    } else {
        rc = storeRequest(options, request);
    }
    NA_TRACE_EXIT("Exit: %s rc: %i\n", "validateArgs()", rc);
    return rc;
}

int32_t runRequestedAction(PPlannerDriver* plannerDriver, const MultipathRequest& request) {
    NA_TRACE_ENTER("runRequestedAction()");
    // Validation admits only settings the table knows, so a miss runs nothing.
    const SettingKind* kind = findSettingKind(request.setting);
    int32_t rc = kind ? kind->act(plannerDriver, request) : RC_OK;
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "runRequestedAction()", rc);
    return rc;
}

int32_t setMultipathPolicy(PPlannerDriver* plannerDriver, const MultipathRequest& request) {
    NA_TRACE_ENTER("setMultipathPolicy()");
    int32_t rc = RC_NO_MULTIPATH_DRIVER;
    std::unique_ptr<MultipathDriver> driver = driverOrReport(plannerDriver);
    if (driver) {
        // The echo is built only when it will be traced: the device list may be long.
        if (naTraceMid && !request.devices.empty()) {
            NA_TRACE_MID("Calling: setPolicy with multipathSetting = %d for devices \"%s\"\n", request.setting,
                         NA_STR(joinWords(request.devices)));
        }
        rc = driver->setPolicy(request.setting, request.devices);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "setMultipathPolicy()", rc);
    return rc;
}

int32_t setMultipathState(PPlannerDriver* plannerDriver, const MultipathRequest& request) {
    NA_TRACE_ENTER("setMultipathState()");
    int32_t rc = RC_NO_MULTIPATH_DRIVER;
    std::unique_ptr<MultipathDriver> driver = driverOrReport(plannerDriver);
    if (driver) {
        const std::string device = request.devices.empty() ? std::string() : request.devices.front();
        if (naTraceMid && !request.wwpns.empty()) {
            NA_TRACE_MID("Calling: setState with multipathSetting = %d for device \"%s\" for wwpns = \"%s\"\n",
                         request.setting, NA_STR(device), NA_STR(joinWords(request.wwpns)));
        }
        rc = driver->setState(request.setting, device, request.wwpns);
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "setMultipathState()", rc);
    return rc;
}

int32_t walkTheBus(PPlannerDriver* plannerDriver) {
    NA_TRACE_ENTER("walkTheBus()");
    int32_t rc = RC_CANCELLED;
    std::unique_ptr<WalkTheBus> vehicle = plannerDriver->getWalkTheBusVehicle();
    // The only place a stop request is honoured: the rescan and its settle time are
    // long, policy and state changes are not.
    if (agentStopRequested) {
        logMsg(activityLog, AGT0445I);
        NA_TRACE_MIN("PathPlanner cancelled due to Agent stop signal\n");
    } else {
        rc = vehicle->walkTheBus();
    }
    NA_TRACE_EXIT("Exit: %s, rc = %d\n", "walkTheBus()", rc);
    return rc;
}
