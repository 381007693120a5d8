// The multipath driver for the device-mapper multipath tools: finds the installed
// package through rpm, changes the path-selection policy through "multipath", reads
// the topology of "multipath -ll -v2" and switches queueing maps to failing.
#ifndef MULTIPATH_LINUX_MULTIPATHDMLINUX_H
#define MULTIPATH_LINUX_MULTIPATHDMLINUX_H

#include <cstdint>
#include <string>
#include <vector>

#include "Multipath/MultipathDriver.h"

// Where "multipath" and "dmsetup" live unless a caller says otherwise.
inline constexpr char kDmDefaultToolDir[] = "/sbin/";

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


private:
    std::string toolDir_;
    std::string version_;  // cached package line; empty until a query succeeded
};

#endif
