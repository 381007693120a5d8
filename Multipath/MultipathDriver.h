// The one interface behind which both multipath drivers (device-mapper tools and the
// vendor driver with lunctl) change policy and path state, plus the topology record
// of one device-mapper path.
#ifndef MULTIPATH_MULTIPATHDRIVER_H
#define MULTIPATH_MULTIPATHDRIVER_H

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Values of multipathSetting, as they travel from the request to the drivers.
constexpr int32_t kSettingOffline = 0;
constexpr int32_t kSettingOnline = 1;
constexpr int32_t kSettingLoadBalancing = 2;
constexpr int32_t kSettingRoundRobin = 3;
constexpr int32_t kSettingFailover = 4;
constexpr int32_t kSettingWalkTheBus = 5;  // never passed to a driver

class MultipathDriver {
public:
    MultipathDriver() = default;
    virtual ~MultipathDriver() = default;
    MultipathDriver(const MultipathDriver&) = delete;
    MultipathDriver& operator=(const MultipathDriver&) = delete;

    virtual int32_t setPolicy(int32_t setting, const std::vector<std::string>& devices) = 0;
    virtual int32_t setState(int32_t setting, const std::string& device, const std::vector<std::string>& wwpns) = 0;
    virtual std::vector<std::string> getErrorDevices() = 0;
    virtual std::vector<std::string> getErrorWWPNs() = 0;
    // The driver's version text; empty when the driver is not installed or not working.
    virtual std::string getVersion() = 0;
    virtual int32_t performDynamicReconfiguration() = 0;

protected:
    int32_t status_ = 1;  // reserved status word
};

// One path of the device-mapper topology.
struct PathRecord {
    int32_t kind = 1;
    std::string id = "0";
    uint16_t host = 0;
    uint16_t channel = 0;
    uint32_t target = 0;
    uint16_t lun = 0;
    std::string state;
    std::string mode;
    bool preferred = false;
    std::string policy;
    std::string disk;
    std::string device;
    int16_t group = 0;
    std::string driverVersion;
    std::string spare;
};

// Device name to its record; the map's owner owns the records.
typedef std::map<std::string, std::unique_ptr<PathRecord>> Topology;

#endif
