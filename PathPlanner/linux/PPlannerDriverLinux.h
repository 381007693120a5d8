// The Linux planner driver: probes for the vendor multipath driver first and the
// device-mapper tools second, and builds the Linux rescan vehicle.
#ifndef PATHPLANNER_LINUX_PPLANNERDRIVERLINUX_H
#define PATHPLANNER_LINUX_PPLANNERDRIVERLINUX_H

#include <memory>

#include "PathPlanner/PPlannerDriver.h"

class PPlannerDriverLinux : public PPlannerDriver {
public:
    PPlannerDriverLinux() = default;
    ~PPlannerDriverLinux() override = default;

    // Probes again on every call; the vendor driver wins whenever it reports a
    // version. Null when neither driver answers.
    std::unique_ptr<MultipathDriver> getMultipathDriver() override;
    // A WalkTheBusLinux owning a freshly probed driver (possibly null); never null.
    std::unique_ptr<WalkTheBus> getWalkTheBusVehicle() override;
};

#endif
