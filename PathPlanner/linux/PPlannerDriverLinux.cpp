#include "PathPlanner/linux/PPlannerDriverLinux.h"

#include <string>

#include "Common/AgentTrace.h"
#include "Multipath/linux/MultipathDMLinux.h"
#include "Multipath/linux/MultipathZPLLinux.h"
#include "PathPlanner/linux/WalkTheBusLinux.h"

std::unique_ptr<MultipathDriver> PPlannerDriverLinux::getMultipathDriver() {
    NA_TRACE_ENTER("getMultipathDriver()");
    std::unique_ptr<MultipathDriver> driver(new MultipathZPLLinux());
    std::string version = driver->getVersion();
    if (!version.empty()) {
        NA_TRACE_MID("Found Multipath ZOR ZPL driver, version %s\n", NA_STR(version));
    } else {
        driver.reset(new MultipathDMLinux());
        version = driver->getVersion();
        if (!version.empty()) {
            NA_TRACE_MID("Found Multipath DM driver, version %s\n", NA_STR(version));
        } else {
            driver.reset();
            // No line end here: the trace has always read this way.
            NA_TRACE_MID("No Multipath driver available.");
        }
    }
    NA_TRACE_EXIT("Exit: %s, Multipath*Linux instance pointer = %p\n", "getMultipathDriver()",
                  static_cast<void*>(driver.get()));
    return driver;
}

std::unique_ptr<WalkTheBus> PPlannerDriverLinux::getWalkTheBusVehicle() {
    NA_TRACE_ENTER("getWalkTheBusVehicle()");
    std::unique_ptr<WalkTheBus> vehicle(new WalkTheBusLinux(getMultipathDriver()));
    NA_TRACE_EXIT("Exit: %s, WalkTheBusLinux instance pointer = %p\n", "getWalkTheBusVehicle()",
                  static_cast<void*>(vehicle.get()));
    return vehicle;
}

std::unique_ptr<PPlannerDriver> getPlannerDriver(const std::string& label, const std::string& installDir) {
    NA_TRACE_ENTER("getPlannerDriver()");
    std::unique_ptr<PPlannerDriver> plannerDriver(new PPlannerDriverLinux());
    NA_TRACE_EXIT("Exit: %s\n", "getPlannerDriver()");
    return plannerDriver;
}
