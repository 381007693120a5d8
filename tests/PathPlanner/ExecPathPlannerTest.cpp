#include "PathPlanner/ExecPathPlanner.h"

#include "Common/unix/pssignal.h"
#include "PathPlanner/PPlannerDriver.h"
#include "tests/fakes/FakeTools.h"

using ::testing::ByMove;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Return;
using ::testing::StrictMock;
using fakes::MockMultipathDriver;
using Lines = std::vector<std::string>;

namespace {

class MockWalkTheBus : public WalkTheBus {
public:
    MockWalkTheBus() : WalkTheBus(nullptr) {}
    MOCK_METHOD(int32_t, walkTheBus, (), (override));
};

class MockPlannerDriver : public PPlannerDriver {
public:
    MOCK_METHOD(std::unique_ptr<MultipathDriver>, getMultipathDriver, (), (override));
    MOCK_METHOD(std::unique_ptr<WalkTheBus>, getWalkTheBusVehicle, (), (override));
};

// The request globals start empty, as they do in a fresh process.
class ExecPathPlannerTest : public ::testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override { reset(); }
    static void reset() {
        multipathSetting = 0;
        multipathDevices.clear();
        multipathWwpns.clear();
        agentStopRequested = 0;
    }
    // The planner hands out this driver at its next call.
    static void plan(MockPlannerDriver* planner, std::unique_ptr<MultipathDriver> driver) {
        EXPECT_CALL(*planner, getMultipathDriver()).WillOnce(Return(ByMove(std::move(driver))));
    }
};

TEST_F(ExecPathPlannerTest, ValidateArgsStoresAcceptedRequests) {
    const struct { Lines tokens; int32_t setting; Lines devices; Lines wwpns; const char* action; } cases[] = {
        {{"5", "x", "y"}, 5, {}, {}, "Walk-The-Bus"},
        {{"2", "dev1"}, 2, {"dev1"}, {}, "Policy Change"},
        {{"0", "dev1", "w1", "w2"}, 0, {"dev1"}, {"w1", "w2"}, "State Change"},
        {{"1", "dev1", ""}, 1, {"dev1"}, {""}, "State Change"},
        // Read like "%d": leading blanks skipped, sign allowed, trailing text ignored.
        {{"  3", "dev1"}, 3, {"dev1"}, {}, "Policy Change"},
        {{"+3abc", "dev1"}, 3, {"dev1"}, {}, "Policy Change"},
    };
    for (const auto& c : cases) {
        reset();
        fakes::TraceCapture trace;
        const std::string input = ::testing::PrintToString(c.tokens);
        EXPECT_EQ(RC_OK, validateArgs(c.tokens)) << input;
        EXPECT_EQ(c.setting, multipathSetting) << input;
        EXPECT_EQ(c.devices, multipathDevices) << input;
        EXPECT_EQ(c.wwpns, multipathWwpns) << input;
        EXPECT_THAT(trace.text(), HasSubstr(std::string("Multipath ") + c.action + " Action\n")) << input;
    }
}

TEST_F(ExecPathPlannerTest, ValidateArgsRejectsBadRequests) {
    const struct { Lines tokens; int32_t rc; const char* trace; const char* message; } cases[] = {
        {{}, RC_MISSING_VALUE, "No multipath arguments to work with.\n", "AGT0272E"},
        {{"abc", "dev1"}, RC_BAD_ARGS, " 'abc' is not a valid multipath option.\n", "AGT0398E"},
        {{""}, RC_BAD_ARGS, " '<NULL>' is not a valid multipath option.\n", "AGT0398E"},
        {{"7", "dev1"}, RC_UNKNOWN_SETTING, "Unknown multipathSetting: 7\n", ""},
        {{"99999999999", "dev1"}, RC_UNKNOWN_SETTING, "Unknown multipathSetting: 2147483647\n", ""},
        {{"0", "dev1"}, RC_MISSING_VALUE, "Multipath arguments are incomplete, lundev or its paths are missing.\n", ""},
        {{"1"}, RC_MISSING_VALUE, "Multipath arguments are incomplete, lundev or its paths are missing.\n", ""},
        {{"2"}, RC_MISSING_VALUE, "Multipath arguments are incomplete, lundevs are missing.\n", ""},
    };
    for (const auto& c : cases) {
        reset();
        fakes::TraceCapture trace;
        fakes::LogCapture log;
        const std::string input = ::testing::PrintToString(c.tokens);
        EXPECT_EQ(c.rc, validateArgs(c.tokens)) << input;
        EXPECT_TRUE(multipathDevices.empty() && multipathWwpns.empty()) << input;
        EXPECT_THAT(trace.text(), HasSubstr(c.trace)) << input;
        std::string logged = log.text();
        EXPECT_TRUE(c.message[0] ? logged.find(c.message) != std::string::npos : logged.empty()) << input << logged;
    }
}

