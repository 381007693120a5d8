#include "PathPlanner/linux/PPlannerDriverLinux.h"

#include <algorithm>

#include "PathPlanner/linux/WalkTheBusLinux.h"
#include "tests/fakes/FakeTools.h"

namespace {

// The package queries of both probes, answered by a fake rpm.
void install(fakes::FakeTools* tools, bool zpl, bool dm) {
    tools->answer("rpm.-q.ZORzpl", zpl ? "ZORzpl-1.6.2.0-1\n" : "package ZORzpl is not installed\n", zpl ? 0 : 1);
    tools->answer("rpm.-qa", dm ? "bash-5.2.15-2\ndevice-mapper-multipath-0.4.9-123\n" : "bash-5.2.15-2\n");
    tools->answer("rpm.-q.device-mapper-multipath-0.4.9-123", "device-mapper-multipath-0.4.9-123\n");
}

TEST(PPlannerDriverLinuxTest, EveryCallProbesAgainAndVehicleComesWithoutDriver) {
    for (bool zpl : {true, false}) {
        fakes::FakeTools tools{"rpm"};
        install(&tools, zpl, false);
        PPlannerDriverLinux planner;
        EXPECT_EQ(zpl, planner.getMultipathDriver() != nullptr);
        std::unique_ptr<WalkTheBus> vehicle = planner.getWalkTheBusVehicle();
        WalkTheBusLinux* linuxVehicle = dynamic_cast<WalkTheBusLinux*>(vehicle.get());
        ASSERT_NE(nullptr, linuxVehicle);
        EXPECT_EQ(zpl, linuxVehicle->driver() != nullptr);
        const std::vector<std::string> calls = tools.calls("rpm");
        EXPECT_EQ(2, std::count(calls.begin(), calls.end(), "-q ZORzpl"));
    }
}

}  // namespace
