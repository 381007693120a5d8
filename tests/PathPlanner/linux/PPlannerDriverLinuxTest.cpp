#include "PathPlanner/linux/PPlannerDriverLinux.h"

#include "Multipath/linux/MultipathDMLinux.h"
#include "Multipath/linux/MultipathZPLLinux.h"
#include "PathPlanner/linux/WalkTheBusLinux.h"
#include "gtest/gtest.h"
#include "tests/fakes/zpl/FakeTools.h"

namespace {

const char kZplVersion[] = "ZORzpl-1.6.2.0-1";
const char kDmPackage[] = "device-mapper-multipath-0.4.9-123";

// The package queries of both probes, answered by the fake rpm.
void install(zpltest::FakeTools* tools, bool zpl, bool dm) {
    if (zpl) tools->answer("rpm.-q_ZORzpl", std::string(kZplVersion) + "\n");
    if (!zpl) tools->answer("rpm.-q_ZORzpl", "package ZORzpl is not installed\n", 1);
    if (dm) tools->answer("rpm.-qa", std::string("bash-5.2.15-2\n") + kDmPackage + "\n");
    if (dm) tools->answer(std::string("rpm.-q_") + kDmPackage, std::string(kDmPackage) + "\n");
}

size_t countCalls(const zpltest::FakeTools& tools, const std::string& call) {
    size_t count = 0;
    for (const std::string& line : tools.calls()) count += line == call ? 1 : 0;
    return count;
}

TEST(PPlannerDriverLinuxTest, ProbeOrderPicksDriver) {
    struct Case {
        bool zpl;
        bool dm;
        const char* trace;
    } cases[] = {
        {true, true, "Found Multipath ZOR ZPL driver, version ZORzpl-1.6.2.0-1\n"},
        {true, false, "Found Multipath ZOR ZPL driver, version ZORzpl-1.6.2.0-1\n"},
        {false, true, "Found Multipath DM driver, version device-mapper-multipath-0.4.9-123\n"},
        {false, false, "No Multipath driver available."},
    };
    for (const Case& c : cases) {
        zpltest::FakeTools tools;
        zpltest::TraceCapture trace;
        install(&tools, c.zpl, c.dm);
        std::unique_ptr<PPlannerDriver> planner = getPlannerDriver("label", "/opt/ZOR/QLX/agent");
        std::unique_ptr<MultipathDriver> driver = planner->getMultipathDriver();
        EXPECT_EQ(c.zpl, dynamic_cast<MultipathZPLLinux*>(driver.get()) != nullptr) << c.trace;
        EXPECT_EQ(!c.zpl && c.dm, dynamic_cast<MultipathDMLinux*>(driver.get()) != nullptr) << c.trace;
        EXPECT_TRUE(trace.has(c.trace)) << c.trace;
        // The vendor driver wins without the device-mapper probe ever running.
        EXPECT_EQ(c.zpl ? 0u : 1u, countCalls(tools, "rpm -qa")) << c.trace;
    }
}

TEST(PPlannerDriverLinuxTest, EveryCallProbesAgain) {
    zpltest::FakeTools tools;
    install(&tools, true, false);
    PPlannerDriverLinux planner;
    EXPECT_NE(nullptr, planner.getMultipathDriver());
    EXPECT_NE(nullptr, planner.getMultipathDriver());
    EXPECT_NE(nullptr, planner.getWalkTheBusVehicle());
    EXPECT_EQ(3u, countCalls(tools, "rpm -q ZORzpl"));
}

TEST(PPlannerDriverLinuxTest, VehicleWithoutDriverStillComes) {
    struct Case {
        bool zpl;
        bool hasDriver;
    } cases[] = {{false, false}, {true, true}};
    for (const Case& c : cases) {
        zpltest::FakeTools tools;
        install(&tools, c.zpl, false);
        PPlannerDriverLinux planner;
        std::unique_ptr<WalkTheBus> vehicle = planner.getWalkTheBusVehicle();
        WalkTheBusLinux* linuxVehicle = dynamic_cast<WalkTheBusLinux*>(vehicle.get());
        ASSERT_NE(nullptr, linuxVehicle);
        EXPECT_EQ(c.hasDriver, linuxVehicle->driver() != nullptr);
        EXPECT_EQ("/tmp/rescanScript" + std::to_string(getpid()), linuxVehicle->scriptPath());
    }
}

}  // namespace
