// The platform factory of the path planner: detects the host's multipath driver and
// builds the rescan vehicle. Stateless: every call probes the host again.
#ifndef PATHPLANNER_PPLANNERDRIVER_H
#define PATHPLANNER_PPLANNERDRIVER_H

#include <cstdint>
#include <memory>
#include <string>

#include "Multipath/MultipathDriver.h"
#include "PathPlanner/WalkTheBus.h"

class PPlannerDriver {
public:
    PPlannerDriver() = default;
    virtual ~PPlannerDriver() = default;
    PPlannerDriver(const PPlannerDriver&) = delete;
    PPlannerDriver& operator=(const PPlannerDriver&) = delete;

    // A new driver for the host's multipath driver; null when it has none.
    virtual std::unique_ptr<MultipathDriver> getMultipathDriver() = 0;
    // A new rescan vehicle; never null (its driver may be null).
    virtual std::unique_ptr<WalkTheBus> getWalkTheBusVehicle() = 0;

protected:
    int32_t reserved = 0;
};

// The platform's planner driver; both arguments are ignored.
std::unique_ptr<PPlannerDriver> getPlannerDriver(const std::string& label, const std::string& installDir);

#endif
