// The multipath driver for the device-mapper multipath tools: finds the installed
// package through rpm, changes the path-selection policy through "multipath", reads
// the topology of "multipath -ll -v2" and switches queueing maps to failing.
#ifndef MULTIPATH_LINUX_MULTIPATHDMLINUX_H
#define MULTIPATH_LINUX_MULTIPATHDMLINUX_H

#include <cstdint>
#include <string>
#include <vector>

#include "Common/CmdExecer.h"
#include "Multipath/MultipathDriver.h"
#include "Multipath/linux/DMMapView.h"
#include "Multipath/linux/DMTopologyParser.h"

// Where "multipath" and "dmsetup" live unless a caller says otherwise.
inline constexpr char kDmDefaultToolDir[] = "/sbin/";

// What the listing command of getMultipathConfig came to.
struct DmListingResult {
    DmListingStatus status = DmListingStatus::kNotRun;
    int32_t exitCode = 0;
    std::string command;  // the command line (empty when nothing ran)
    std::string sysErr;   // what the command wrote to standard error
};

// What setFailIfNoPath did, map by map, in the order "dmsetup ls" listed them.
struct DmQueueingSwitchResult {
    std::vector<std::string> switched;     // queued I/O; the fail_if_no_path message was taken
    std::vector<std::string> refused;      // queued I/O; dmsetup ran but rejected the message
    std::vector<std::string> notQueueing;  // left alone
    bool stopped = false;                  // a command could not be run or "dmsetup ls" failed;
                                           // later maps not examined
    std::string failedCommand;             // that command
    std::string failedErr;                 // what it said on standard error
    bool failedRan = false;                // it ran and exited non-zero
};

class MultipathDMLinux : public MultipathDriver {
public:
    // toolDir ends in "/" and holds "multipath" and "dmsetup"; rpm is found through PATH.
    explicit MultipathDMLinux(const std::string& toolDir = kDmDefaultToolDir);
    ~MultipathDMLinux() override = default;

    // RC_OK, RC_SETTING_NOT_SUPPORTED (every setting but round robin) or
    // RC_DRIVER_CMD_FAILED. The device list is not used: the tool applies the
    // configured policy to every map at once.
    int32_t setPolicy(int32_t setting, const std::vector<std::string>& devices) override;
    // Path state is not driven through this driver: always RC_OK, runs nothing.
    int32_t setState(int32_t setting, const std::string& device, const std::vector<std::string>& wwpns) override;
    std::vector<std::string> getErrorDevices() override;
    std::vector<std::string> getErrorWWPNs() override;
    // The installed package with its version (first line of the rpm query), or empty.
    // Cached after the first non-empty answer.
    std::string getVersion() override;
    // The tools reconfigure themselves: RC_OK, runs nothing.
    int32_t performDynamicReconfiguration() override;

    // Fills *topology (records owned by the map) from "multipath -ll -v2"; driver
    // supplies the version (null: this object). Outcomes are traced and reported as
    // messages, not returned; *result, when given, receives what the command came to.
    void getMultipathConfig(Topology* topology, MultipathDriver* driver, DmListingResult* result = nullptr);
    // Switches every multipath map that queues I/O without paths to failing it, and
    // stops at the first command that cannot be run (a command that runs and fails
    // counts as done). Returns RC_OK; *result, when given, says what was done.
    int32_t setFailIfNoPath(DmQueueingSwitchResult* result = nullptr);
    // Reads the nested view of "multipath -ll -v2" into *maps (left empty unless
    // result->status is kParsed); the driver's version must be known first.
    void getMapView(std::vector<DmViewMap>* maps, DmListingResult* result);
    // Runs "multipathd fail path DEVICE" (fail) or "multipathd reinstate path DEVICE".
    // RC_OK, RC_BAD_ARGS (device not a safe name; nothing run) or RC_DRIVER_CMD_FAILED
    // (could not run or failed); *run receives the command's result.
    int32_t changePathState(const std::string& device, bool fail, CommandResult* run);

protected:
    // Every command of the driver goes through here, so a test can make one fail.
    virtual CommandResult runTool(const std::vector<std::string>& args);

private:
    void runListing(const std::string& driverText, Topology* topology, DmListingResult* result);
    bool listMaps(std::vector<std::string>* names, DmQueueingSwitchResult* result);
    bool switchMap(const std::string& name, DmQueueingSwitchResult* result);

    std::string toolDir_;
    std::string version_;  // cached package line; empty until a query succeeded
};

#endif