TEST_F(ExecPathPlannerTest, PolicyAndStateWithoutDriverReturnNoDriver) {
    multipathDevices = {"dev1"};
    multipathWwpns = {"w1"};
    for (auto action : {setMultipathPolicy, setMultipathState}) {
        fakes::LogCapture log;
        MockPlannerDriver planner;
        plan(&planner, nullptr);
        EXPECT_EQ(RC_NO_MULTIPATH_DRIVER, action(&planner));
        EXPECT_THAT(log.text(), HasSubstr("AGT0456E"));
    }
}

TEST_F(ExecPathPlannerTest, ActionsPassRequestAndReturnDriverResult) {
    fakes::TraceCapture trace;
    multipathDevices = {"lun7", "lun8"};
    multipathWwpns = {"500507680140a1b2", "500507680140a1b3"};
    MockPlannerDriver planner;
    auto policyDriver = std::make_unique<StrictMock<MockMultipathDriver>>();
    multipathSetting = 3;
    EXPECT_CALL(*policyDriver, setPolicy(3, ElementsAre("lun7", "lun8"))).WillOnce(Return(RC_SETTING_NOT_SUPPORTED));
    plan(&planner, std::move(policyDriver));
    EXPECT_EQ(RC_SETTING_NOT_SUPPORTED, setMultipathPolicy(&planner));
    auto stateDriver = std::make_unique<StrictMock<MockMultipathDriver>>();
    multipathSetting = 0;
    EXPECT_CALL(*stateDriver, setState(0, "lun7", ElementsAre("500507680140a1b2", "500507680140a1b3")))
        .WillOnce(Return(RC_ZPL_DEVICE_NOT_FOUND));
    plan(&planner, std::move(stateDriver));
    EXPECT_EQ(RC_ZPL_DEVICE_NOT_FOUND, setMultipathState(&planner));
    EXPECT_THAT(trace.text(), HasSubstr("Calling: setPolicy with multipathSetting = 3 for devices \"lun7 lun8\"\n"));
    EXPECT_THAT(trace.text(), HasSubstr("Calling: setState with multipathSetting = 0 for device \"lun7\" for wwpns = "
                                        "\"500507680140a1b2 500507680140a1b3\"\n"));
}

TEST_F(ExecPathPlannerTest, WalkTheBusReturnsVehicleResultUnlessStopped) {
    fakes::LogCapture log;
    auto scanning = std::make_unique<MockWalkTheBus>();
    EXPECT_CALL(*scanning, walkTheBus()).WillOnce(Return(42));
    MockPlannerDriver scanner;
    EXPECT_CALL(scanner, getWalkTheBusVehicle()).WillOnce(Return(ByMove(std::move(scanning))));
    EXPECT_EQ(42, walkTheBus(&scanner));
    EXPECT_EQ("", log.text());
    fakes::TraceCapture trace;
    agentStopRequested = 1;
    auto vehicle = std::make_unique<MockWalkTheBus>();
    EXPECT_CALL(*vehicle, walkTheBus()).Times(0);
    MockPlannerDriver planner;
    EXPECT_CALL(planner, getWalkTheBusVehicle()).WillOnce(Return(ByMove(std::move(vehicle))));
    EXPECT_EQ(RC_CANCELLED, walkTheBus(&planner));
    EXPECT_THAT(log.text(), HasSubstr("AGT0445I"));
    EXPECT_THAT(trace.text(), HasSubstr("PathPlanner cancelled due to Agent stop signal\n"));
}

}  // namespace
